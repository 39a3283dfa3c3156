#include "jira/issuetitlecache.h"

#include "jira/jiraclient.h"
#include "records/issuedetails.h"
#include "records/session.h"
#include "worklogs/namedfailure.h"

#include <QCoreApplication>
#include <QDataStream>
#include <QDir>
#include <QFile>
#include <QMetaObject>
#include <QSaveFile>

namespace
{

constexpr int kMaxInFlight = 4;
constexpr qint64 kRetrySeconds = 60;
constexpr qint64 kFreshSeconds = 86400;
constexpr qint64 kBackOffSeconds = 900;
constexpr int kMaxEntries = 1000;
constexpr int kMaxAttempts = 1000;

const QString kFileName = QStringLiteral("jira-titles.plist");
constexpr QDataStream::Version kStreamVersion = QDataStream::Qt_6_4;

bool validEntry(const QVariant &value)
{
    if (value.typeId() != QMetaType::QVariantMap)
        return false;
    const QVariantMap entry = value.toMap();
    return entry.value(IssueDetailsKey::kTitle).typeId() == QMetaType::QString
        && entry.value(IssueDetailsKey::kDate).typeId() == QMetaType::QDateTime
        && entry.value(IssueDetailsKey::kDate).toDateTime().isValid();
}

QVariantMap readEntries(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QDataStream stream(&file);
    stream.setVersion(kStreamVersion);
    QVariantMap stored;
    stream >> stored;
    if (stream.status() != QDataStream::Ok)
        return {};
    QVariantMap entries;
    for (auto it = stored.cbegin(); it != stored.cend(); ++it) {
        if (validEntry(it.value()))
            entries.insert(it.key(), it.value());
    }
    // A cache that has outgrown its bound is discarded rather than trimmed.
    if (entries.size() > kMaxEntries)
        return {};
    return entries;
}

} // namespace

IssueTitleCache::IssueTitleCache(JiraClient &client, const QString &directory, const Clock *clock)
    : m_client(client)
    , m_directory(directory)
    , m_clock(clock)
    , m_self(std::make_shared<IssueTitleCache *>(this))
{
    m_entries = readEntries(path());
}

IssueTitleCache::~IssueTitleCache() = default;

QDateTime IssueTitleCache::now() const
{
    // Stored in UTC, so a file written before a time-zone change reads the same.
    return (m_clock ? *m_clock : Clock::shared()).wallNow().toUTC();
}

QString IssueTitleCache::path() const
{
    return QDir(m_directory).filePath(kFileName);
}

QVariantMap IssueTitleCache::cachedDetails(const QString &issue, const QString &cloud) const
{
    if (issue.isEmpty() || cloud.isEmpty())
        return {};
    return m_entries.value(cloud + QLatin1Char('|') + issue).toMap();
}

QString IssueTitleCache::cachedTitle(const QString &issue, const QString &cloud) const
{
    const QVariant title = cachedDetails(issue, cloud).value(IssueDetailsKey::kTitle);
    return title.typeId() == QMetaType::QString ? title.toString() : QString();
}

QString IssueTitleCache::title(const QString &issue, const QString &cloud, bool refresh)
{
    if (cloud.isEmpty() || issue.isEmpty() || issue == SessionKey::kUnassigned)
        return {};
    const QString key = cloud + QLatin1Char('|') + issue;
    const QVariantMap entry = m_entries.value(key).toMap();
    const QString title = entry.value(IssueDetailsKey::kTitle).typeId() == QMetaType::QString
        ? entry.value(IssueDetailsKey::kTitle).toString()
        : QString();
    const QDateTime date = entry.value(IssueDetailsKey::kDate).toDateTime();
    const QDateTime now = this->now();

    const QDateTime lastAttempt = m_attempts.value(key);
    // `connected` asks the secret store, so it is checked last, only when everything else allows a fetch.
    const bool shouldFetch = m_inFlight.size() < kMaxInFlight && !m_inFlight.contains(key)
        && !(lastAttempt.isValid() && lastAttempt.secsTo(now) < kRetrySeconds)
        && !(m_backOffUntil.isValid() && m_backOffUntil > now)
        && (refresh || !date.isValid() || date.secsTo(now) >= kFreshSeconds) && m_client.connected();
    if (!shouldFetch)
        return title;

    m_attempts.insert(key, now);
    m_inFlight.insert(key);
    const qint64 generation = m_client.generation();
    std::weak_ptr<IssueTitleCache *> self = m_self;
    JiraClient *client = &m_client;
    m_client.queue().async([self, client, generation, key, issue, cloud] {
        QVariantMap details;
        if (client->generation() == generation) {
            try {
                details = client->issueDetails(issue, cloud);
            } catch (const NamedFailure &) {
                // A failed fetch backs off below; the reason is not shown for a title.
            }
        }
        QMetaObject::invokeMethod(
            QCoreApplication::instance(),
            [self, key, generation, details] {
                if (const auto cache = self.lock())
                    (*cache)->finish(key, generation, details);
            },
            Qt::QueuedConnection);
    });
    return title;
}

void IssueTitleCache::finish(const QString &key, qint64 generation, const QVariantMap &details)
{
    m_inFlight.remove(key);
    // A disconnect or a new connection while fetching: the answer belongs to another connection.
    if (m_client.generation() != generation)
        return;
    const QDateTime now = this->now();
    if (details.value(IssueDetailsKey::kTitle).typeId() == QMetaType::QString) {
        if (m_entries.size() >= kMaxEntries && !m_entries.contains(key)) {
            QString oldest;
            QDateTime oldestDate;
            for (auto it = m_entries.cbegin(); it != m_entries.cend(); ++it) {
                const QDateTime date = it.value().toMap().value(IssueDetailsKey::kDate).toDateTime();
                if (oldest.isNull() || !date.isValid() || (oldestDate.isValid() && date < oldestDate)) {
                    oldest = it.key();
                    oldestDate = date;
                    if (!date.isValid())
                        break; // an entry without a date is older than any other
                }
            }
            m_entries.remove(oldest);
        }
        QVariantMap entry {
            {IssueDetailsKey::kTitle, details.value(IssueDetailsKey::kTitle)}, {IssueDetailsKey::kDate, now}};
        for (const QString &field : {IssueDetailsKey::kEstimateSeconds, IssueDetailsKey::kRemainingSeconds}) {
            if (details.contains(field))
                entry.insert(field, details.value(field));
        }
        m_entries.insert(key, entry);
        write();
    } else {
        m_backOffUntil = now.addSecs(kBackOffSeconds);
    }
    if (m_attempts.size() > kMaxAttempts)
        m_attempts.clear();
    if (m_didChange)
        m_didChange();
}

void IssueTitleCache::write() const
{
    QDir().mkpath(m_directory);
    QSaveFile file(path());
    if (!file.open(QIODevice::WriteOnly))
        return;
    file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    QDataStream stream(&file);
    stream.setVersion(kStreamVersion);
    stream << m_entries;
    if (stream.status() != QDataStream::Ok) {
        file.cancelWriting();
        return;
    }
    if (file.commit())
        QFile::setPermissions(path(), QFileDevice::ReadOwner | QFileDevice::WriteOwner);
}
