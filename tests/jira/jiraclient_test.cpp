#include "jira/jiraclient.h"

#include "jira/keychainstore.h"
#include "standinfixture.h"
#include "worklogs/namedfailure.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QThread>

#include <gtest/gtest.h>

namespace
{

const QString kCloud = QString::fromLatin1(jiratest::kCloud);

class JiraClientTest : public jiratest::SignedInTest
{
protected:
    void SetUp() override
    {
        jiratest::SignedInTest::SetUp();
        m_server.clearRequests();
    }

    // Runs `call` on the client's queue, as every caller does; returns the JiraError reason or null.
    template<typename Call> QString failure(Call call)
    {
        try {
            m_client->queue().sync(call);
        } catch (const NamedFailure &failure) {
            EXPECT_EQ(failure.name(), QStringLiteral("JiraError"));
            return failure.reason();
        }
        return {};
    }

    // Runs `call` on the queue and returns the failure it raised (an empty one when it raised none).
    template<typename Call> NamedFailure caught(Call call)
    {
        try {
            m_client->queue().sync(call);
        } catch (const NamedFailure &failure) {
            return failure;
        }
        ADD_FAILURE() << "no failure";
        return NamedFailure({}, {});
    }

    static QVariantMap payload()
    {
        return {{QStringLiteral("started"), QStringLiteral("2026-03-02T09:00:00.000+0100")},
            {QStringLiteral("timeSpentSeconds"), 3600}};
    }

    // The body with the program's own property holding `marker`.
    static QVariantMap payload(const QString &marker)
    {
        QVariantMap body = payload();
        body.insert(QStringLiteral("properties"),
            QVariantList {QVariantMap {{QStringLiteral("key"), QStringLiteral("hourloom")},
                {QStringLiteral("value"), QVariantMap {{QStringLiteral("marker"), marker}}}}});
        return body;
    }

    void addWorklogs(const QString &issue, int count, const QDateTime &firstStart)
    {
        for (int i = 0; i < count; ++i) {
            standin::Worklog log;
            log.issueKey = issue;
            log.authorAccountId = QString::fromLatin1(jiratest::kAccount);
            log.started = firstStart.addSecs(qint64(i) * 3600);
            log.seconds = 600;
            log.created = firstStart.addSecs(qint64(i) * 60);
            m_server.addWorklog(log);
        }
    }
};

TEST_F(JiraClientTest, ValidatesKeysAndSitesBeforeAnyRequest)
{
    // Every bad key through one call, and one bad key through each call that builds a URL from a key.
    const QString badKey = QStringLiteral("ED-1/../x");
    for (const char *key : {"abc-1", "A-", "-1", "A1 -2", "ED-1\n", "ED-1/../x", "Ed-1", ""}) {
        EXPECT_EQ(failure([&] { m_client->issueDetails(QString::fromUtf8(key), kCloud); }),
            QStringLiteral("Enter a valid Jira issue key."))
            << key;
    }
    EXPECT_EQ(failure([&] { m_client->worklogs(badKey, kCloud); }), QStringLiteral("Enter a valid Jira issue key."));
    EXPECT_EQ(failure([&] { m_client->post({}, badKey, kCloud, QStringLiteral("auto")); }),
        QStringLiteral("Enter a valid Jira issue key."));
    for (const char *cloud : {"a/b", "a.b", "..", "", "c0ffee 1", "c0ffee?x=1", "ü", "c0ffee-1234\n"}) {
        EXPECT_EQ(failure([&] { m_client->identity(QString::fromUtf8(cloud)); }),
            QStringLiteral("Invalid Jira site identifier."))
            << cloud;
    }
    EXPECT_EQ(failure([&] { m_client->worklogs(QStringLiteral("ED-1"), QStringLiteral("a/b")); }),
        QStringLiteral("Invalid Jira site identifier."));
    EXPECT_EQ(m_server.hitCount(), 0);

    for (const char *key : {"A_1-0", "AB9-12"})
        EXPECT_EQ(JiraClient::safeIssue(QString::fromUtf8(key)), QString::fromUtf8(key));
    EXPECT_EQ(JiraClient::prefix(QStringLiteral("Ab-9")), QStringLiteral("/ex/jira/Ab-9/rest/api/3"));
}

TEST_F(JiraClientTest, ReadsSitesIdentityAndIssueDetails)
{
    QVariantList sites;
    QVariantMap me;
    QVariantMap first;
    QVariantMap second;
    m_client->queue().sync([&] {
        sites = m_client->resources();
        me = m_client->identity(kCloud);
        first = m_client->issueDetails(QStringLiteral("ED-1"), kCloud);
        second = m_client->issueDetails(QStringLiteral("ED-2"), kCloud);
    });
    ASSERT_EQ(sites.size(), 1);
    EXPECT_EQ(sites[0].toMap().value(QStringLiteral("id")).toString(), kCloud);
    EXPECT_EQ(me.value(QStringLiteral("accountId")).toString(), QString::fromLatin1(jiratest::kAccount));
    EXPECT_EQ(first.value(QStringLiteral("title")).toString(), QStringLiteral("Review the parser"));
    EXPECT_EQ(first.value(QStringLiteral("estimate_seconds")).toLongLong(), 10800);
    EXPECT_EQ(first.value(QStringLiteral("remaining_seconds")).toLongLong(), 3600);
    EXPECT_EQ(second, (QVariantMap {{QStringLiteral("title"), QStringLiteral("Write the manual")}}));

    for (const auto &request : m_server.requests())
        EXPECT_EQ(request.header(QStringLiteral("authorization")), QStringLiteral("Bearer ") + m_token);
    EXPECT_TRUE(
        m_server.requests(QStringLiteral("GET"), QStringLiteral("^/oauth/token/accessible-resources$")).size() == 1);
}

TEST_F(JiraClientTest, JudgesIssueDetailsStrictly)
{
    const QString path = QStringLiteral("/issue/ED-1$");
    const auto answer = [&](const QByteArray &body) {
        m_server.addFault(standin::Fault::statusReply(QStringLiteral("GET"), path, 200, body));
    };
    for (const QByteArray &body : QList<QByteArray> {QByteArray("{\"fields\":{\"summary\":\"\"}}"),
             QByteArray("{\"id\":\"1\"}"), QByteArray("{\"fields\":{\"summary\":7}}"),
             "{\"fields\":{\"summary\":\"" + QByteArray(4097, 'x') + "\"}}"}) {
        answer(body);
        EXPECT_EQ(failure([&] { m_client->issueDetails(QStringLiteral("ED-1"), kCloud); }),
            QStringLiteral("Jira title unavailable."));
    }
    answer("{\"fields\":{\"summary\":\"" + QByteArray(4096, 'x')
        + "\",\"timetracking\":{\"originalEstimateSeconds\":0,\"remainingEstimateSeconds\":-60}}}");
    QVariantMap details;
    m_client->queue().sync([&] { details = m_client->issueDetails(QStringLiteral("ED-1"), kCloud); });
    EXPECT_EQ(details.value(QStringLiteral("title")).toString().size(), 4096);
    EXPECT_EQ(details.value(QStringLiteral("estimate_seconds")).toLongLong(), 0);
    EXPECT_FALSE(details.contains(QStringLiteral("remaining_seconds")));
}

TEST_F(JiraClientTest, StatusFailuresNameTheStatusAndCarryJirasReason)
{
    struct Case {
        standin::Fault fault;
        QString text;
    };
    const QString post = QStringLiteral("POST");
    const QString path = QStringLiteral("/worklog$");
    const QString limited
        = QStringLiteral("Jira returned HTTP 429. Jira is limiting requests; wait a moment and check again.");
    const QString review
        = QStringLiteral("Jira returned HTTP 503. Review the issue and check Jira again before retrying.");
    // A write is never sent twice, whatever Jira says about trying again.
    const Case writes[] = {
        {standin::Fault::tooManyRequests(post, path), limited},
        {standin::Fault::tooManyRequestsHtml(post, path), limited},
        {standin::Fault::serviceUnavailable(post, path, 1, 1), review},
        {standin::Fault::scopeMismatch(post, path), QStringLiteral("Jira returned HTTP 401. Reconnect Jira.")},
    };
    for (const Case &c : writes) {
        m_server.clearRequests();
        m_server.addFault(c.fault);
        EXPECT_EQ(failure([&] { m_client->post(payload(), QStringLiteral("ED-1"), kCloud, QStringLiteral("leave")); }),
            c.text);
        EXPECT_EQ(m_server.requests().size(), 1) << qPrintable(c.text);
    }
    m_server.setIssueWriteLimit(1, 60000);
    m_client->queue().sync([&] { m_client->post(payload(), QStringLiteral("ED-1"), kCloud, QStringLiteral("leave")); });
    EXPECT_EQ(
        failure([&] { m_client->post(payload(), QStringLiteral("ED-1"), kCloud, QStringLiteral("leave")); }), limited);
    m_server.setIssueWriteLimit(0);

    // Jira's own reason travels beside the fixed sentence.
    m_server.setIssueEditable(QStringLiteral("ED-1"), false);
    m_server.setWorkPermission(QStringLiteral("ED-2"), QString::fromLatin1(jiratest::kAccount), false);
    const auto closed
        = caught([&] { m_client->post(payload(), QStringLiteral("ED-1"), kCloud, QStringLiteral("auto")); });
    EXPECT_EQ(closed.reason(),
        QStringLiteral("Jira returned HTTP 400. Review the issue and check Jira again before retrying."));
    EXPECT_EQ(closed.detail(), QStringLiteral("You can not edit the issue as it is in a non-editable workflow state."));
    const auto denied
        = caught([&] { m_client->post(payload(), QStringLiteral("ED-2"), kCloud, QStringLiteral("auto")); });
    EXPECT_EQ(denied.reason(), QStringLiteral("Jira returned HTTP 403. Check Jira permissions."));
    EXPECT_EQ(denied.detail(), QStringLiteral("You do not have the permission to associate a worklog to this issue."));
    m_server.setTimeTracking(QStringLiteral("ED-2"), false);
    const auto untracked = caught([&] { m_client->worklogs(QStringLiteral("ED-2"), kCloud); });
    EXPECT_EQ(untracked.reason(),
        QStringLiteral("Jira returned HTTP 404. Review the issue and check Jira again before retrying."));
    EXPECT_EQ(untracked.detail(), QStringLiteral("Time tracking is not enabled."));
    QVariantMap tooShort = payload();
    tooShort.insert(QStringLiteral("timeSpentSeconds"), 30);
    EXPECT_EQ(
        caught([&] { m_client->post(tooShort, QStringLiteral("ED-3"), kCloud, QStringLiteral("auto")); }).detail(),
        QStringLiteral("Issue does not exist or you do not have permission to see it."));

    // Reads: an outage that does not say when to come back, a redirect, a site the token does not cover.
    const QString get = QStringLiteral("GET");
    m_server.addFault(standin::Fault::serviceUnavailable(get, QStringLiteral("/myself$")));
    EXPECT_EQ(failure([&] { m_client->identity(kCloud); }), review);
    m_server.addFault(
        standin::Fault::redirect(get, QStringLiteral("/myself$"), QStringLiteral("https://example.atlassian.net/")));
    EXPECT_EQ(failure([&] { m_client->identity(kCloud); }),
        QStringLiteral("Jira returned HTTP 302. Review the issue and check Jira again before retrying."));

    // Neither the token nor Jira's reasons reach the diagnostic log.
    const QByteArray log = jiratest::diagnosticsText();
    EXPECT_FALSE(log.contains(m_token.toUtf8()));
    EXPECT_FALSE(log.contains("non-editable"));
    EXPECT_FALSE(log.contains("Time tracking"));
}

TEST_F(JiraClientTest, ReadsWaitAsJiraAsksAndAreSentAgain)
{
    QList<qint64> waits;
    QStringList notices;
    m_client->setSleeper([&](std::chrono::milliseconds delay) { waits.append(delay.count()); });
    m_client->setWaitNotice([&](const QString &text) { notices.append(text); });
    const QString get = QStringLiteral("GET");
    const QString path = QStringLiteral("/myself$");

    m_server.addFault(standin::Fault::tooManyRequests(get, path, 3, 2));
    m_server.addFault(standin::Fault::serviceUnavailable(get, path, 1, 2));
    m_server.addFault(standin::Fault::tooManyRequestsHtml(get, path));
    QVariantMap me;
    m_client->queue().sync([&] { me = m_client->identity(kCloud); });
    EXPECT_EQ(me.value(QStringLiteral("accountId")).toString(), QString::fromLatin1(jiratest::kAccount));
    EXPECT_EQ(waits, (QList<qint64> {3000, 3000, 2000, 5000}));
    ASSERT_EQ(notices.size(), 4);
    EXPECT_EQ(notices[0], QStringLiteral("Jira is limiting requests; trying again in 3 s."));
    EXPECT_EQ(notices[2], QStringLiteral("Jira is unavailable; trying again in 2 s."));
    EXPECT_EQ(m_server.requests(get, path).size(), 5);

    // A wait longer than a user would sit through is reported at once; a limit that never lifts ends once the
    // waits add up to their bound.
    const QString limited
        = QStringLiteral("Jira returned HTTP 429. Jira is limiting requests; wait a moment and check again.");
    waits.clear();
    m_server.clearRequests();
    m_server.addFault(standin::Fault::tooManyRequests(get, path, 3600));
    EXPECT_EQ(failure([&] { m_client->identity(kCloud); }), limited);
    EXPECT_TRUE(waits.isEmpty());
    // Without Retry-After, the reset time: already past means a short pause, far ahead means reporting.
    const auto resetAt = [&](qint64 seconds) {
        const QByteArray reset = QDateTime::currentDateTimeUtc()
                                     .addSecs(seconds)
                                     .toString(QStringLiteral("yyyy-MM-ddTHH:mm'Z'"))
                                     .toLatin1();
        m_server.addFault(standin::Fault::statusReply(get, path, 429, {}, {{"X-RateLimit-Reset", reset}}));
    };
    resetAt(-120);
    resetAt(600);
    EXPECT_EQ(failure([&] { m_client->identity(kCloud); }), limited);
    EXPECT_EQ(waits, (QList<qint64> {1000}));
    waits.clear();
    m_server.clearRequests();
    m_server.addFault(standin::Fault::tooManyRequests(get, path, 45, -1));
    EXPECT_EQ(failure([&] { m_client->identity(kCloud); }), limited);
    EXPECT_EQ(waits, (QList<qint64> {45000, 45000, 45000, 45000}));
    EXPECT_EQ(m_server.requests(get, path).size(), 5);
}

TEST_F(JiraClientTest, HeavyDayCompletesPacedUnderTheBurstLimit)
{
    // Real pauses: the stand-in lets 6 requests through per second and warns when one is left. The client
    // pauses on the warning, so Jira never has to refuse a request, however fast or slow this machine is.
    m_server.setBurstLimit(6, 1000);
    QList<qint64> pauses;
    m_client->setSleeper([&](std::chrono::milliseconds delay) {
        pauses.append(delay.count());
        QThread::msleep(static_cast<unsigned long>(delay.count()));
    });
    addWorklogs(QStringLiteral("ED-1"), 3, QDateTime::fromString(QStringLiteral("2026-03-02T08:00:00Z"), Qt::ISODate));
    int fetched = 0;
    m_client->queue().sync([&] {
        for (int round = 0; round < 10; ++round) {
            fetched += int(m_client->worklogs(QStringLiteral("ED-1"), kCloud).size());
            fetched += int(m_client->worklogs(QStringLiteral("ED-2"), kCloud).size());
        }
    });
    EXPECT_EQ(fetched, 30);
    EXPECT_EQ(m_server.requests().size(), 20) << "a request was refused and sent again";
    EXPECT_FALSE(pauses.isEmpty());
}

TEST_F(JiraClientTest, RenewsARefusedTokenOnceForAReadAndNeverForAWrite)
{
    const QString get = QStringLiteral("GET");
    const QString refreshes = QStringLiteral("^/oauth/refresh$");
    // Jira stops taking the token before its local expiry: one renewal, one more attempt.
    m_server.revokeAccessToken(m_token);
    QVariantMap me;
    m_client->queue().sync([&] { me = m_client->identity(kCloud); });
    EXPECT_EQ(me.value(QStringLiteral("accountId")).toString(), QString::fromLatin1(jiratest::kAccount));
    EXPECT_EQ(m_server.requests(QStringLiteral("POST"), refreshes).size(), 1);
    EXPECT_EQ(m_server.requests(get, QStringLiteral("/myself$")).size(), 2);
    const QString renewed
        = KeychainStore(m_service, QStringLiteral("oauth")).load().value(QStringLiteral("access_token")).toString();
    EXPECT_NE(renewed, m_token);

    // Refused again after the renewal: reported, not renewed a second time.
    m_server.addFault(standin::Fault::scopeMismatch(get, QStringLiteral("/myself$"), 2));
    EXPECT_EQ(failure([&] { m_client->identity(kCloud); }), QStringLiteral("Jira returned HTTP 401. Reconnect Jira."));
    EXPECT_EQ(m_server.requests(QStringLiteral("POST"), refreshes).size(), 2);
    EXPECT_EQ(m_server.requests(get, QStringLiteral("/myself$")).size(), 4);

    m_server.addFault(standin::Fault::scopeMismatch(QStringLiteral("POST"), QStringLiteral("/worklog$")));
    EXPECT_EQ(failure([&] { m_client->post(payload(), QStringLiteral("ED-1"), kCloud, QStringLiteral("auto")); }),
        QStringLiteral("Jira returned HTTP 401. Reconnect Jira."));
    EXPECT_EQ(m_server.requests(QStringLiteral("POST"), refreshes).size(), 2);
    EXPECT_EQ(m_server.worklogCount(QStringLiteral("ED-1")), 0);
}

TEST_F(JiraClientTest, RefusesUnsafeTokensOversizedAnswersAndOverlongMarkersBeforeReading)
{
    for (const QString &token :
        QStringList {m_token + QStringLiteral("\r\nX-Injected: 1"), m_token + QStringLiteral("\n"),
            QStringLiteral("a\tb"), QStringLiteral("a") + QChar(0x7f), QStringLiteral("a") + QChar(0)}) {
        m_client->queue().sync([&] { m_client->session().save(jiratest::tokenRecord(token, m_server.origin())); });
        EXPECT_EQ(failure([&] { m_client->identity(kCloud); }),
            QStringLiteral("Jira authorization contains invalid characters. Connect again."));
    }
    EXPECT_EQ(m_server.hitCount(), 0);
    signIn(jiratest::allScopes());

    QByteArray huge = "[";
    huge += QByteArray(int(HTTPTransport::kMaxResponseBytes), '1');
    huge += "]";
    m_server.addFault(standin::Fault::statusReply(QStringLiteral("GET"), QStringLiteral("/worklog$"), 200, huge));
    EXPECT_EQ(failure([&] { m_client->worklogs(QStringLiteral("ED-1"), kCloud); }),
        QStringLiteral("The service's answer was too large to read safely (over 8 MB)."));

    // The marker property at Jira's limit of 32,768 characters passes both sides; one more is refused here.
    const auto withMarker = [](qsizetype length) { return payload(QString(length, QLatin1Char('m'))); };
    const qsizetype overhead = qsizetype(qstrlen(R"({"marker":""})"));
    m_server.clearRequests();
    m_client->queue().sync([&] {
        m_client->post(withMarker(JiraClient::kMaxPropertyLength - overhead), QStringLiteral("ED-1"), kCloud,
            QStringLiteral("auto"));
    });
    EXPECT_EQ(failure([&] {
        m_client->post(withMarker(JiraClient::kMaxPropertyLength - overhead + 1), QStringLiteral("ED-1"), kCloud,
            QStringLiteral("auto"));
    }),
        QStringLiteral("This worklog combines too many sessions for Jira to keep their record; post fewer sessions "
                       "at a time."));
    EXPECT_EQ(m_server.requests().size(), 1);
}

TEST_F(JiraClientTest, ReadsEveryPageWithProgress)
{
    m_server.setPageSize(100);
    const QDateTime start = QDateTime::fromString(QStringLiteral("2026-03-02T08:00:00Z"), Qt::ISODate);
    addWorklogs(QStringLiteral("ED-1"), 250, start);

    QList<QPair<qint64, qint64>> progress;
    QVariantList logs;
    m_client->queue().sync([&] {
        logs = m_client->worklogs(QStringLiteral("ED-1"), kCloud, [&](qint64 page, qint64 pages) {
            progress.append({page, pages});
        });
    });
    ASSERT_EQ(logs.size(), 250);
    EXPECT_EQ(progress, (QList<QPair<qint64, qint64>> {{1, 3}, {2, 3}, {3, 3}}));
    QStringList ids;
    for (const QVariant &log : logs)
        ids.append(log.toMap().value(QStringLiteral("id")).toString());
    EXPECT_EQ(ids.size(), QSet<QString>(ids.cbegin(), ids.cend()).size()) << "a worklog came twice";

    const auto requests = m_server.requests(QStringLiteral("GET"), QStringLiteral("/issue/ED-1/worklog$"));
    ASSERT_EQ(requests.size(), 3);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(requests[i].queryItem(QStringLiteral("startAt")), QString::number(i * 100));
        EXPECT_EQ(requests[i].queryItem(QStringLiteral("maxResults")), QStringLiteral("1000"));
        EXPECT_EQ(requests[i].queryItem(QStringLiteral("expand")), QStringLiteral("properties"));
        EXPECT_TRUE(requests[i].queryItem(QStringLiteral("startedAfter")).isNull());
    }
}

TEST_F(JiraClientTest, FiltersByStartAndReportsOnePageForNone)
{
    const QDateTime start = QDateTime::fromString(QStringLiteral("2026-03-02T08:00:00Z"), Qt::ISODate);
    addWorklogs(QStringLiteral("ED-1"), 5, start);
    QList<QPair<qint64, qint64>> progress;
    QVariantList inRange;
    QVariantList none;
    m_client->queue().sync([&] {
        inRange = m_client->worklogs(QStringLiteral("ED-1"), kCloud, start.addSecs(3600), start.addSecs(3 * 3600), {});
        none = m_client->worklogs(QStringLiteral("ED-2"), kCloud, [&](qint64 page, qint64 pages) {
            progress.append({page, pages});
        });
    });
    const auto requests = m_server.requests(QStringLiteral("GET"), QStringLiteral("/issue/ED-1/worklog$"));
    ASSERT_EQ(requests.size(), 1);
    EXPECT_EQ(requests[0].queryItem(QStringLiteral("startedAfter")),
        QString::number(start.addSecs(3600).toMSecsSinceEpoch()));
    EXPECT_EQ(requests[0].queryItem(QStringLiteral("startedBefore")),
        QString::number(start.addSecs(3 * 3600).toMSecsSinceEpoch()));
    EXPECT_FALSE(inRange.isEmpty());
    EXPECT_LT(inRange.size(), 5);
    EXPECT_TRUE(none.isEmpty());
    EXPECT_EQ(progress, (QList<QPair<qint64, qint64>> {{1, 1}}));
}

TEST_F(JiraClientTest, RefusesIncompleteWorklogPages)
{
    const QString path = QStringLiteral("/issue/ED-1/worklog$");
    const auto reply = [&](const QByteArray &body) {
        m_server.addFault(standin::Fault::statusReply(QStringLiteral("GET"), path, 200, body));
    };
    reply("{\"total\":1}");
    EXPECT_EQ(failure([&] { m_client->worklogs(QStringLiteral("ED-1"), kCloud); }),
        QStringLiteral("Jira returned incomplete worklog data."));
    reply("{\"total\":\"1\",\"worklogs\":[]}");
    EXPECT_EQ(failure([&] { m_client->worklogs(QStringLiteral("ED-1"), kCloud); }),
        QStringLiteral("Jira returned incomplete worklog data."));
    // Jira claims more than it sends.
    reply("{\"startAt\":0,\"maxResults\":100,\"total\":5,\"worklogs\":[]}");
    EXPECT_EQ(failure([&] { m_client->worklogs(QStringLiteral("ED-1"), kCloud); }),
        QStringLiteral("Jira worklog pagination did not complete."));
}

TEST_F(JiraClientTest, PostsOneWorklogWithoutNotifyingWatchers)
{
    const QVariantMap body = payload(QStringLiteral("m1"));
    QVariantMap created;
    m_client->queue().sync([&] {
        created = m_client->post(body, QStringLiteral("ED-1"), kCloud, QStringLiteral("auto"));
        m_client->post(body, QStringLiteral("ED-1"), kCloud, QStringLiteral("Auto"));
    });
    EXPECT_EQ(created.value(QStringLiteral("id")).typeId(), QMetaType::QString);
    EXPECT_EQ(m_server.worklogCount(QStringLiteral("ED-1")), 2);

    const auto posts = m_server.requests(QStringLiteral("POST"), QStringLiteral("/issue/ED-1/worklog$"));
    ASSERT_EQ(posts.size(), 2);
    EXPECT_EQ(posts[0].queryItem(QStringLiteral("adjustEstimate")), QStringLiteral("auto"));
    EXPECT_EQ(posts[1].queryItem(QStringLiteral("adjustEstimate")), QStringLiteral("leave"));
    for (const auto &post : posts) {
        EXPECT_EQ(post.queryItem(QStringLiteral("notifyUsers")), QStringLiteral("false"));
        EXPECT_EQ(QJsonDocument::fromJson(post.body).toVariant().toMap(), body);
    }

    // A 2xx without an id and a dropped answer leave the outcome open.
    m_server.addFault(standin::Fault::statusReply(
        QStringLiteral("POST"), QStringLiteral("/worklog$"), 201, "{\"id\":20001,\"timeSpentSeconds\":3600}"));
    EXPECT_EQ(failure([&] { m_client->post(body, QStringLiteral("ED-1"), kCloud, QStringLiteral("leave")); }),
        QStringLiteral("Submission outcome is unknown. Check Jira again before retrying."));
    m_server.addFault(standin::Fault::createThenDrop());
    EXPECT_EQ(failure([&] { m_client->post(body, QStringLiteral("ED-1"), kCloud, QStringLiteral("leave")); }),
        QStringLiteral("Network request failed. For a submitted worklog, the outcome may be unknown; check Jira "
                       "again before any retry."));
    EXPECT_EQ(m_server.worklogCount(QStringLiteral("ED-1")), 3);
}

} // namespace
