#include "submission/receiptstore.h"

#include "worklogs/namedfailure.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace
{

const QString kReceiptError = QStringLiteral("ReceiptError");

// The rename that replaced the ledger is durable only once its folder is synced: without it a power cut right
// after a POST could bring the old ledger back, and with it a worklog without its receipt. A file system that
// cannot sync folders (EINVAL) offers nothing more to wait for.
bool syncFolder(const QString &directory)
{
    const int descriptor = ::open(QFile::encodeName(directory).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0)
        return false;
    const bool synced = ::fsync(descriptor) == 0 || errno == EINVAL;
    ::close(descriptor);
    return synced;
}

} // namespace

ReceiptStore::ReceiptStore(const QString &directory)
    : m_directory(directory)
{
}

QString ReceiptStore::path() const
{
    return m_directory + QStringLiteral("/jira-receipts.json");
}

QVariantMap ReceiptStore::receipts() const
{
    const QString file = path();
    // A dangling symlink or anything else that "exists" without being readable must block, not count as absent.
    const QFileInfo info(file);
    if (!info.exists() && !info.isSymLink())
        return {};
    QFile in(file);
    QJsonParseError error {};
    QJsonDocument document;
    if (in.open(QIODevice::ReadOnly) && !info.isDir())
        document = QJsonDocument::fromJson(in.readAll(), &error);
    if (document.isNull() || error.error != QJsonParseError::NoError || !document.isObject())
        throw NamedFailure(kReceiptError,
            QStringLiteral("Submission history is unreadable. Posting is blocked to prevent duplicates."));
    return document.object().toVariantMap();
}

void ReceiptStore::saveReceipts(const QVariantMap &receipts) const
{
    const QByteArray data = QJsonDocument(QJsonObject::fromVariantMap(receipts)).toJson(QJsonDocument::Compact);
    QSaveFile out(path());
    const bool written = out.open(QIODevice::WriteOnly)
        && out.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner) && out.write(data) == data.size()
        && out.commit() && syncFolder(m_directory);
    if (!written) {
        out.cancelWriting();
        throw NamedFailure(kReceiptError, QStringLiteral("Could not save submission history. Posting stopped."));
    }
}
