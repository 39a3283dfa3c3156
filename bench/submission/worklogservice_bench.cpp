// Compare and post against the local HTTPS stand-in. Besides the wall time, each benchmark reports the number
// of HTTP requests per run and the CPU time of the Jira queue's thread ("cpu_ms"): the work done outside the
// network (TLS and JSON included), since the thread sleeps while it waits for answers.

#include "jira/jiraclient.h"
#include "standin/server.h"
#include "submission/worklogservice.h"
#include "support/standinsite.h"
#include "worklogs/engine.h"

#include <QCoreApplication>
#include <QDir>
#include <QJsonArray>
#include <QJsonObject>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <ctime>
#include <memory>

namespace
{

using bench::kAccount;
using bench::kCloud;
using bench::kColleague;
const QDate kDay(2026, 3, 2);

double threadCpuMs()
{
    timespec now {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return double(now.tv_sec) * 1000.0 + double(now.tv_nsec) / 1.0e6;
}

struct Environment {
    QTemporaryDir home;
    standin::Server server;
    std::unique_ptr<JiraClient> client;
    std::unique_ptr<WorklogService> service;
    qint64 nextLocalId = 1;

    // Every `ownEvery`-th worklog of an issue is the user's own (hand-made), the others are colleagues'.
    explicit Environment(int issues, int worklogsPerIssue, int ownEvery = 1)
    {
        qputenv("HOME", home.path().toUtf8());
        qputenv("XDG_CONFIG_HOME", (home.path() + QStringLiteral("/.config")).toUtf8());
        qputenv("XDG_STATE_HOME", (home.path() + QStringLiteral("/.state")).toUtf8());
        const QStringList scopes = bench::siteScopes();
        bench::addSite(server);
        for (int i = 0; i < issues; ++i) {
            const QString key = QStringLiteral("ABC-%1").arg(i + 1);
            server.addIssue({key, {}, QStringLiteral("Issue ") + key, {}, {}});
            for (int w = 0; w < worklogsPerIssue; ++w)
                server.addWorklog({key, w % ownEvery == 0 ? kAccount : kColleague,
                    QDateTime(kDay, QTime(0, 0)).addSecs(60 * (w % 1400)), 60,
                    standin::commentDocument(QStringLiteral("Earlier work %1").arg(w)), {}, {}, {}});
        }
        server.start();
        qputenv("HOURLOOM_TEST_GATEWAY", server.origin().toUtf8());
        qputenv("HOURLOOM_TEST_CA_FILE", server.caFile().toUtf8());
        qputenv("HOURLOOM_TEST_NO_KEYCHAIN", "1");
        const QString token = server.issueAccessToken(kAccount, scopes, 24 * 3600);
        client = std::make_unique<JiraClient>();
        client->queue().sync([&] {
            client->session().save(
                {{QStringLiteral("access_token"), token}, {QStringLiteral("refresh_token"), QStringLiteral("unused")},
                    {QStringLiteral("expires_in"), 86400}, {QStringLiteral("broker"), server.origin()},
                    {QStringLiteral("expires_at"), double(QDateTime::currentSecsSinceEpoch() + 86400)}});
        });
        const QString support = home.path() + QStringLiteral("/support");
        QDir().mkpath(support);
        service = std::make_unique<WorklogService>(*client, support);
        JRSetCombineDailyByIssue(false);
    }

    // `count` sessions of the day spread over `issues` issues, 2 minutes each.
    QVariantList drafts(int count, int issues)
    {
        QVariantList sessions;
        for (int i = 0; i < count; ++i) {
            const qint64 start = QDateTime(kDay, QTime(8, 0)).addSecs(150 * i).toMSecsSinceEpoch();
            const qint64 id = nextLocalId++;
            sessions.append(QVariantMap {{QStringLiteral("issue"), QStringLiteral("ABC-%1").arg(1 + i % issues)},
                {QStringLiteral("description"), QStringLiteral("Task %1").arg(id)}, {QStringLiteral("start_ms"), start},
                {QStringLiteral("end_ms"), start + 120000}, {QStringLiteral("local_id"), id},
                {QStringLiteral("api_id"), 0}, {QStringLiteral("project"), 1},
                {QStringLiteral("source_account"), QStringLiteral("acct")}});
        }
        return JRBuildDrafts(sessions, QDateTime(kDay, QTime(12, 0)));
    }
};

// 200 drafts on 20 issues, 500 worklogs per issue on that day; the argument says how many of them are the
// user's own hand-made ones (every one: the worst case, each draft gets 500 manual-match candidates).
void BM_CompareHeavyDay(benchmark::State &state)
{
    constexpr int kIssues = 20;
    Environment environment(kIssues, 500, int(state.range(0)));
    const QVariantList drafts = environment.drafts(200, kIssues);
    double cpu = 0;
    double network = 0;
    qsizetype requests = 0;
    for (auto _ : state) {
        environment.server.clearRequests();
        QVariantMap result;
        environment.client->queue().sync([&] {
            // The requests run between the call and "start" (the identity) and between each "active" and its
            // "complete" (an issue's worklogs, decoded): the rest of the thread's CPU time is the comparison.
            const double before = threadCpuMs();
            double mark = before;
            result = environment.service->compareDrafts(drafts, kCloud, [&](const QVariantMap &event) {
                const QString name = event.value(QStringLiteral("state")).toString();
                const double now = threadCpuMs();
                if (name == QStringLiteral("start") || name == QStringLiteral("complete"))
                    network += now - mark;
                else if (name == QStringLiteral("active"))
                    mark = now;
            });
            cpu += threadCpuMs() - before;
        });
        requests = environment.server.requests().size();
        if (result.contains(QStringLiteral("error")))
            state.SkipWithError(qPrintable(result.value(QStringLiteral("error")).toString()));
    }
    state.counters["requests"] = double(requests);
    state.counters["expected_requests"] = 1 + kIssues;
    state.counters["cpu_ms"] = cpu / double(state.iterations());
    state.counters["network_cpu_ms"] = network / double(state.iterations());
    state.counters["outside_network_ms"] = (cpu - network) / double(state.iterations());
}
BENCHMARK(BM_CompareHeavyDay)->Arg(1)->Arg(10)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_PostWorklogs(benchmark::State &state)
{
    const int count = int(state.range(0));
    Environment environment(4, 0);
    double cpu = 0;
    qsizetype requests = 0;
    for (auto _ : state) {
        state.PauseTiming();
        QVariantList rows;
        environment.client->queue().sync([&] {
            const QVariantMap checked = environment.service->compareDrafts(environment.drafts(count, 4), kCloud);
            for (const QVariant &draft : checked.value(QStringLiteral("drafts")).toList())
                if (draft.toMap().value(QStringLiteral("include")).toBool())
                    rows.append(draft);
        });
        environment.server.clearRequests();
        state.ResumeTiming();
        environment.client->queue().sync([&] {
            const double before = threadCpuMs();
            environment.service->postDrafts(JRWorklogsToPost(rows), kCloud, kAccount, environment.client->generation());
            cpu += threadCpuMs() - before;
        });
        state.PauseTiming();
        requests = environment.server.requests().size();
        environment.server.clearWorklogs();
        state.ResumeTiming();
    }
    state.counters["requests"] = double(requests);
    state.counters["expected_requests"] = 1 + 2 * count;
    state.counters["cpu_ms"] = cpu / double(state.iterations());
}
BENCHMARK(BM_PostWorklogs)->Arg(1)->Arg(10)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
