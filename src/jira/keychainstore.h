#pragma once

#include <QString>
#include <QVariantMap>

#include <functional>

// The one credential record (tokens and the broker that issued them) in the system's secret store, as compact
// JSON under (service, account). A missing item and a damaged one both read as "not connected"; any other
// failure of the store is reported.
class KeychainStore
{
public:
    KeychainStore(const QString &service, const QString &account);

    const QString &service() const { return m_service; }
    const QString &account() const { return m_account; }

    // The record, or an empty map when there is none. Throws "JiraError" when the store cannot be read.
    QVariantMap load() const;
    // Stores `record`, replacing any earlier one. Throws "JiraError" when it cannot be kept.
    void save(const QVariantMap &record) const;
    // Deletes the item; a missing item is no failure.
    void remove() const;

    // Runs `work` on the one thread that runs every secret-store job, and waits for it.
    static void onStoreThread(const std::function<void()> &work);

private:
    QString m_service;
    QString m_account;
};
