#include "jira/httptransport.h"

#include "standinfixture.h"
#include "worklogs/namedfailure.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

using namespace std::chrono_literals;

namespace
{

const QString kFailed = QStringLiteral("Network request failed. For a submitted worklog, the outcome may be unknown; "
                                       "check Jira again before any retry.");
const QString kTimedOut = QStringLiteral("Network request timed out. For a submitted worklog, the outcome may be "
                                         "unknown; check Jira again before any retry.");
const QString kInvalid = QStringLiteral("The service returned an invalid response.");

// The reason of the JiraError that `call` throws, or a note that it threw none.
template<typename Call> QString failureOf(Call call)
{
    try {
        call();
    } catch (const NamedFailure &failure) {
        EXPECT_EQ(failure.name(), QStringLiteral("JiraError"));
        return failure.reason();
    }
    return QStringLiteral("(no failure)");
}

class HTTPTransportTest : public jiratest::StandinTest
{
protected:
    QString url(const QString &path) const { return m_server.origin() + path; }

    QVariant get(const HTTPTransport &transport, const QString &path, qint64 &status)
    {
        return transport.request(url(path), QStringLiteral("GET"), {}, {}, status);
    }
};

TEST_F(HTTPTransportTest, RefusesAnythingButCredentialFreeHTTPS)
{
    HTTPTransport transport;
    const QString authority = QStringLiteral("127.0.0.1:%1").arg(m_server.port());
    const QString refused[] = {
        QStringLiteral("http://") + authority + QStringLiteral("/x"),
        QStringLiteral("HTTPS://") + authority + QStringLiteral("/x"),
        QStringLiteral("https://user:secret@") + authority + QStringLiteral("/x"),
        QStringLiteral("https://user@") + authority + QStringLiteral("/x"),
        QStringLiteral("https:///x"),
        QStringLiteral("not a url"),
    };
    for (const QString &target : refused) {
        qint64 status = -7;
        EXPECT_EQ(failureOf([&] { transport.request(target, QStringLiteral("GET"), {}, {}, status); }),
            QStringLiteral("Only HTTPS connections are supported."))
            << qPrintable(target);
        EXPECT_EQ(status, -7);
    }
    EXPECT_EQ(m_server.hitCount(), 0);
    EXPECT_TRUE(jiratest::diagnosticsText().contains("{\"event\":\"jira_operation_failed\""));
}

TEST_F(HTTPTransportTest, SendsJSONWithTheBearerTokenAndNothingElse)
{
    m_server.addFault(standin::Fault::statusReply(QStringLiteral("POST"), QStringLiteral("^/probe$"), 200, "{}"));
    m_server.addFault(standin::Fault::statusReply(QStringLiteral("GET"), QStringLiteral("^/probe$"), 200, "[]"));
    HTTPTransport transport;
    qint64 status = 0;
    const QVariantMap body {{QStringLiteral("started"), QStringLiteral("2026-03-02T09:00:00.000+0100")},
        {QStringLiteral("timeSpentSeconds"), 3600}};
    EXPECT_EQ(
        transport.request(url(QStringLiteral("/probe")), QStringLiteral("POST"), body, QStringLiteral("tok-1"), status),
        QVariant(QVariantMap()));
    EXPECT_EQ(transport.request(url(QStringLiteral("/probe")), QStringLiteral("GET"), {}, {}, status),
        QVariant(QVariantList()));

    const auto requests = m_server.requests();
    ASSERT_EQ(requests.size(), 2);
    const standin::ReceivedRequest &post = requests[0];
    EXPECT_EQ(post.method, QStringLiteral("POST"));
    EXPECT_EQ(post.header(QStringLiteral("accept")), QStringLiteral("application/json"));
    EXPECT_EQ(post.header(QStringLiteral("authorization")), QStringLiteral("Bearer tok-1"));
    EXPECT_EQ(post.header(QStringLiteral("content-type")), QStringLiteral("application/json"));
    EXPECT_FALSE(post.body.contains(' ')) << "compact JSON expected: " << post.body.constData();
    EXPECT_EQ(QJsonDocument::fromJson(post.body).object().toVariantMap(), body);

    const standin::ReceivedRequest &plain = requests[1];
    EXPECT_EQ(plain.header(QStringLiteral("accept")), QStringLiteral("application/json"));
    EXPECT_TRUE(plain.header(QStringLiteral("authorization")).isNull());
    EXPECT_TRUE(plain.header(QStringLiteral("content-type")).isNull());
    EXPECT_TRUE(plain.body.isEmpty());

    // The method is the one asked for, with or without a body.
    m_server.addFault(standin::Fault::statusReply(QStringLiteral("GET"), QStringLiteral("^/probe$"), 200, "{}"));
    transport.request(url(QStringLiteral("/probe")), QStringLiteral("GET"), body, {}, status);
    const auto withBody = m_server.requests();
    ASSERT_EQ(withBody.size(), 3);
    EXPECT_EQ(withBody[2].method, QStringLiteral("GET"));
    EXPECT_EQ(withBody[2].header(QStringLiteral("content-type")), QStringLiteral("application/json"));
}

TEST_F(HTTPTransportTest, LeavesNon2xxStatusesToTheCaller)
{
    struct Case {
        int status;
        QByteArray body;
        QVariant expected; // invalid: none
        bool invalid; // raises "The service returned an invalid response."
    };
    const Case cases[] = {
        {204, "", {}, true},
        {200, "<html>ok</html>", {}, true},
        {200, "42", {}, true},
        {200, "\"text\"", {}, true},
        {404, "", {}, false},
        {503, "<html>down</html>", {}, false},
        {401, "{\"code\":401,\"message\":\"Unauthorized\"}",
            QVariantMap {{QStringLiteral("code"), 401}, {QStringLiteral("message"), QStringLiteral("Unauthorized")}},
            false},
        {400, "[\"bad\"]", QVariantList {QStringLiteral("bad")}, false},
    };
    HTTPTransport transport;
    for (const Case &c : cases) {
        m_server.addFault(standin::Fault::statusReply(
            QStringLiteral("GET"), QStringLiteral("^/status$"), c.status, c.body, {{"Content-Type", "text/plain"}}));
        qint64 status = 0;
        if (c.invalid) {
            EXPECT_EQ(failureOf([&] { get(transport, QStringLiteral("/status"), status); }), kInvalid)
                << c.status << " " << c.body.constData();
        } else {
            QVariant answer;
            EXPECT_NO_THROW(answer = get(transport, QStringLiteral("/status"), status));
            EXPECT_EQ(status, c.status);
            EXPECT_EQ(answer.isValid(), c.expected.isValid()) << c.status << " " << c.body.constData();
            if (c.expected.isValid()) {
                EXPECT_EQ(QJsonDocument::fromVariant(answer), QJsonDocument::fromVariant(c.expected));
            }
        }
    }
}

TEST_F(HTTPTransportTest, NeverFollowsARedirect)
{
    standin::Server recorder(standin::Server::Mode::Recorder);
    ASSERT_TRUE(recorder.start());
    m_server.addFault(standin::Fault::redirect(
        QStringLiteral("GET"), QStringLiteral("^/moved$"), recorder.origin() + QStringLiteral("/landed")));
    HTTPTransport transport;
    qint64 status = 0;
    QVariant answer;
    EXPECT_NO_THROW(answer = get(transport, QStringLiteral("/moved"), status));
    EXPECT_EQ(status, 302);
    EXPECT_EQ(recorder.hitCount(), 0);
}

TEST_F(HTTPTransportTest, KeepsNoCookies)
{
    m_server.addFault(standin::Fault::statusReply(QStringLiteral("GET"), QStringLiteral("^/cookie$"), 200, "{}",
        {{"Set-Cookie", "session=abc123; Path=/; Secure"}}));
    m_server.addFault(standin::Fault::statusReply(QStringLiteral("GET"), QStringLiteral("^/cookie$"), 200, "{}"));
    HTTPTransport transport;
    qint64 status = 0;
    get(transport, QStringLiteral("/cookie"), status);
    get(transport, QStringLiteral("/cookie"), status);
    const auto requests = m_server.requests(QStringLiteral("GET"), QStringLiteral("^/cookie$"));
    ASSERT_EQ(requests.size(), 2);
    EXPECT_TRUE(requests[1].header(QStringLiteral("cookie")).isNull());
}

TEST_F(HTTPTransportTest, VerifiesTheServerCertificate)
{
    // Without the stand-in's authority the certificate is not trusted, and there is no switch to skip the check.
    qunsetenv("HOURLOOM_TEST_CA_FILE");
    HTTPTransport untrusting;
    qint64 status = 0;
    EXPECT_EQ(failureOf([&] { get(untrusting, QStringLiteral("/anything"), status); }), kFailed);
    EXPECT_EQ(m_server.hitCount(), 0);
}

TEST_F(HTTPTransportTest, BackstopEndsTheWaitAndRecordsATimeout)
{
    HTTPTransport::Limits limits;
    limits.backstop = 1500ms; // below the transfer limits, so only the backstop can end the wait
    HTTPTransport transport(limits);
    // The answer would come, well within the transfer limits: only the backstop can turn it into a time-out.
    m_server.addFault(standin::Fault::slow(QStringLiteral("GET"), QStringLiteral("^/slow$"), 10000));
    qint64 status = 0;
    EXPECT_EQ(failureOf([&] { get(transport, QStringLiteral("/slow"), status); }), kTimedOut);
    EXPECT_TRUE(jiratest::diagnosticsText().contains("\"error_code\":-1001"));
}

TEST_F(HTTPTransportTest, ServerThatNeverAnswersFailsWithinTheTransferLimits)
{
    // Real duration: the fixed 20 s idle / 25 s transfer limits, not the backstop, end this request.
    HTTPTransport transport;
    m_server.addFault(standin::Fault::slow(QStringLiteral("GET"), QStringLiteral("^/silent$"), 60000));
    qint64 status = 0;
    QElapsedTimer clock;
    clock.start();
    // The network failure text, not the backstop's, says the transfer limits ended it; they cannot end it early.
    EXPECT_EQ(failureOf([&] { get(transport, QStringLiteral("/silent"), status); }), kFailed);
    EXPECT_GE(clock.elapsed(), 19000);
}

TEST_F(HTTPTransportTest, TransferLimitEndsAnAnswerThatNeverGoesIdle)
{
    // A byte every 200 ms never trips the idle limit; only the whole-transfer limit can end it, well before the
    // backstop, and it is reported as a network failure with the networking layer's own code.
    HTTPTransport::Limits limits;
    limits.total = 1500ms;
    limits.backstop = 10s;
    HTTPTransport transport(limits);
    m_server.addFault(standin::Fault::trickle(QStringLiteral("GET"), QStringLiteral("^/trickle$"), 200));
    qint64 status = 0;
    QElapsedTimer clock;
    clock.start();
    EXPECT_EQ(failureOf([&] { get(transport, QStringLiteral("/trickle"), status); }), kFailed);
    EXPECT_GE(clock.elapsed(), 1400);

    QJsonObject failed;
    for (const QByteArray &line : jiratest::diagnosticsText().trimmed().split('\n')) {
        const QJsonObject record = QJsonDocument::fromJson(line).object();
        if (record.value(QStringLiteral("event")).toString() == QStringLiteral("network_failed"))
            failed = record;
    }
    ASSERT_FALSE(failed.isEmpty());
    EXPECT_EQ(failed.value(QStringLiteral("http_status")).toInt(), 200);
    EXPECT_NE(failed.value(QStringLiteral("error_code")).toInt(0), 0);
    EXPECT_NE(failed.value(QStringLiteral("error_code")).toInt(), -1001);
    EXPECT_GE(failed.value(QStringLiteral("duration_ms")).toDouble(), 1400.0);
}

TEST_F(HTTPTransportTest, RecordsEveryRequestWithoutItsContent)
{
    m_server.addFault(standin::Fault::statusReply(
        QStringLiteral("GET"), QStringLiteral("^/ok$"), 200, "{\"access_token\":\"secret-answer\"}"));
    HTTPTransport transport;
    qint64 status = 0;
    transport.request(url(QStringLiteral("/ok")), QStringLiteral("GET"), {}, QStringLiteral("secret-token"), status);
    const QByteArray log = jiratest::diagnosticsText();
    const QList<QByteArray> lines = log.trimmed().split('\n');
    ASSERT_FALSE(lines.isEmpty());
    const QJsonObject last = QJsonDocument::fromJson(lines.last()).object();
    EXPECT_EQ(last.value(QStringLiteral("event")).toString(), QStringLiteral("network_completed"));
    EXPECT_EQ(last.value(QStringLiteral("http_status")).toInt(), 200);
    EXPECT_EQ(last.value(QStringLiteral("error_code")).toInt(-1), 0);
    EXPECT_GT(last.value(QStringLiteral("duration_ms")).toDouble(), 0.0);
    EXPECT_FALSE(log.contains("secret"));
    EXPECT_FALSE(log.contains("127.0.0.1"));
}

TEST_F(HTTPTransportTest, ServesConcurrentCallers)
{
    seedJira();
    const QString token = m_server.issueAccessToken(QString::fromLatin1(jiratest::kAccount), jiratest::allScopes());
    HTTPTransport transport;
    std::atomic<int> matching {0};
    std::vector<std::thread> callers;
    for (int i = 0; i < 8; ++i) {
        callers.emplace_back([&, i] {
            const QString key = i % 2 ? QStringLiteral("ED-1") : QStringLiteral("ED-2");
            qint64 status = 0;
            const QVariantMap answer = transport
                                           .request(url(QStringLiteral("/ex/jira/%1/rest/api/3/issue/%2?fields=summary")
                                                            .arg(QLatin1String(jiratest::kCloud), key)),
                                               QStringLiteral("GET"), {}, token, status)
                                           .toMap();
            if (status == 200 && answer.value(QStringLiteral("key")).toString() == key)
                ++matching;
        });
    }
    for (std::thread &caller : callers)
        caller.join();
    EXPECT_EQ(matching.load(), 8);
}

} // namespace
