#include "source/stintwatchmonitor.h"

#include "diagnostics/diagnosticlog.h"
#include "platform/appidentity.h"
#include "platform/clock.h"
#include "platform/processlookup.h"
#include "platform/serialqueue.h"
#include "platform/wakenotifier.h"
#include "records/session.h"
#include "source/history.h"
#include "source/logparser.h"
#include "source/logreader.h"
#include "source/trackerdb.h"
#include "summary/timesummary.h"

#include <QFile>
#include <QFileInfo>
#include <QFileSystemWatcher>
#include <QHash>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocale>
#include <QMap>
#include <QMetaObject>
#include <QStringDecoder>
#include <QTimeZone>
#include <QTimer>

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <exception>
#include <string_view>
#include <unordered_map>

namespace
{

constexpr int kDebounceMs = 250;
constexpr int kTickMs = 15'000;
// A timer may fire a little early; a tick that comes this much before the interval is up still scans.
constexpr qint64 kTickToleranceMs = 1'000;
constexpr qint64 kStartWindowMs = 60'000;
constexpr qint64 kHeartbeatWindowMs = 90'000;
constexpr qint64 kProcessLookMs = 2'000;

constexpr tracker::EventKind kHeartbeat = tracker::EventKind::ServiceHeartbeat;

// Between full reads of the tracker's database only what can have changed is read: per account table the rows
// stamped at or after the newest change seen (less this margin), the rows above the highest id seen, and those
// the scan's heartbeats name. An edit that the tracker stamps with an older time than that (a clock set back
// further than the margin) is missed by such a read; a full read at least this often catches it.
constexpr qint64 kChangeMarginMs = 10 * 60'000;
constexpr qint64 kFullReadIntervalMs = 10 * 60'000;
// Finding the rows stamped since the last read is a pass over every row. A scan whose log shows nothing but
// heartbeats (the running activity, named by them, is looked up by id) makes that pass at most this often,
// so an edit the log does not mention shows within this time; any other logged event makes it at once.
constexpr qint64 kSweepIntervalMs = 60'000;
// More heartbeat ids than this in one scan (a first read of a long log) make the read a full one.
constexpr size_t kMaxNamedIds = 256;
// Changed activities go to the store in batches of at most this many, so a first scan never holds them all.
constexpr size_t kSaveBatch = 8192;

// The keys of a line of the event journal ("events.jsonl"), one line per live event that is not a heartbeat.
namespace JournalKey
{
const QString kKind = QStringLiteral("kind");
const QString kTimestamp = QStringLiteral("timestamp");
const QString kActivity = QStringLiteral("activity");
const QString kHistorical = QStringLiteral("historical");
const QString kProject = QStringLiteral("project");
const QString kDescription = QStringLiteral("description");
} // namespace JournalKey

const QString kLogUnavailable = QStringLiteral("Stintwatch log unavailable. Live state cannot be verified.");

QString text(const std::string &bytes)
{
    if (std::all_of(bytes.begin(), bytes.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; }))
        return QString::fromLatin1(bytes.data(), qsizetype(bytes.size()));
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QString decoded = decoder.decode(QByteArrayView(bytes.data(), qsizetype(bytes.size())));
    return decoder.hasError() ? QStringLiteral("(invalid text)") : decoded;
}

QString retainedError(const QString &message)
{
    return QStringLiteral("Source unavailable: %1. Previously captured history is retained.").arg(message);
}

QString statusText(const QString &path)
{
    struct stat status {
    };
    if (::stat(QFile::encodeName(path).constData(), &status) != 0)
        return QStringLiteral("missing");
    return QStringLiteral("%1:%2.%3:%4")
        .arg(status.st_ino)
        .arg(status.st_mtim.tv_sec)
        .arg(status.st_mtim.tv_nsec)
        .arg(status.st_size);
}

QString durationText(qint64 startMs, qint64 endMs)
{
    if (endMs < startMs)
        return QStringLiteral("Unfinished");
    const qint64 seconds = std::max<qint64>(0, (endMs - startMs) / 1000);
    return QString::asprintf("%lld:%02lld:%02lld", static_cast<long long>(seconds / 3600),
        static_cast<long long>(seconds / 60 % 60), static_cast<long long>(seconds % 60));
}

QVariantMap sessionRecord(const tracker::Activity &activity)
{
    const std::string issue = tracker::issue(activity.description);
    return {
        {SessionKey::kDate,
            QLocale::c().toString(
                QDateTime::fromMSecsSinceEpoch(activity.start_ms), QStringLiteral("MMM d, HH:mm:ss"))},
        {SessionKey::kIssue, issue.empty() ? SessionKey::kUnassigned : QString::fromStdString(issue)},
        {SessionKey::kDescription, text(activity.description)},
        {SessionKey::kDuration, durationText(activity.start_ms, activity.end_ms)},
        {SessionKey::kStartMs, qint64(activity.start_ms)},
        {SessionKey::kEndMs, qint64(activity.end_ms)},
        {SessionKey::kLocalId, qint64(activity.id)},
        {SessionKey::kApiId, qint64(activity.api_id)},
        {SessionKey::kProject, qint64(activity.project)},
        {SessionKey::kSourceSeconds, qint64(activity.seconds)},
        {SessionKey::kSourceAccount, text(activity.source)},
    };
}

// A cheap digest of everything the history store keeps of an activity, to skip rewriting unchanged rows.
quint64 digest(const tracker::ActivityView &a)
{
    quint64 h = std::hash<std::string_view>()(a.description);
    for (const int64_t value : {a.api_id, a.project, a.start_ms, a.end_ms, a.seconds, a.changed_ms, int64_t(a.active)})
        h = (h ^ quint64(value)) * 0x9E3779B97F4A7C15ULL ^ (h >> 29);
    return h;
}

} // namespace

namespace monitordetail
{

// The instant of a log timestamp in ms since 1970, or -1 when it does not parse. Heartbeats come by the
// thousand within one hour of text: the local time of the hour's start is worked out once and the minutes,
// seconds and milliseconds added to it, which is what a full conversion gives within one hour.
class EventClock
{
public:
    qint64 msecs(const QString &timestamp)
    {
        if (timestamp.size() == 23 && !m_hour.isEmpty() && QStringView(timestamp).left(13) == m_hour) {
            const auto digit = [&](int at) { return timestamp.at(at).unicode() - u'0'; };
            bool digits = timestamp.at(13) == u':' && timestamp.at(16) == u':' && timestamp.at(19) == u'.';
            for (const int at : {14, 15, 17, 18, 20, 21, 22})
                digits = digits && digit(at) >= 0 && digit(at) <= 9;
            const int minute = digit(14) * 10 + digit(15), second = digit(17) * 10 + digit(18);
            if (digits && minute < 60 && second < 60)
                return m_base + minute * 60'000 + second * 1000 + digit(20) * 100 + digit(21) * 10 + digit(22);
        }
        const QDateTime at = HLEventDate(timestamp);
        if (!at.isValid())
            return -1;
        const QDateTime hour = QDateTime(at.date(), QTime(at.time().hour(), 0), Qt::LocalTime);
        // Only where the hour is plain (no clock change within it) is the shortcut the same as the conversion.
        if (hour.isValid() && hour.time().hour() == at.time().hour()
            && hour.offsetFromUtc()
                == at.addSecs(3599 - at.time().minute() * 60 - at.time().second()).offsetFromUtc()) {
            m_hour = timestamp.left(13);
            m_base = hour.toMSecsSinceEpoch();
        } else {
            m_hour.clear();
        }
        return at.toMSecsSinceEpoch();
    }

private:
    QString m_hour; // "yyyy-MM-dd HH" of m_base
    qint64 m_base = 0;
};

// One event of the tracker's log as the live state needs it.
struct LiveEvent {
    tracker::EventKind kind = tracker::EventKind::None;
    QString timestamp;
    qint64 activity = 0;
    bool historical = false; // read from the log as it was before the monitor started
    // Started, stopped, description added: the event's project and description.
    qint64 project = 0;
    QString description;
    // A heartbeat: the activity it extends, when the tracker's database has it.
    bool extendsKnownActivity = false;
    qint64 activityStartMs = 0;
    qint64 activityProject = 0;
    QString activityDescription;
};

} // namespace monitordetail

using monitordetail::EventClock;
using monitordetail::LiveEvent;

namespace monitordetail
{

// The active activity that a heartbeat extends, as the tracker's database has it.
struct Extended {
    int64_t changedMs = 0;
    int64_t startMs = 0;
    int64_t project = 0;
    std::string description;
};
using ExtendedById = std::unordered_map<int64_t, Extended>;

// The digests of what the store holds of one account table: (id, digest), sorted by id, one entry per id.
using Digests = std::vector<std::pair<int64_t, quint64>>;

// The newest change time and the highest id seen in one account table of the tracker's database.
struct Seen {
    int64_t changedMs = INT64_MIN;
    int64_t id = INT64_MIN;
};

// Times of one scan: wall time for the tracker's change stamps, monotonic time for the interval of full reads.
struct ScanTime {
    QDateTime wall;
    qint64 monotonicMs = 0;
};

// A session record built from a stored activity, kept while the activity stays the same.
struct CachedRow {
    quint64 digest = 0;
    QVariant record;
};

} // namespace monitordetail

using monitordetail::CachedRow;
using monitordetail::Digests;
using monitordetail::Extended;
using monitordetail::ExtendedById;
using monitordetail::ScanTime;
using monitordetail::Seen;

namespace
{
struct ImportRun;
} // namespace

// Everything the scan body owns; touched only on the monitor's queue.
struct StintwatchMonitor::Reader {
    QMap<QString, QString> fingerprints;
    LogReader log;

    // What history.db holds, as far as this monitor wrote or read it; unknown again after a full scan or when
    // the file is not the one written.
    std::unordered_map<std::string, Digests> saved;
    bool savedKnown = false;
    QString savedStore;
    bool indexed = false;
    // What the tracker's database held at the last reads, and when the last full read was.
    std::unordered_map<std::string, Seen> seen;
    std::optional<qint64> lastFullRead;
    bool partialSinceFull = false;
    std::optional<qint64> lastSweep;
    // The last history and summary read, reused while the store and the summary start stay the same.
    QString readStore;
    qint64 readSince = -1;
    QVariantList readRows;
    QVariantList readSummary;
    // The session records of the last history read by account and id, with the time zone they were made in.
    std::unordered_map<std::string, std::unordered_map<int64_t, CachedRow>> cachedRows;
    QByteArray cachedZone;
    // How often the tracker's database and the store were read, for measurements.
    std::atomic<int> sourceReads {0};
    std::atomic<int> storeReads {0};

    ScanResult scan(const QString &folder, const QString &store, bool full, const ScanTime &now);
    bool readStores(const QString &folder, const QString &historyPath, bool full, const ScanTime &now,
        const std::vector<int64_t> &named, bool heartbeatsOnly, ScanResult &result, ExtendedById &extended,
        int &damage);
    bool importTrackerDatabase(const QString &folder, const QString &historyPath, const QMap<QString, QString> &prints,
        bool whole, const ScanTime &now, const std::vector<int64_t> &named, bool heartbeatsOnly, ScanResult &result,
        ExtendedById &extended);
    Seen importTable(tracker::ActivityReader &source, size_t t, bool whole, bool sweep, const ScanTime &now,
        const std::vector<int64_t> &named, ImportRun &run, ExtendedById &extended);
    void rememberRead(bool whole, bool sweep, const ScanTime &now, std::unordered_map<std::string, Seen> seenNow);
    void learnStore(const std::string &historyPath);
    bool readHistory(const QString &historyPath, const QDateTime &now, ScanResult &result);
    QString setAside(const QString &historyPath, const QDateTime &now);
    void readLog(const QString &folder, ScanResult &result, std::vector<LogReader::Entry> &events);
};

struct StintwatchMonitor::ScanResult {
    QString error;
    int malformedLines = 0; // log lines skipped because they could not be understood
    int storeDamage = 0; // SQLite's code for the damaged store that this scan set aside
    std::vector<LiveEvent> events;
    QVariantList rows;
    QVariantList summaryRows;
    bool hasSummary = false;
};

void StintwatchMonitor::Reader::readLog(
    const QString &folder, ScanResult &result, std::vector<LogReader::Entry> &events)
{
    LogReader::Result read = log.read(folder + QStringLiteral("/application.log"));
    if (!read.available) {
        result.error = kLogUnavailable;
        return;
    }
    events = std::move(read.events);
    if (read.malformed > 0) {
        // The lines are already behind the offset: this scan reports them once, the next one goes on.
        result.malformedLines = read.malformed;
        result.error = retainedError(QString::fromStdString(read.malformedReason));
    }
}

// Reads the tracker's database into the store when it changed, then the rows and summary from the store.
// False when the store failed; `damage` then holds SQLite's code when it found the file damaged, else 0.
bool StintwatchMonitor::Reader::readStores(const QString &folder, const QString &historyPath, bool full,
    const ScanTime &now, const std::vector<int64_t> &named, bool heartbeatsOnly, ScanResult &result,
    ExtendedById &extended, int &damage)
{
    bool storeFailed = false;
    QMap<QString, QString> prints;
    for (const QString &name : {QStringLiteral("Stintwatch.db"), QStringLiteral("Stintwatch.db-wal")})
        prints.insert(name, statusText(folder + u'/' + name));

    if (full) {
        savedKnown = false;
        readStore.clear();
    }
    // A store that is not the one written last (replaced, emptied) gets everything again, not just the changes.
    const bool storeReplaced = statusText(historyPath) != savedStore;
    if (storeReplaced) {
        savedKnown = false;
        indexed = false;
    }

    const bool fullReadDue = !lastFullRead || now.monotonicMs - *lastFullRead >= kFullReadIntervalMs;
    const bool whole = full || storeReplaced || fullReadDue || named.size() > kMaxNamedIds;
    // A partial read may have missed a back-dated edit: once a full read is due, it runs even when nothing
    // changed since, since the change it would catch may lie before the last scan.
    if (full || prints != fingerprints || (partialSinceFull && fullReadDue))
        storeFailed
            = !importTrackerDatabase(folder, historyPath, prints, whole, now, named, heartbeatsOnly, result, extended);

    storeFailed = !readHistory(historyPath, now.wall, result) || storeFailed;
    damage = storeFailed ? tracker::damage(QFile::encodeName(historyPath).toStdString()) : 0;
    return !storeFailed;
}

// Learns what the store holds (the digest of every stored activity), so that only what differs is written.
void StintwatchMonitor::Reader::learnStore(const std::string &historyPath)
{
    saved.clear();
    if (::access(historyPath.c_str(), F_OK) == 0) {
        std::string lastSource;
        Digests *table = nullptr;
        tracker::visitHistory(historyPath, [&](const tracker::ActivityView &row) {
            if (!table || row.source != lastSource) {
                lastSource.assign(row.source);
                table = &saved[lastSource];
            }
            table->emplace_back(row.id, digest(row));
        });
        for (auto &[source, digests] : saved)
            std::sort(digests.begin(), digests.end());
    }
    savedKnown = true;
}

namespace
{

// Where `id` is in `digests`, trying `hint` (the entry after the last one found) first: a full read meets the
// ids in the order they are stored, so most lookups cost one comparison.
Digests::const_iterator findDigest(const Digests &digests, int64_t id, size_t hint)
{
    if (hint < digests.size() && digests[hint].first == id)
        return digests.begin() + std::ptrdiff_t(hint);
    const auto at = std::lower_bound(digests.begin(), digests.end(), id,
        [](const std::pair<int64_t, quint64> &e, int64_t key) { return e.first < key; });
    return at != digests.end() && at->first == id ? at : digests.end();
}

void setDigest(Digests &digests, int64_t id, quint64 value)
{
    if (digests.empty() || digests.back().first < id) {
        digests.emplace_back(id, value);
        return;
    }
    const auto at = std::lower_bound(digests.begin(), digests.end(), id,
        [](const std::pair<int64_t, quint64> &e, int64_t key) { return e.first < key; });
    if (at != digests.end() && at->first == id)
        at->second = value;
    else
        digests.insert(at, {id, value});
}

// The digests of a whole table's read, sorted by id. An id that occurs twice in one table has no digest: its
// rows are written again at each read, the last one last, so the store ends with what a full save would give.
void settle(Digests &digests)
{
    std::stable_sort(digests.begin(), digests.end(),
        [](const std::pair<int64_t, quint64> &a, const std::pair<int64_t, quint64> &b) { return a.first < b.first; });
    size_t out = 0;
    for (size_t i = 0; i < digests.size();) {
        size_t j = i + 1;
        while (j < digests.size() && digests[j].first == digests[i].first)
            ++j;
        if (j == i + 1)
            digests[out++] = digests[i];
        i = j;
    }
    digests.resize(out);
}

// One import's writes into the store: changed activities go in batches of at most kSaveBatch, so a first scan
// never holds them all. `inStore` is set while the store is being touched, so that a failure there is told
// from one of the tracker's database.
struct ImportRun {
    std::string storePath;
    bool inStore = false;
    std::unique_ptr<tracker::HistoryWriter> writer;
    std::vector<tracker::Activity> batch;
    Digests written; // what the batch holds, for a partial read's digests once it is stored

    void add(const tracker::ActivityView &row, quint64 value, Digests *digests)
    {
        batch.push_back(row.activity());
        written.emplace_back(row.id, value);
        if (batch.size() >= kSaveBatch)
            flush(digests);
    }

    // Stores the batch; `digests` (null: a whole read, which replaces them at its end) learns what it holds.
    void flush(Digests *digests)
    {
        if (batch.empty())
            return;
        inStore = true;
        if (!writer)
            writer = std::make_unique<tracker::HistoryWriter>(storePath);
        writer->save(batch);
        inStore = false;
        if (digests) {
            for (const auto &[id, value] : written)
                setDigest(*digests, id, value);
        }
        batch.clear();
        written.clear();
    }

    // Closes the store, creating it on the first scan even when the tracker has nothing yet, and indexes it once.
    void finish(bool &indexed)
    {
        inStore = true;
        if (!writer && ::access(storePath.c_str(), F_OK) != 0)
            tracker::HistoryWriter created(storePath);
        writer.reset();
        if (!indexed) {
            // The summary asks for rows ending or starting after a date; with both columns indexed that
            // is two short index searches instead of a pass over every retained row.
            tracker::DB(storePath, SQLITE_OPEN_READWRITE)
                .exec("CREATE INDEX IF NOT EXISTS activities_end_ms ON activities(end_ms)");
            indexed = true;
        }
        inStore = false;
    }
};

// Notes the newest activity of a heartbeat's id (the one that changed last, the first read on a tie).
void noteExtended(const tracker::ActivityView &row, const std::vector<int64_t> &named, ExtendedById &extended)
{
    if (row.active == 0 || !std::binary_search(named.begin(), named.end(), row.id))
        return;
    auto [slot, inserted] = extended.try_emplace(row.id);
    if (inserted || row.changed_ms > slot->second.changedMs)
        slot->second = Extended {row.changed_ms, row.start_ms, row.project, std::string(row.description)};
}

} // namespace

// The rows of one table that can have changed since the last read (all of them for a whole read or a table not
// seen before) into the store; returns what the table holds now for the next read.
Seen StintwatchMonitor::Reader::importTable(tracker::ActivityReader &source, size_t t, bool whole, bool sweep,
    const ScanTime &now, const std::vector<int64_t> &named, ImportRun &run, ExtendedById &extended)
{
    const std::string &name = source.tables()[t];
    const auto known = seen.find(name);
    const bool partial = !whole && known != seen.end();
    tracker::RowFilter filter;
    Seen table;
    if (partial) {
        filter.sweep = sweep;
        table = known->second;
        // A change stamped in the future must not hide the edits of the next minutes.
        const int64_t newest = std::min<int64_t>(table.changedMs, now.wall.toMSecsSinceEpoch());
        filter.changedSince = newest < INT64_MIN + kChangeMarginMs ? INT64_MIN : newest - kChangeMarginMs;
        filter.idAbove = table.id;
        filter.ids = named;
    }
    Digests &digests = saved[name];
    Digests *learns = partial ? &digests : nullptr;
    Digests fresh;
    if (!partial)
        fresh.reserve(digests.size() + 64);
    size_t hint = 0;
    for (tracker::ActivityRows rows(source, t, partial ? &filter : nullptr); rows.next();) {
        const tracker::ActivityView &row = rows.view();
        table.changedMs = std::max(table.changedMs, row.changed_ms);
        table.id = std::max(table.id, row.id);
        noteExtended(row, named, extended);
        const quint64 value = digest(row);
        const auto found = findDigest(digests, row.id, hint);
        if (found != digests.end())
            hint = size_t(found - digests.begin()) + 1;
        if (found == digests.end() || found->second != value)
            run.add(row, value, learns);
        if (!partial)
            fresh.emplace_back(row.id, value);
    }
    run.flush(learns);
    if (!partial) {
        settle(fresh);
        digests = std::move(fresh);
    }
    return table;
}

// Copies the tracker's changed activities into the store, reading the whole database or only what can have
// changed since the last read, and finds the activities that this scan's heartbeats (`named`, sorted) extend.
// False when the store failed; a tracker database that cannot be read only sets the error.
bool StintwatchMonitor::Reader::importTrackerDatabase(const QString &folder, const QString &historyPath,
    const QMap<QString, QString> &prints, bool whole, const ScanTime &now, const std::vector<int64_t> &named,
    bool heartbeatsOnly, ScanResult &result, ExtendedById &extended)
{
    ImportRun run;
    run.storePath = QFile::encodeName(historyPath).toStdString();
    try {
        ++sourceReads;
        if (!savedKnown) {
            run.inStore = true;
            learnStore(run.storePath);
            run.inStore = false;
        }
        tracker::ActivityReader source(QFile::encodeName(folder + QStringLiteral("/Stintwatch.db")).toStdString());
        const bool sweep = whole || !heartbeatsOnly || !lastSweep || now.monotonicMs - *lastSweep >= kSweepIntervalMs;
        std::unordered_map<std::string, Seen> seenNow;
        for (size_t t = 0; t < source.tables().size(); ++t)
            seenNow[source.tables()[t]] = importTable(source, t, whole, sweep, now, named, run, extended);
        run.finish(indexed);
        rememberRead(whole, sweep, now, std::move(seenNow));
        savedStore = statusText(historyPath);
        fingerprints = prints;
    } catch (const std::exception &failure) {
        result.error = QStringLiteral("Source unavailable: %1. Showing retained history.")
                           .arg(QString::fromUtf8(failure.what()));
        return !run.inStore;
    }
    return true;
}

// Notes what a read of the tracker's database saw and when, for the reads that follow.
void StintwatchMonitor::Reader::rememberRead(
    bool whole, bool sweep, const ScanTime &now, std::unordered_map<std::string, Seen> seenNow)
{
    if (sweep)
        lastSweep = now.monotonicMs;
    if (whole) {
        seen = std::move(seenNow);
        lastFullRead = now.monotonicMs;
        partialSinceFull = false;
        return;
    }
    for (auto &[name, table] : seenNow)
        seen[name] = table;
    partialSinceFull = true;
}

// Reads the rows and the summary from the store, reusing the last read while neither the store nor the period
// moved. False when the store failed.
bool StintwatchMonitor::Reader::readHistory(const QString &historyPath, const QDateTime &now, ScanResult &result)
{
    try {
        const qint64 since = std::min(TimeSummary::summaryStart(now, int(SummaryPeriod::Week)),
            TimeSummary::summaryStart(now, int(SummaryPeriod::Month)))
                                 .toMSecsSinceEpoch();
        const QString storeNow = statusText(historyPath) + u'|' + statusText(historyPath + QStringLiteral("-wal"))
            + u'|' + statusText(historyPath + QStringLiteral("-journal"));
        if (storeNow != readStore || since != readSince) {
            // Nothing changed in the store and the period did not move: the last read still holds.
            readStore.clear();
            ++storeReads;
            const std::string path = QFile::encodeName(historyPath).toStdString();
            // Most of the newest thousand are the same from one read to the next; only the changed ones are
            // built again (the record's date depends on the time zone, so a new zone builds them all).
            const QByteArray zone = QTimeZone::systemTimeZoneId();
            if (zone != cachedZone)
                cachedRows.clear();
            std::unordered_map<std::string, std::unordered_map<int64_t, CachedRow>> cache;
            QVariantList rows;
            const std::vector<tracker::Activity> stored = tracker::history(path);
            rows.reserve(qsizetype(stored.size()));
            for (const tracker::Activity &activity : stored) {
                const quint64 value = digest(tracker::ActivityView {activity.source, activity.description, activity.id,
                    activity.api_id, activity.project, activity.start_ms, activity.end_ms, activity.seconds,
                    activity.changed_ms, activity.active});
                const CachedRow *same = nullptr;
                if (const auto table = cachedRows.find(activity.source); table != cachedRows.end()) {
                    const auto found = table->second.find(activity.id);
                    if (found != table->second.end() && found->second.digest == value)
                        same = &found->second;
                }
                CachedRow &row = cache[activity.source][activity.id];
                row = same ? *same : CachedRow {value, sessionRecord(activity)};
                rows.append(row.record);
            }
            cachedRows = std::move(cache);
            cachedZone = zone;
            QVariantList summary;
            for (const auto &[project, start, end] : tracker::summaryHistory(path, since)) {
                summary.append(QVariantMap {{SessionKey::kProject, qint64(project)},
                    {SessionKey::kStartMs, qint64(start)}, {SessionKey::kEndMs, qint64(end)}});
            }
            readRows = rows;
            readSummary = summary;
            readSince = since;
            readStore = storeNow;
        }
        result.rows = readRows;
        result.summaryRows = readSummary;
        result.hasSummary = true;
    } catch (const std::exception &failure) {
        readStore.clear();
        result.error = retainedError(QString::fromUtf8(failure.what()));
        result.rows.clear();
        return false;
    }
    return true;
}

// Moves the damaged store and its journal files to "history.db.damaged-<date>" (numbered when that day's
// name is taken) and forgets what this reader knew of it. Returns the new path, or empty when it could not.
QString StintwatchMonitor::Reader::setAside(const QString &historyPath, const QDateTime &now)
{
    const QString base = historyPath + QStringLiteral(".damaged-") + now.toString(QStringLiteral("yyyy-MM-dd"));
    QString aside = base;
    for (int n = 2; QFileInfo::exists(aside) || QFileInfo::exists(aside + QStringLiteral("-journal"))
         || QFileInfo::exists(aside + QStringLiteral("-wal"));
         ++n)
        aside = base + u'-' + QString::number(n);
    if (::rename(QFile::encodeName(historyPath).constData(), QFile::encodeName(aside).constData()) != 0)
        return {};
    // A journal left beside a fresh store would be applied to it: it goes with the file it belongs to.
    for (const QString &suffix : {QStringLiteral("-journal"), QStringLiteral("-wal"), QStringLiteral("-shm")}) {
        if (QFileInfo::exists(historyPath + suffix))
            ::rename(
                QFile::encodeName(historyPath + suffix).constData(), QFile::encodeName(aside + suffix).constData());
    }
    saved.clear();
    savedKnown = false;
    savedStore.clear();
    indexed = false;
    fingerprints.clear();
    readStore.clear();
    return aside;
}

namespace
{

// The log's events for the live state, each heartbeat with the activity it extends when the tracker's database
// has it (the active one with that id that changed last, the first in reading order on a tie).
std::vector<LiveEvent> liveEvents(const std::vector<LogReader::Entry> &entries, const ExtendedById &extended)
{
    std::vector<LiveEvent> events;
    events.reserve(entries.size());
    for (const LogReader::Entry &entry : entries) {
        const tracker::Event &event = entry.event;
        LiveEvent live;
        live.kind = tracker::eventKind(event);
        live.timestamp = text(event.timestamp);
        live.activity = qint64(event.activity);
        live.historical = entry.historical;
        // Heartbeats carry neither project nor description of their own.
        if (live.kind != kHeartbeat) {
            live.project = qint64(event.project);
            live.description = text(event.description);
        } else if (const auto found = extended.find(event.activity); found != extended.end()) {
            live.extendsKnownActivity = true;
            live.activityStartMs = qint64(found->second.startMs);
            live.activityProject = qint64(found->second.project);
            live.activityDescription = text(found->second.description);
        }
        events.push_back(std::move(live));
    }
    return events;
}

// Appends the scan's new events, heartbeats aside, to the store's event journal.
void appendJournal(const QString &store, const std::vector<LiveEvent> &events)
{
    QByteArray journal;
    for (const LiveEvent &event : events) {
        if (event.historical || event.kind == kHeartbeat)
            continue;
        const QVariantMap line {
            {JournalKey::kKind, uint(event.kind)},
            {JournalKey::kTimestamp, event.timestamp},
            {JournalKey::kActivity, event.activity},
            {JournalKey::kHistorical, event.historical},
            {JournalKey::kProject, event.project},
            {JournalKey::kDescription, event.description},
        };
        journal += QJsonDocument(QJsonObject::fromVariantMap(line)).toJson(QJsonDocument::Compact) + '\n';
    }
    if (journal.isEmpty())
        return;
    const QByteArray path = QFile::encodeName(store + QStringLiteral("/events.jsonl"));
    const int fd = ::open(path.constData(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (fd >= 0) {
        // One write per scan keeps lines of concurrent writers whole.
        [[maybe_unused]] const ssize_t written = ::write(fd, journal.constData(), size_t(journal.size()));
        ::close(fd);
    }
}

} // namespace

StintwatchMonitor::ScanResult StintwatchMonitor::Reader::scan(
    const QString &folder, const QString &store, bool full, const ScanTime &now)
{
    ScanResult result;
    const QString historyPath = store + QStringLiteral("/history.db");
    std::vector<LogReader::Entry> events;
    try {
        readLog(folder, result, events);
    } catch (const std::exception &failure) {
        result.error = retainedError(QString::fromUtf8(failure.what()));
        return result;
    }

    std::vector<int64_t> named;
    for (const LogReader::Entry &entry : events) {
        if (tracker::eventKind(entry.event) == kHeartbeat)
            named.push_back(entry.event.activity);
    }
    // The log holds heartbeats and nothing else (counted before duplicates go).
    const bool heartbeatsOnly = !events.empty() && named.size() == events.size();
    std::sort(named.begin(), named.end());
    named.erase(std::unique(named.begin(), named.end()), named.end());

    ExtendedById extended;
    const QString logError = result.error;
    int damage = 0;
    if (!readStores(folder, historyPath, full, now, named, heartbeatsOnly, result, extended, damage) && damage != 0) {
        // Everything the store held came from the tracker's database: set the damaged file aside (never
        // deleted) and rebuild a fresh store from the tracker at once.
        const QString aside = setAside(historyPath, now.wall);
        if (!aside.isEmpty()) {
            result.storeDamage = damage;
            result.error = logError;
            extended.clear();
            int again = 0;
            if (readStores(folder, historyPath, true, now, named, heartbeatsOnly, result, extended, again)
                && result.error.isEmpty())
                result.error = QStringLiteral("History store was damaged and has been set aside as %1. It was "
                                              "rebuilt from Stintwatch's database.")
                                   .arg(QFileInfo(aside).fileName());
        }
    }

    result.events = liveEvents(events, extended);
    appendJournal(store, result.events);
    return result;
}

StintwatchMonitor::StintwatchMonitor(const QString &source, const QString &store, QObject *parent)
    : QObject(parent)
    , m_folder(source)
    , m_store(store)
    , m_watcher(new QFileSystemWatcher(this))
    , m_timer(new QTimer(this))
    , m_reader(std::make_shared<Reader>())
    , m_queue(std::make_unique<SerialQueue>(HLApplicationIdentifier() + QStringLiteral(".io")))
{
    connect(m_watcher, &QFileSystemWatcher::fileChanged, this, &StintwatchMonitor::watchedPathChanged);
    connect(m_watcher, &QFileSystemWatcher::directoryChanged, this, &StintwatchMonitor::watchedPathChanged);
    m_timer->setInterval(kTickMs);
    m_timer->setTimerType(Qt::PreciseTimer);
    connect(m_timer, &QTimer::timeout, this, &StintwatchMonitor::tick);
}

StintwatchMonitor::~StintwatchMonitor()
{
    stop();
    // Finish the scan in flight before anything it reports to is gone; its result is then dropped.
    m_queue.reset();
}

void StintwatchMonitor::setClock(const Clock *clock)
{
    m_clock = clock;
}

const Clock &StintwatchMonitor::clock() const
{
    return m_clock ? *m_clock : Clock::shared();
}

void StintwatchMonitor::setProcessCheck(std::function<HLProcessState()> check)
{
    m_processCheck = std::move(check);
    m_trackerSeen = -1;
}

void StintwatchMonitor::setRunningCheck(std::function<bool()> running)
{
    setProcessCheck(
        [running = std::move(running)] { return running() ? HLProcessState::Running : HLProcessState::NotRunning; });
}

HLProcessState StintwatchMonitor::trackerProcess() const
{
    if (m_processCheck)
        return m_processCheck();
    // A scan's end, the status shown right after it and a tick all ask within moments of each other; a launch or
    // quit is noticed at most this much later, well within the 15 s the monitor's own timer allows.
    const qint64 at = clock().monotonicMs();
    if (!m_lastLook || at - m_lastLook->first >= kProcessLookMs || at < m_lastLook->first)
        m_lastLook = std::pair(at, HLTrackerProcessState());
    return m_lastLook->second;
}
QDateTime StintwatchMonitor::now() const
{
    return clock().wallNow();
}

bool StintwatchMonitor::stintwatchRunning() const
{
    return trackerProcess() == HLProcessState::Running;
}

int StintwatchMonitor::sourceReads() const
{
    return m_reader->sourceReads;
}

int StintwatchMonitor::storeReads() const
{
    return m_reader->storeReads;
}

QStringList StintwatchMonitor::watchedPaths() const
{
    return m_watcher->files() + m_watcher->directories();
}

void StintwatchMonitor::notifyChange()
{
    emit changed();
}

void StintwatchMonitor::start()
{
    m_stopped = false;
    installWatchers();
    scan(true);
    m_timer->start();
    if (!m_wake) {
        m_wake = new WakeNotifier(this);
        connect(m_wake, &WakeNotifier::woke, this, &StintwatchMonitor::wake);
    }
    const HLProcessState state = trackerProcess();
    m_trackerSeen = state == HLProcessState::Unknown ? -1 : state == HLProcessState::Running ? 1 : 0;
}

void StintwatchMonitor::stop()
{
    // Until the next start nothing watches or scans again: not a scan in flight when it ends, not its
    // follow-up, not a debounced file event.
    m_stopped = true;
    m_pending = false;
    m_forcePending = false;
    m_reinstallPending = false;
    m_timer->stop();
    delete m_wake;
    m_wake = nullptr;
    const QStringList watched = watchedPaths();
    if (!watched.isEmpty())
        m_watcher->removePaths(watched);
}

void StintwatchMonitor::refresh()
{
    if (m_stopped)
        return;
    installWatchers();
    scan(true);
}

void StintwatchMonitor::installWatchers()
{
    if (m_stopped)
        return;
    const QStringList watched = watchedPaths();
    if (!watched.isEmpty())
        m_watcher->removePaths(watched);
    QStringList paths;
    m_watchStatus.clear();
    for (const QString &name : {QString(), QStringLiteral("/application.log"), QStringLiteral("/Stintwatch.db"),
             QStringLiteral("/Stintwatch.db-wal")}) {
        // A path that is not there yet is tried again at the next install.
        const QString status = statusText(m_folder + name);
        if (status != u"missing") {
            paths.append(m_folder + name);
            m_watchStatus.insert(m_folder + name, status);
        }
    }
    if (!paths.isEmpty())
        m_watcher->addPaths(paths);
}

void StintwatchMonitor::watchedPathChanged(const QString &path)
{
    // Only deletes, writes, extensions and renames count. Attribute changes do not: SQLite running as root
    // re-owns the WAL file on every read, which would otherwise make each scan schedule the next.
    const QString status = statusText(path);
    if (status == m_watchStatus.value(path))
        return;
    m_watchStatus.insert(path, status);
    // A file created, removed or renamed in the folder may be a replaced log or database: watch it anew.
    if (path == m_folder || status == u"missing")
        m_reinstallPending = true;
    scheduleScan();
}

void StintwatchMonitor::scheduleScan()
{
    if (m_scanScheduled)
        return;
    m_scanScheduled = true;
    QTimer::singleShot(kDebounceMs, this, [this] {
        m_scanScheduled = false;
        if (m_reinstallPending) {
            m_reinstallPending = false;
            installWatchers();
        }
        scan(false);
    });
}

void StintwatchMonitor::tick()
{
    if (m_stopped)
        return;
    // Measured on the monotonic clock: setting the wall clock back or forward neither stops nor floods scanning.
    const qint64 current = clock().monotonicMs();
    if (!m_lastFallback || current - *m_lastFallback >= kTickMs - kTickToleranceMs) {
        m_lastFallback = current;
        installWatchers();
        scan(false);
    }
    if (!checkTrackerProcess())
        m_liveObserved = false;
    notifyChange();
}

void StintwatchMonitor::wake()
{
    if (m_stopped)
        return;
    m_liveObserved = false;
    installWatchers();
    scan(true);
}

void StintwatchMonitor::processChanged()
{
    if (m_stopped)
        return;
    m_liveObserved = false;
    installWatchers();
    scan(true);
    notifyChange();
}

bool StintwatchMonitor::checkTrackerProcess()
{
    // Launch and quit are seen as a change of the process list between two looks. Where the process cannot
    // be seen at all, nothing is concluded: the live state stays with what the log says.
    const HLProcessState state = trackerProcess();
    if (state == HLProcessState::Unknown) {
        m_trackerSeen = -1;
        return true;
    }
    const int running = state == HLProcessState::Running ? 1 : 0;
    const bool changedNow = m_trackerSeen >= 0 && running != m_trackerSeen;
    m_trackerSeen = running;
    if (changedNow)
        processChanged();
    return running;
}

void StintwatchMonitor::scan(bool full)
{
    if (m_stopped)
        return;
    if (m_busy) {
        m_pending = true;
        m_forcePending = m_forcePending || full;
        return;
    }
    m_busy = true;
    m_queue->async([this, reader = m_reader, folder = m_folder, store = m_store, full,
                       at = ScanTime {now(), clock().monotonicMs()}] {
        ScanResult result = reader->scan(folder, store, full, at);
        QMetaObject::invokeMethod(
            this, [this, result = std::move(result)] { publish(result); }, Qt::QueuedConnection);
    });
}

void StintwatchMonitor::applyEvent(const LiveEvent &event, qint64 currentMs, EventClock &eventClock)
{
    if (event.kind == tracker::EventKind::DescriptionAdded) {
        if (event.historical)
            m_liveObserved = false;
        m_currentDescription = event.description;
        return;
    }
    if (event.kind == kHeartbeat) {
        if (tracker::EventKind(m_lastKind) != tracker::EventKind::TrackingStarted)
            return;
        const qint64 atMs = eventClock.msecs(event.timestamp);
        if (atMs < 0 || std::abs(currentMs - atMs) >= kHeartbeatWindowMs)
            return;
        // Old heartbeats still tie the state to their activity but prove nothing about now.
        if (!event.historical)
            m_liveObserved = true;
        if (event.extendsKnownActivity && event.activityStartMs <= atMs) {
            if (!m_start.isValid() || m_start.toMSecsSinceEpoch() != event.activityStartMs)
                m_start = QDateTime::fromMSecsSinceEpoch(event.activityStartMs);
            m_project = event.activityProject;
            if (!event.activityDescription.isEmpty())
                m_currentDescription = event.activityDescription;
        }
        return;
    }
    m_lastKind = int(event.kind);
    m_project = event.project;
    m_lastTimestamp = event.timestamp;
    m_start = HLEventDate(event.timestamp);
    m_liveObserved
        = !event.historical && m_start.isValid() && std::abs(currentMs - m_start.toMSecsSinceEpoch()) < kStartWindowMs;
}

void StintwatchMonitor::publish(const ScanResult &result)
{
    m_busy = false;
    if (m_stopped)
        return; // stopped while the scan ran: its result and everything it would start are dropped
    // A launch or quit is only noticed here, after the fact; it is applied before the scan's events because
    // the tracker logged them after it started (a tracker that resumes tracking at launch is live at once).
    checkTrackerProcess();
    // Skipped log lines are counted even while another problem is already shown; their content never is.
    QVariantMap values;
    if (result.malformedLines > 0)
        values.insert(DiagnosticKey::kCount, result.malformedLines);
    if (result.storeDamage != 0)
        values.insert(DiagnosticKey::kErrorCode, result.storeDamage);
    if (m_error.isEmpty() != result.error.isEmpty() || !values.isEmpty())
        DiagnosticLog::shared().record(
            result.error.isEmpty() ? DiagnosticEvent::kTrackingRecovered : DiagnosticEvent::kTrackingUnavailable,
            values);
    m_error = result.error;
    if (result.hasSummary)
        m_summaryRows = result.summaryRows;

    const qint64 currentMs = now().toMSecsSinceEpoch();
    EventClock eventClock;
    for (const LiveEvent &event : result.events)
        applyEvent(event, currentMs, eventClock);

    if (result.error.isEmpty() || !result.rows.isEmpty())
        m_rows = result.rows;
    if (m_currentDescription.isEmpty() && !m_rows.isEmpty())
        m_currentDescription = m_rows.first().toMap().value(SessionKey::kDescription).toString();

    ++m_scanCount;
    notifyChange();
    if (m_pending) {
        const bool full = m_forcePending;
        m_pending = false;
        m_forcePending = false;
        scan(full);
    }
}
