// The Worklogs window builds, merges and compares a whole day on every refresh; these figures keep that
// well below what a user would notice.

#include "platform/appidentity.h"
#include "worklogs/compare.h"
#include "worklogs/drafts.h"
#include "worklogs/marker.h"
#include "worklogs/preferences.h"
#include "worklogs/topost.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QRandomGenerator>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

namespace
{

const QDateTime kDay(QDate(2026, 3, 2), QTime(12, 0));

// 1,000 sessions of one day over 20 issues, some of them sub-minute pieces and some under description rules.
QVariantList daySessions()
{
    QRandomGenerator random(1000);
    QVariantList sessions;
    const qint64 dayStart = QDateTime(kDay.date(), QTime(0, 0)).toMSecsSinceEpoch();
    for (int i = 0; i < 1000; ++i) {
        const qint64 start = dayStart + qint64(i) * 86000;
        const qint64 length = random.bounded(5) == 0 ? random.bounded(1000, 59000) : random.bounded(60000, 85000);
        const QString description = QStringLiteral("Task %1").arg(random.bounded(40));
        QVariantMap s {{QStringLiteral("issue"), QStringLiteral("ABC-%1").arg(random.bounded(20))},
            {QStringLiteral("description"), description}, {QStringLiteral("start_ms"), start},
            {QStringLiteral("end_ms"), start + length}, {QStringLiteral("local_id"), qint64(i + 1)},
            {QStringLiteral("api_id"), qint64(i % 3 == 0 ? 0 : 5000 + i)}, {QStringLiteral("project"), qint64(7)},
            {QStringLiteral("source_seconds"), length / 1000},
            {QStringLiteral("source_account"), QStringLiteral("user_activity")}};
        if (i % 4 == 0) {
            s.insert(QStringLiteral("assignment"), QStringLiteral("Description rule"));
            s.insert(QStringLiteral("aggregate_description"), description.toLower());
        }
        sessions << s;
    }
    return sessions;
}

// The floor of each case below: one pass over the input records reading every field the work reads, as any
// implementation over these records must; the ratio to it is the work's own cost.
qsizetype readFields(const QVariantList &records, const QStringList &keys)
{
    qsizetype touched = 0;
    for (const QVariant &record : records) {
        const QVariantMap map = record.toMap();
        for (const QString &key : keys)
            touched += map.value(key).isValid() ? 1 : 0;
    }
    return touched;
}

const QStringList kSessionFields {QStringLiteral("issue"), QStringLiteral("description"), QStringLiteral("start_ms"),
    QStringLiteral("end_ms"), QStringLiteral("local_id"), QStringLiteral("api_id"), QStringLiteral("project"),
    QStringLiteral("source_seconds"), QStringLiteral("source_account"), QStringLiteral("assignment"),
    QStringLiteral("aggregate_description")};

void BM_BuildDraftsFloor(benchmark::State &state)
{
    const QVariantList sessions = daySessions();
    for (auto _ : state)
        benchmark::DoNotOptimize(readFields(sessions, kSessionFields));
}
BENCHMARK(BM_BuildDraftsFloor)->Unit(benchmark::kMillisecond);

void BM_BuildDrafts(benchmark::State &state)
{
    const QVariantList sessions = daySessions();
    for (auto _ : state)
        benchmark::DoNotOptimize(JRBuildDrafts(sessions, kDay));
    state.SetItemsProcessed(state.iterations() * sessions.size());
}
BENCHMARK(BM_BuildDrafts)->Unit(benchmark::kMillisecond);

void BM_WorklogsToPost(benchmark::State &state)
{
    const QVariantList drafts = JRBuildDrafts(daySessions(), kDay);
    for (auto _ : state)
        benchmark::DoNotOptimize(JRWorklogsToPost(drafts));
    state.SetItemsProcessed(state.iterations() * drafts.size());
}
BENCHMARK(BM_WorklogsToPost)->Unit(benchmark::kMillisecond);

void BM_WorklogsToPostFloor(benchmark::State &state)
{
    const QVariantList drafts = JRBuildDrafts(daySessions(), kDay);
    const QStringList keys = drafts.value(0).toMap().keys();
    for (auto _ : state)
        benchmark::DoNotOptimize(readFields(drafts, keys));
}
BENCHMARK(BM_WorklogsToPostFloor)->Unit(benchmark::kMillisecond);

// A heavy day: 200 drafts on one issue against its 500 worklogs, a fifth of them posted by the program,
// in the offset of another Jira profile.
struct HeavyDay {
    QVariantList drafts, worklogs;
};

HeavyDay heavyDay()
{
    QVariantList drafts;
    const qint64 dayStart = QDateTime(kDay.date(), QTime(0, 0)).toMSecsSinceEpoch();
    for (int i = 0; i < 200; ++i) {
        const qint64 start = dayStart + qint64(i) * 400000;
        QVariantMap s {{QStringLiteral("issue"), QStringLiteral("ABC-1")},
            {QStringLiteral("description"), QStringLiteral("Work %1").arg(i)}, {QStringLiteral("start_ms"), start},
            {QStringLiteral("end_ms"), start + 300000}, {QStringLiteral("local_id"), qint64(i + 1)},
            {QStringLiteral("project"), qint64(7)},
            {QStringLiteral("source_account"), QStringLiteral("user_activity")}};
        drafts << JRBuildDrafts({s}, kDay).value(0);
    }
    const QString account = QStringLiteral("me");
    QVariantList worklogs;
    for (int i = 0; i < 500; ++i) {
        QVariantMap log;
        const QVariantMap draft = drafts[i % 200].toMap();
        if (i % 5 == 0) {
            log = JRPayload(draft, JRMarker(draft, QStringLiteral("cloud"), account));
        } else {
            log.insert(QStringLiteral("timeSpentSeconds"), 600);
            log.insert(QStringLiteral("comment"),
                QVariantMap {{QStringLiteral("type"), QStringLiteral("doc")},
                    {QStringLiteral("content"),
                        QVariantList {QVariantMap {{QStringLiteral("type"), QStringLiteral("paragraph")},
                            {QStringLiteral("content"),
                                QVariantList {QVariantMap {{QStringLiteral("type"), QStringLiteral("text")},
                                    {QStringLiteral("text"), QStringLiteral("Meeting notes %1").arg(i)}}}}}}}});
        }
        const QDateTime started = QDateTime::fromMSecsSinceEpoch(dayStart + qint64(i) * 150000).toOffsetFromUtc(19800);
        log.insert(QStringLiteral("started"),
            QString(started.toString(QStringLiteral("yyyy-MM-dd'T'HH:mm:ss.zzz")) + QStringLiteral("+0530")));
        log.insert(QStringLiteral("id"), QString::number(10000 + i));
        log.insert(QStringLiteral("author"),
            QVariantMap {{QStringLiteral("accountId"), i % 7 == 0 ? QStringLiteral("other") : account}});
        worklogs << log;
    }
    return {drafts, worklogs};
}

void BM_Compare(benchmark::State &state)
{
    const auto [drafts, worklogs] = heavyDay();
    const QString account = QStringLiteral("me");
    std::vector<QString> markers;
    for (const QVariant &draft : drafts)
        markers.push_back(JRMarker(draft.toMap(), QStringLiteral("cloud"), account));
    for (auto _ : state) {
        for (int i = 0; i < drafts.size(); ++i)
            benchmark::DoNotOptimize(JRCompare(drafts[i].toMap(), worklogs, account, markers[size_t(i)], {}));
    }
    state.SetItemsProcessed(state.iterations() * drafts.size());
}
BENCHMARK(BM_Compare)->Unit(benchmark::kMillisecond);

// Each draft and each worklog read once, with the worklog's nested author and comment.
void BM_CompareFloor(benchmark::State &state)
{
    const auto [drafts, worklogs] = heavyDay();
    const QStringList draftKeys = drafts.value(0).toMap().keys();
    const QStringList worklogKeys {QStringLiteral("started"), QStringLiteral("timeSpentSeconds"), QStringLiteral("id"),
        QStringLiteral("comment"), QStringLiteral("author"), QStringLiteral("properties")};
    for (auto _ : state) {
        qsizetype touched = readFields(drafts, draftKeys) + readFields(worklogs, worklogKeys);
        for (const QVariant &worklog : worklogs) {
            const QVariantMap map = worklog.toMap();
            touched += map.value(QStringLiteral("author")).toMap().value(QStringLiteral("accountId")).toString().size();
            touched += map.value(QStringLiteral("comment")).toMap().size();
        }
        benchmark::DoNotOptimize(touched);
    }
}
BENCHMARK(BM_CompareFloor)->Unit(benchmark::kMillisecond);

} // namespace
