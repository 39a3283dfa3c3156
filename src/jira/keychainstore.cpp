#include "jira/keychainstore.h"

#include "jira/servicefail.h"
#include "platform/appidentity.h"
#include "platform/serialqueue.h"

#include <QEventLoop>
#include <QJsonDocument>
#include <QJsonObject>

#include <qt6keychain/keychain.h>

namespace
{

bool storeDisabled()
{
    // Only the exact text "1" switches the store off; "11" or "true" do not.
    return qgetenv("HOURLOOM_TEST_NO_KEYCHAIN") == "1";
}

// Runs a QtKeychain job to completion on the calling thread, which must be the store thread.
void run(QKeychain::Job &job)
{
    QEventLoop loop;
    QObject::connect(&job, &QKeychain::Job::finished, &loop, &QEventLoop::quit);
    job.start();
    loop.exec();
}

} // namespace

void KeychainStore::onStoreThread(const std::function<void()> &work)
{
    // QtKeychain queues its jobs through one executor object that is not thread-safe and that lives on the
    // thread of the first job; confining every job to one thread with its own event loop keeps it consistent
    // whichever thread asks. Deliberately never destroyed: its thread simply ends with the process.
    static SerialQueue *const queue = new SerialQueue(HLApplicationIdentifier() + QStringLiteral(".keychain"));
    if (queue->isCurrent())
        work();
    else
        queue->sync(work);
}

KeychainStore::KeychainStore(const QString &service, const QString &account)
    : m_service(service)
    , m_account(account)
{
}

QVariantMap KeychainStore::load() const
{
    if (storeDisabled())
        return {};
    QByteArray data;
    onStoreThread([&] {
        QKeychain::ReadPasswordJob job(m_service);
        job.setAutoDelete(false);
        job.setKey(m_account);
        run(job);
        if (job.error() == QKeychain::EntryNotFound)
            return;
        if (job.error() != QKeychain::NoError)
            HLServiceFail(QStringLiteral("Unable to read Jira credentials from Keychain."));
        data = job.binaryData();
    });
    // A damaged item reads as not connected rather than as a failure.
    const QJsonDocument document = QJsonDocument::fromJson(data);
    return document.isObject() ? document.object().toVariantMap() : QVariantMap();
}

void KeychainStore::save(const QVariantMap &record) const
{
    if (storeDisabled())
        return;
    const QJsonObject object = QJsonObject::fromVariantMap(record);
    for (auto it = record.cbegin(); it != record.cend(); ++it) {
        // Values JSON cannot hold come out as null; storing them would silently change the record.
        const QJsonValue value = object.value(it.key());
        if ((value.isNull() || value.isUndefined()) && !it.value().isNull())
            HLServiceFail(QStringLiteral("Invalid credential response."));
    }
    const QByteArray data = QJsonDocument(object).toJson(QJsonDocument::Compact);
    onStoreThread([&] {
        // Writing replaces an existing item; the Secret Service keeps it in the user's login collection.
        QKeychain::WritePasswordJob job(m_service);
        job.setAutoDelete(false);
        job.setKey(m_account);
        job.setBinaryData(data);
        run(job);
        if (job.error() != QKeychain::NoError)
            HLServiceFail(QStringLiteral("Could not securely save Jira credentials. Authorization was not retained."));
    });
}

void KeychainStore::remove() const
{
    if (storeDisabled())
        return;
    onStoreThread([&] {
        QKeychain::DeletePasswordJob job(m_service);
        job.setAutoDelete(false);
        job.setKey(m_account);
        run(job); // a missing item is no failure, and neither is anything else here
    });
}
