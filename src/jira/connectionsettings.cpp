#include "jira/connectionsettings.h"

#include "platform/endpoints.h"

#include <QSettings>
#include <QUrl>

namespace
{

const QString kUsesCustom = QStringLiteral("ConnectionUsesCustomServer");
const QString kCustomOrigin = QStringLiteral("ConnectionCustomOrigin");
const QString kBrokerOrigin = QStringLiteral("JiraBrokerOrigin");

bool containsSpace(const QString &text)
{
    for (const QChar c : text) {
        if (c.isSpace())
            return true;
    }
    return false;
}

} // namespace

ConnectionSettings::ConnectionSettings(QSettings &defaults)
    : m_defaults(defaults)
{
    if (m_defaults.contains(kUsesCustom))
        return;
    // Older releases kept only the broker origin. A value that does not normalise counts as custom, so the
    // user's choice stays visible instead of being replaced by the default.
    const QString old = m_defaults.value(kBrokerOrigin).toString();
    const QString normalized = normalizedOrigin(old);
    m_defaults.setValue(kUsesCustom, !old.isEmpty() && normalized != endpoints::defaultBrokerOrigin());
    m_defaults.setValue(kCustomOrigin, normalized.isNull() ? old : normalized);
}

QString ConnectionSettings::normalizedOrigin(const QString &text)
{
    const QString trimmed = text.trimmed();
    if (trimmed.isEmpty() || containsSpace(trimmed))
        return {};
    const QUrl url(trimmed, QUrl::StrictMode);
    if (!url.isValid() || url.scheme().toLower() != QLatin1String("https") || url.host().isEmpty())
        return {};
    if (!url.userName().isEmpty() || !url.password().isEmpty() || url.hasQuery() || url.hasFragment()
        || url.authority(QUrl::FullyEncoded).contains(QLatin1Char('@')))
        return {};
    const QString path = url.path();
    if (!path.isEmpty() && path != QLatin1String("/"))
        return {};
    const int port = url.port();
    if (port != -1 && (port < 1 || port > 65535))
        return {};

    QUrl rebuilt;
    rebuilt.setScheme(QStringLiteral("https"));
    rebuilt.setHost(url.host().toLower());
    if (port != -1 && port != 443)
        rebuilt.setPort(port);
    if (!rebuilt.isValid())
        return {};
    return rebuilt.toString(QUrl::FullyEncoded);
}

bool ConnectionSettings::usesCustomServer() const
{
    return m_defaults.value(kUsesCustom, false).toBool();
}

QString ConnectionSettings::customOrigin() const
{
    return m_defaults.value(kCustomOrigin, QString()).toString();
}

QString ConnectionSettings::effectiveOrigin() const
{
    return usesCustomServer() ? customOrigin() : endpoints::defaultBrokerOrigin();
}

bool ConnectionSettings::saveCustom(bool custom, const QString &origin)
{
    const QString normalized = normalizedOrigin(origin);
    if (custom && normalized.isNull())
        return false;
    m_defaults.setValue(kCustomOrigin, normalized.isNull() ? origin : normalized);
    m_defaults.setValue(kUsesCustom, custom);
    m_defaults.setValue(kBrokerOrigin, effectiveOrigin());
    return true;
}
