// What one worklog page costs the client: a GET of 1000 worklogs over loopback TLS, decoded into records,
// and the decoding alone.
#include "jira/httptransport.h"

#include "standin/server.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QJsonDocument>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <memory>

namespace
{

const QString kCloud = QStringLiteral("c0ffee-1234");
const QString kAccount = QStringLiteral("5b10aa0000000000000000aa");

struct Stand {
    QTemporaryDir logs;
    standin::Server server;
    QString token;
    QString url;

    Stand()
    {
        // The transport records diagnostics; keep them out of the real log folder.
        qputenv("HOURLOOM_DIAGNOSTICS_DIR", logs.path().toUtf8());
        if (!server.start())
            qFatal("stand-in: %s", qPrintable(server.errorString()));
        qputenv("HOURLOOM_TEST_CA_FILE", server.caFile().toLocal8Bit());
        standin::User user;
        user.accountId = kAccount;
        user.displayName = QStringLiteral("Ada Example");
        server.addUser(user);
        standin::Site site;
        site.cloudId = kCloud;
        site.name = QStringLiteral("example");
        site.url = QStringLiteral("https://example.atlassian.net");
        site.scopes = QStringList {QStringLiteral("read:jira-work")};
        server.addSite(site);
        standin::Issue issue;
        issue.key = QStringLiteral("ED-1");
        issue.summary = QStringLiteral("Review");
        server.addIssue(issue);
        const QDateTime start = QDateTime::fromString(QStringLiteral("2026-03-02T08:00:00Z"), Qt::ISODate);
        for (int i = 0; i < 1000; ++i) {
            standin::Worklog log;
            log.issueKey = issue.key;
            log.authorAccountId = kAccount;
            log.started = start.addSecs(qint64(i) * 600);
            log.seconds = 600;
            log.created = log.started;
            log.properties = QJsonArray {QJsonObject {{QStringLiteral("key"), QStringLiteral("hourloom")},
                {QStringLiteral("value"), QJsonObject {{QStringLiteral("marker"), QString(64, QLatin1Char('a'))}}}}};
            server.addWorklog(log);
        }
        token = server.issueAccessToken(kAccount, site.scopes);
        url = server.origin() + QStringLiteral("/ex/jira/") + kCloud
            + QStringLiteral("/rest/api/3/issue/ED-1/worklog?startAt=0&maxResults=1000&expand=properties");
    }
};

Stand &stand()
{
    static Stand instance;
    return instance;
}

void BM_WorklogPageOverTLS(benchmark::State &state)
{
    const Stand &target = stand(); // before the transport: it reads the stand-in's authority once
    HTTPTransport transport;
    qint64 status = 0;
    for (auto _ : state) {
        const QVariant page = transport.request(target.url, QStringLiteral("GET"), {}, target.token, status);
        benchmark::DoNotOptimize(page);
        if (status != 200 || page.toMap().value(QStringLiteral("worklogs")).toList().size() != 1000)
            state.SkipWithError("unexpected answer");
    }
}
BENCHMARK(BM_WorklogPageOverTLS)->Unit(benchmark::kMillisecond);

// The bytes of one worklog page as the stand-in sends them.
QByteArray pageBody()
{
    const Stand &target = stand();
    HTTPTransport transport;
    qint64 status = 0;
    return QJsonDocument::fromVariant(transport.request(target.url, QStringLiteral("GET"), {}, target.token, status))
        .toJson(QJsonDocument::Compact);
}

void BM_DecodeWorklogPage(benchmark::State &state)
{
    const QByteArray body = pageBody();
    for (auto _ : state) {
        const QVariant page = QJsonDocument::fromJson(body).toVariant();
        benchmark::DoNotOptimize(page);
    }
    state.SetBytesProcessed(qint64(state.iterations()) * body.size());
}
BENCHMARK(BM_DecodeWorklogPage)->Unit(benchmark::kMillisecond);

// The floor of decoding: parsing the same bytes into Qt's JSON document, no records built.
void BM_ParseWorklogPage(benchmark::State &state)
{
    const QByteArray body = pageBody();
    for (auto _ : state)
        benchmark::DoNotOptimize(QJsonDocument::fromJson(body));
    state.SetBytesProcessed(qint64(state.iterations()) * body.size());
}
BENCHMARK(BM_ParseWorklogPage)->Unit(benchmark::kMillisecond);

} // namespace
