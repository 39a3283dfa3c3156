#pragma once

#include <QString>

class QSettings;

// Which sign-in service (authorization broker) origin is used, and the validation of a custom one.
class ConnectionSettings
{
public:
    // Keeps `defaults` (not owned) and migrates the older releases' single "JiraBrokerOrigin" key once.
    explicit ConnectionSettings(QSettings &defaults);

    // "https://host[:port]" with the host lower-cased, port 443 and a trailing "/" dropped; null when `text`
    // is not a bare HTTPS origin.
    static QString normalizedOrigin(const QString &text);

    bool usesCustomServer() const;
    QString customOrigin() const;
    QString effectiveOrigin() const;

    // False (and nothing written) when a custom server is chosen with an origin that does not normalise.
    bool saveCustom(bool custom, const QString &origin);

private:
    QSettings &m_defaults;
};
