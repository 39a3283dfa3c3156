#include "jira/jiraclient.h"

#include "jira/keychainstore.h"
#include "platform/failure.h"
#include "standinfixture.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

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
    for (const char *key : {"abc-1", "A-", "-1", "A1 -2", "ED-1\n", "ED-1/../x", "Ed-1", ""}) {
        EXPECT_EQ(failure([&] { m_client->issueDetails(QString::fromUtf8(key), kCloud); }),
            QStringLiteral("Enter a valid Jira issue key."))
            << key;
        EXPECT_EQ(failure([&] { m_client->worklogs(QString::fromUtf8(key), kCloud); }),
            QStringLiteral("Enter a valid Jira issue key."));
        EXPECT_EQ(failure([&] { m_client->post({}, QString::fromUtf8(key), kCloud, QStringLiteral("auto")); }),
            QStringLiteral("Enter a valid Jira issue key."));
    }
    for (const char *cloud : {"a/b", "a.b", "..", "", "c0ffee 1", "c0ffee?x=1", "ü", "c0ffee-1234\n"}) {
        EXPECT_EQ(failure([&] { m_client->identity(QString::fromUtf8(cloud)); }),
            QStringLiteral("Invalid Jira site identifier."))
            << cloud;
        EXPECT_EQ(failure([&] { m_client->worklogs(QStringLiteral("ED-1"), QString::fromUtf8(cloud)); }),
            QStringLiteral("Invalid Jira site identifier."));
    }
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

TEST_F(JiraClientTest, StatusFailuresNameTheStatusAndWhatToDo)
{
    struct Case {
        standin::Fault fault;
        QString text;
    };
    const QString get = QStringLiteral("GET");
    const QString path = QStringLiteral("/myself$");
    const Case cases[] = {
        {standin::Fault::tooManyRequests(get, path),
            QStringLiteral("Jira returned HTTP 429. Jira is limiting requests; wait a moment and check again.")},
        {standin::Fault::tooManyRequestsHtml(get, path),
            QStringLiteral("Jira returned HTTP 429. Jira is limiting requests; wait a moment and check again.")},
        {standin::Fault::scopeMismatch(get, path), QStringLiteral("Jira returned HTTP 401. Reconnect Jira.")},
        {standin::Fault::statusReply(get, path, 403, "{\"errorMessages\":[\"no\"]}"),
            QStringLiteral("Jira returned HTTP 403. Check Jira permissions.")},
        {standin::Fault::serviceUnavailable(get, path),
            QStringLiteral("Jira returned HTTP 503. Review the issue and check Jira again before retrying.")},
        {standin::Fault::redirect(get, path, QStringLiteral("https://example.atlassian.net/")),
            QStringLiteral("Jira returned HTTP 302. Review the issue and check Jira again before retrying.")},
    };
    for (const Case &c : cases) {
        m_server.addFault(c.fault);
        EXPECT_EQ(failure([&] { m_client->identity(kCloud); }), c.text);
    }

    // The gateway's own answer to a token without the needed scope.
    signIn({QStringLiteral("read:jira-work")});
    EXPECT_EQ(failure([&] { m_client->identity(kCloud); }), QStringLiteral("Jira returned HTTP 401. Reconnect Jira."));
    EXPECT_EQ(failure([&] { m_client->issueDetails(QStringLiteral("ED-404"), kCloud); }),
        QStringLiteral("Jira returned HTTP 404. Review the issue and check Jira again before retrying."));

    // Texts never carry the token.
    EXPECT_FALSE(jiratest::diagnosticsText().contains(m_token.toUtf8()));
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
    const QVariantMap payload {{QStringLiteral("started"), QStringLiteral("2026-03-02T09:00:00.000+0100")},
        {QStringLiteral("timeSpentSeconds"), 3600},
        {QStringLiteral("properties"),
            QVariantList {QVariantMap {{QStringLiteral("key"), QStringLiteral("hourloom")},
                {QStringLiteral("value"), QVariantMap {{QStringLiteral("marker"), QStringLiteral("m1")}}}}}}};
    QVariantMap created;
    m_client->queue().sync([&] {
        created = m_client->post(payload, QStringLiteral("ED-1"), kCloud, QStringLiteral("auto"));
        m_client->post(payload, QStringLiteral("ED-1"), kCloud, QStringLiteral("Auto"));
    });
    EXPECT_EQ(created.value(QStringLiteral("id")).typeId(), QMetaType::QString);
    EXPECT_EQ(m_server.worklogCount(QStringLiteral("ED-1")), 2);

    const auto posts = m_server.requests(QStringLiteral("POST"), QStringLiteral("/issue/ED-1/worklog$"));
    ASSERT_EQ(posts.size(), 2);
    EXPECT_EQ(posts[0].queryItem(QStringLiteral("adjustEstimate")), QStringLiteral("auto"));
    EXPECT_EQ(posts[1].queryItem(QStringLiteral("adjustEstimate")), QStringLiteral("leave"));
    for (const auto &post : posts) {
        EXPECT_EQ(post.queryItem(QStringLiteral("notifyUsers")), QStringLiteral("false"));
        EXPECT_EQ(QJsonDocument::fromJson(post.body).toVariant().toMap(), payload);
    }

    // Jira's validation answer is a status failure; a 2xx without an id and a dropped answer leave the
    // outcome open.
    QVariantMap tooShort = payload;
    tooShort.insert(QStringLiteral("timeSpentSeconds"), 30);
    EXPECT_EQ(failure([&] { m_client->post(tooShort, QStringLiteral("ED-1"), kCloud, QStringLiteral("leave")); }),
        QStringLiteral("Jira returned HTTP 400. Review the issue and check Jira again before retrying."));
    m_server.addFault(standin::Fault::statusReply(
        QStringLiteral("POST"), QStringLiteral("/worklog$"), 201, "{\"id\":20001,\"timeSpentSeconds\":3600}"));
    EXPECT_EQ(failure([&] { m_client->post(payload, QStringLiteral("ED-1"), kCloud, QStringLiteral("leave")); }),
        QStringLiteral("Submission outcome is unknown. Check Jira again before retrying."));
    m_server.addFault(standin::Fault::createThenDrop());
    EXPECT_EQ(failure([&] { m_client->post(payload, QStringLiteral("ED-1"), kCloud, QStringLiteral("leave")); }),
        QStringLiteral("Network request failed. For a submitted worklog, the outcome may be unknown; check Jira "
                       "again before any retry."));
    EXPECT_EQ(m_server.worklogCount(QStringLiteral("ED-1")), 3);
}

} // namespace
