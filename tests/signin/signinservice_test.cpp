#include "jira/loopbacklistener.h"
#include "signinfixture.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QJsonDocument>
#include <QProcess>
#include <QThread>
#include <QUrlQuery>

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>

namespace
{

using namespace signintest;

const QString kGet = QStringLiteral("GET");

QString field(const QJsonObject &object, const char *name)
{
    return object.value(QLatin1String(name)).toString();
}

using SigninServiceTest = SigninTest;

TEST_F(SigninServiceTest, HandsTheTokensOutOnceToTheVerifierThatStartedTheSignIn)
{
    ServiceProcess &service = startService();
    QString verifier;
    const QJsonObject started = startSignIn(service.origin(), &verifier);
    const QString state = field(started, "state");
    EXPECT_EQ(state.size(), 43); // 256 bits
    const QUrl url(field(started, "authorization_url"));
    EXPECT_EQ(url.toString(QUrl::RemoveQuery), m_atlassian->authorizeUrl());
    const QUrlQuery query(url);
    const QList<QPair<QString, QString>> expected {{QStringLiteral("audience"), QStringLiteral("api.atlassian.com")},
        {QStringLiteral("client_id"), QString::fromLatin1(kClientId)},
        {QStringLiteral("scope"), QStringLiteral("read:jira-work write:jira-work read:jira-user offline_access")},
        {QStringLiteral("redirect_uri"), service.origin() + QStringLiteral("/oauth/callback")},
        {QStringLiteral("state"), state}, {QStringLiteral("response_type"), QStringLiteral("code")},
        {QStringLiteral("prompt"), QStringLiteral("consent")}};
    for (const auto &[name, value] : expected)
        EXPECT_EQ(query.queryItemValue(name, QUrl::FullyDecoded), value) << name.toStdString();

    EXPECT_EQ(poll(service.origin(), state, verifier).status, 202);
    const Visit visit = browse(url.toString(), caFile());
    ASSERT_EQ(visit.urls.size(), 2);
    EXPECT_TRUE(visit.urls[1].startsWith(service.origin() + QStringLiteral("/oauth/callback?")));
    EXPECT_EQ(visit.last.status, 200);
    EXPECT_NE(visit.last.body.find("You can return to Hourloom"), std::string::npos);

    QString otherVerifier;
    startSignIn(service.origin(), &otherVerifier);
    const HttpAnswer wrong = poll(service.origin(), state, otherVerifier);
    EXPECT_EQ(wrong.status, 400);
    EXPECT_EQ(field(wrong.json(), "error"), QStringLiteral("invalid_grant"));

    const HttpAnswer tokens = poll(service.origin(), state, verifier);
    ASSERT_EQ(tokens.status, 200) << tokens.body;
    EXPECT_EQ(tokens.header("Cache-Control"), "no-store");
    EXPECT_FALSE(field(tokens.json(), "access_token").isEmpty());
    EXPECT_EQ(tokens.json().value(QStringLiteral("expires_in")).toDouble(), 3600);
    EXPECT_TRUE(m_atlassian->liveRefreshTokens().contains(field(tokens.json(), "refresh_token")));

    // Exactly once: a second poll and a replayed callback both find nothing.
    EXPECT_EQ(poll(service.origin(), state, verifier).status, 400);
    const HttpAnswer replay = request(visit.urls[1], kGet, {}, caFile());
    EXPECT_EQ(replay.status, 400);
    EXPECT_NE(replay.body.find("expired or was already used"), std::string::npos);
    EXPECT_EQ(m_atlassian->tokenRequests(), 1);

    // The refresh hands the rotated token back; the service keeps nothing of it.
    m_atlassian->setRefreshReuseLeeway(0);
    const QString firstRefresh = field(tokens.json(), "refresh_token");
    const HttpAnswer refreshed = postJson(service.origin() + QStringLiteral("/oauth/refresh"),
        QJsonObject {{QStringLiteral("refresh_token"), firstRefresh}}, caFile());
    ASSERT_EQ(refreshed.status, 200) << refreshed.body;
    EXPECT_EQ(refreshed.header("Cache-Control"), "no-store");
    const QString rotated = field(refreshed.json(), "refresh_token");
    EXPECT_NE(rotated, firstRefresh);
    EXPECT_EQ(m_atlassian->liveRefreshTokens(), QStringList {rotated});
    const HttpAnswer reused = postJson(service.origin() + QStringLiteral("/oauth/refresh"),
        QJsonObject {{QStringLiteral("refresh_token"), firstRefresh}}, caFile());
    EXPECT_EQ(reused.status, 403);
    EXPECT_EQ(field(reused.json(), "error"), QStringLiteral("invalid_grant"));
    EXPECT_TRUE(m_atlassian->liveRefreshTokens().isEmpty()); // reuse revoked the family

    const HttpAnswer health = request(service.origin() + QStringLiteral("/healthz"), kGet, {}, caFile());
    EXPECT_EQ(health.status, 200);
    EXPECT_EQ(health.json().value(QStringLiteral("pending")).toInt(), 1); // the other, unfinished sign-in
    service.stop();
    expectNoSecretIn(service.log(), {verifier, otherVerifier});
}

TEST_F(SigninServiceTest, ReleasesABoundSignInOnlyToTheDeviceThatReceivedTheNonce)
{
    ServiceProcess &service = startService();

    // The attack: a sign-in started elsewhere, its consent link approved by a victim. The victim's browser is
    // sent to its own loopback port, where the attacker cannot listen, so the attacker never sees the nonce.
    QString attackerVerifier;
    const QJsonObject attack = startSignIn(service.origin(), &attackerVerifier, standin::freeLoopbackPort());
    const Visit victim = browse(field(attack, "authorization_url"), caFile(), false);
    ASSERT_FALSE(victim.urls.isEmpty());
    EXPECT_TRUE(victim.urls.last().startsWith(QStringLiteral("http://127.0.0.1:")));
    const QString state = field(attack, "state");
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(poll(service.origin(), state, attackerVerifier).status, 202);
    const QString guess = QStringLiteral("AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA");
    const HttpAnswer guessed = poll(service.origin(), state, attackerVerifier, guess);
    EXPECT_EQ(guessed.status, 403);
    EXPECT_EQ(guessed.body.find("access_token"), std::string::npos);
    // A wrong nonce voids the sign-in, even for the real nonce afterwards.
    const QString realNonce = QUrlQuery(QUrl(victim.urls.last())).queryItemValue(QStringLiteral("nonce"));
    EXPECT_EQ(poll(service.origin(), state, attackerVerifier, realNonce).status, 400);

    // The device that started the sign-in receives the nonce on its listener and gets the tokens.
    LoopbackListener listener;
    ASSERT_TRUE(listener.listen());
    QString verifier;
    const QJsonObject started = startSignIn(service.origin(), &verifier, listener.port());
    listener.expectState(field(started, "state"));
    const Visit visit = browse(field(started, "authorization_url"), caFile());
    EXPECT_EQ(visit.last.status, 200);
    EXPECT_NE(visit.last.body.find("You can return to Hourloom"), std::string::npos);
    ASSERT_FALSE(listener.nonce().isNull());
    EXPECT_EQ(poll(service.origin(), field(started, "state"), verifier).status, 202);
    const HttpAnswer tokens = poll(service.origin(), field(started, "state"), verifier, listener.nonce());
    EXPECT_EQ(tokens.status, 200) << tokens.body;
    EXPECT_FALSE(field(tokens.json(), "access_token").isEmpty());
    service.stop();
    expectNoSecretIn(service.log(), {verifier, attackerVerifier, listener.nonce(), realNonce});
}

TEST_F(SigninServiceTest, AnswersMalformedRequestsWithAClearJsonError)
{
    ServiceProcess &service = startService();
    const QByteArray challenge = "E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM";
    const QByteArray state = "AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA";
    const QByteArray verifier = "dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk";
    struct Case {
        const char *path;
        QByteArray body;
        int status;
        const char *error;
    };
    const Case cases[] = {
        {"/oauth/start", "not json", 400, "invalid_request"},
        {"/oauth/start", "[]", 400, "invalid_request"},
        {"/oauth/start", R"({"challenge":"short"})", 400, "invalid_request"},
        {"/oauth/start", R"({"challenge":")" + challenge + R"(","code_challenge_method":"plain"})", 400,
            "invalid_request"},
        {"/oauth/start", R"({"challenge":")" + challenge + R"(","port":80})", 400, "invalid_request"},
        {"/oauth/start", R"({"challenge":")" + challenge + R"(","port":"8080"})", 400, "invalid_request"},
        {"/oauth/start", R"({"challenge":")" + challenge + R"(","redirect_uri":"https://evil.example"})", 400,
            "invalid_request"},
        {"/oauth/start", R"({"challenge":")" + challenge + "\"" + QByteArray(1 << 20, ' ') + "}", 413,
            "request_too_large"},
        {"/oauth/poll", R"({"state":"x","verifier":"y"})", 400, "invalid_request"},
        {"/oauth/poll", R"({"state":")" + state + R"(","verifier":")" + verifier + R"("})", 400, "invalid_grant"},
        {"/oauth/poll", R"({"state":")" + state + R"(","verifier":")" + verifier + R"(","nonce":"x"})", 400,
            "invalid_request"},
        {"/oauth/refresh", "{}", 400, "invalid_request"},
        {"/oauth/refresh", R"({"refresh_token":"unknown-token"})", 403, "invalid_grant"},
        {"/nowhere", "{}", 404, "not_found"},
    };
    for (const Case &c : cases) {
        const HttpAnswer answer
            = request(service.origin() + QLatin1String(c.path), QStringLiteral("POST"), c.body, caFile());
        EXPECT_EQ(answer.status, c.status) << c.path << " " << c.body.left(80).constData();
        EXPECT_EQ(field(answer.json(), "error"), QLatin1String(c.error))
            << c.path << " " << c.body.left(80).constData();
        EXPECT_EQ(answer.header("Content-Type"), "application/json") << c.path;
    }
    // A callback that is not one: a clear page, no exchange.
    for (const QString &query :
        {QStringLiteral("state=x&code=y"), QString(QStringLiteral("state=") + QLatin1String(state)),
            QStringLiteral("state=%1&code=c&error=access_denied").arg(QLatin1String(state))}) {
        const HttpAnswer page
            = request(service.origin() + QStringLiteral("/oauth/callback?") + query, kGet, {}, caFile());
        EXPECT_EQ(page.status, 400) << query.toStdString();
        EXPECT_NE(page.body.find("not valid"), std::string::npos) << query.toStdString();
    }
    EXPECT_EQ(m_atlassian->tokenRequests(), 1); // the one refresh above
}

TEST_F(SigninServiceTest, EndsDeniedAndExpiredSignIns)
{
    ServiceProcess &service = startService({{"pending_seconds", "2"}});
    m_atlassian->setConsent(standin::Atlassian::Consent::Deny);
    QString verifier;
    const QJsonObject denied = startSignIn(service.origin(), &verifier);
    const Visit visit = browse(field(denied, "authorization_url"), caFile());
    EXPECT_NE(visit.last.body.find("was not given access"), std::string::npos);
    const HttpAnswer answer = poll(service.origin(), field(denied, "state"), verifier);
    EXPECT_EQ(answer.status, 400);
    EXPECT_EQ(field(answer.json(), "error"), QStringLiteral("access_denied"));
    EXPECT_EQ(poll(service.origin(), field(denied, "state"), verifier).status, 400);

    // A sign-in nobody approves in time is forgotten; its consent link no longer leads anywhere.
    m_atlassian->setConsent(standin::Atlassian::Consent::Approve);
    const QJsonObject late = startSignIn(service.origin(), &verifier);
    int status = 202;
    for (QDeadlineTimer deadline(30000); status == 202 && !deadline.hasExpired(); QThread::msleep(200))
        status = poll(service.origin(), field(late, "state"), verifier).status;
    EXPECT_EQ(status, 400);
    const Visit tooLate = browse(field(late, "authorization_url"), caFile());
    EXPECT_EQ(tooLate.last.status, 400);
    EXPECT_EQ(m_atlassian->tokenRequests(), 0);
}

TEST_F(SigninServiceTest, RateLimitsStartsFromOneAddressAndKeepsMemoryBounded)
{
    // Plain HTTP on loopback, as behind a reverse proxy (the limits do not depend on the transport).
    ServiceProcess &service = startService({{"log_level", "error"}, {"tls_cert", ""}, {"tls_key", ""}});
    const qint64 before = service.residentKiB();
    // A new connection per request, as a simple flooding script makes them.
    const QByteArray body = R"({"challenge":"E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM"})";
    std::string retryAfter;
    int accepted = 0;
    int limited = 0;
    const auto began = std::chrono::steady_clock::now();
    for (int i = 0; i < 10000; ++i) {
        const HttpAnswer answer
            = request(service.origin() + QStringLiteral("/oauth/start"), QStringLiteral("POST"), body, caFile());
        ASSERT_NE(answer.status, 0) << i;
        accepted += answer.status == 200;
        limited += answer.status == 429;
        if (answer.status == 429)
            retryAfter = answer.header("Retry-After");
    }
    // A burst of 20, then 20 a minute: however long the flood took, no more got through than that.
    const double minutes = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count() / 60.0;
    EXPECT_GE(accepted, 20);
    EXPECT_LE(accepted, 20 + int(std::ceil(minutes * 20)));
    EXPECT_EQ(limited, 10000 - accepted);
    EXPECT_GE(std::atoi(retryAfter.c_str()), 1);
    const HttpAnswer health = request(service.origin() + QStringLiteral("/healthz"), kGet, {}, caFile());
    EXPECT_EQ(health.json().value(QStringLiteral("pending")).toInt(), accepted);
    // What 10,000 refused requests leave behind is nothing that grows with them.
    EXPECT_LT(service.residentKiB() - before, 16 * 1024);
}

class RedisSigninTest : public SigninServiceTest
{
protected:
    void SetUp() override
    {
        SigninServiceTest::SetUp();
        if (!m_redis.start())
            GTEST_SKIP() << "redis-server is not installed (scripts/install-deps.sh installs it)";
    }
    RedisProcess m_redis;
};

TEST_F(RedisSigninTest, TwoInstancesShareOneSignInThroughRedis)
{
    // Both instances stand behind one public origin, as behind a load balancer; here it leads to the second.
    const std::map<std::string, std::string> shared {{"store", m_redis.url().toStdString()}};
    ServiceProcess &first = startService(shared, 0, m_ports[1]);
    ServiceProcess &second = startService(shared, 1, m_ports[1]);
    QString verifier;
    const QJsonObject started = startSignIn(first.origin(), &verifier);
    const Visit visit = browse(field(started, "authorization_url"), caFile());
    ASSERT_GE(visit.urls.size(), 2);
    EXPECT_TRUE(visit.urls[1].startsWith(second.origin() + QStringLiteral("/oauth/callback?")));
    EXPECT_EQ(visit.last.status, 200);
    // The replayed callback loses at the other instance too.
    EXPECT_EQ(request(QString(visit.urls[1]).replace(second.origin(), first.origin()), kGet, {}, caFile()).status, 400);

    const HttpAnswer tokens = poll(first.origin(), field(started, "state"), verifier);
    EXPECT_EQ(tokens.status, 200) << tokens.body;
    EXPECT_EQ(poll(second.origin(), field(started, "state"), verifier).status, 400);
    const HttpAnswer health = request(second.origin() + QStringLiteral("/healthz"), kGet, {}, caFile());
    EXPECT_EQ(health.json().value(QStringLiteral("store")).toString(), QStringLiteral("redis"));
    EXPECT_EQ(health.json().value(QStringLiteral("pending")).toInt(), 0);
}

TEST_F(RedisSigninTest, AnswersAClear503WhileRedisIsDown)
{
    ServiceProcess &service = startService({{"store", m_redis.url().toStdString()}});
    QString verifier;
    const QJsonObject started = startSignIn(service.origin(), &verifier);
    m_redis.stop();

    const HttpAnswer start = postJson(service.origin() + QStringLiteral("/oauth/start"),
        QJsonObject {{QStringLiteral("challenge"), QStringLiteral("E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM")}},
        caFile());
    const HttpAnswer polled = poll(service.origin(), field(started, "state"), verifier);
    for (const HttpAnswer &answer : {start, polled}) {
        EXPECT_EQ(answer.status, 503);
        EXPECT_EQ(field(answer.json(), "error"), QStringLiteral("temporarily_unavailable"));
        EXPECT_EQ(answer.body.find("token"), std::string::npos);
    }
    const Visit visit = browse(field(started, "authorization_url"), caFile());
    EXPECT_EQ(visit.last.status, 503);
    EXPECT_NE(visit.last.body.find("unavailable"), std::string::npos);
    EXPECT_EQ(m_atlassian->tokenRequests(), 0); // no code is exchanged that could not be kept
    EXPECT_EQ(request(service.origin() + QStringLiteral("/healthz"), kGet, {}, caFile()).status, 503);
    service.stop();
    expectNoSecretIn(service.log(), {verifier});
}

// Start-up refusals: the service says what is wrong and does not start.
struct StartupCase {
    const char *what;
    std::map<std::string, std::string> settings; // over a valid plain-HTTP loopback configuration
    QStringList arguments;
    QStringList environment;
    bool secretReadableByOthers = false;
    int exitCode;
    const char *message;
};

class SigninStartupTest : public ::testing::TestWithParam<StartupCase>
{
};

TEST_P(SigninStartupTest, RefusesUnsafeOrIncompleteSettings)
{
    const StartupCase &c = GetParam();
    QTemporaryDir dir;
    QFile secret(dir.filePath(QStringLiteral("client_secret")));
    ASSERT_TRUE(secret.open(QIODevice::WriteOnly));
    secret.write(kClientSecret);
    secret.close();
    secret.setPermissions(c.secretReadableByOthers ? QFileDevice::ReadOwner | QFileDevice::ReadOther
                                                   : QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    std::map<std::string, std::string> settings {{"listen", "127.0.0.1:" + std::to_string(standin::freeLoopbackPort())},
        {"public_origin", "https://signin.example.com"}, {"client_id", kClientId},
        {"client_secret_file", secret.fileName().toStdString()}};
    for (const auto &[key, value] : c.settings)
        settings[key] = value;
    QFile config(dir.filePath(QStringLiteral("service.conf")));
    ASSERT_TRUE(config.open(QIODevice::WriteOnly));
    for (const auto &[key, value] : settings)
        config.write(QByteArray::fromStdString(key + " = " + value + "\n"));
    config.close();

    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const QString &entry : c.environment)
        environment.insert(entry.section(QLatin1Char('='), 0, 0), entry.section(QLatin1Char('='), 1));
    process.setProcessEnvironment(environment);
    process.start(QStringLiteral(HOURLOOM_SIGNIN_BINARY),
        QStringList {QStringLiteral("--config"), config.fileName()} + c.arguments);
    ASSERT_TRUE(process.waitForFinished(20000)) << c.what;
    EXPECT_EQ(process.exitCode(), c.exitCode) << c.what;
    const QByteArray output = process.readAllStandardOutput() + process.readAllStandardError();
    EXPECT_TRUE(output.contains(c.message)) << c.what << ": " << output.constData();
    EXPECT_FALSE(output.contains(kClientSecret)) << c.what;
}

INSTANTIATE_TEST_SUITE_P(Settings, SigninStartupTest,
    ::testing::Values(StartupCase {"help", {}, {QStringLiteral("--help")}, {}, false, 0, "Usage: hourloom-signin"},
        StartupCase {"secret on the command line", {},
            {QStringLiteral("--client-secret"), QString::fromLatin1(kClientSecret)}, {}, false, 2,
            "never from the command line"},
        StartupCase {"secret in the environment", {}, {},
            {QStringLiteral("HOURLOOM_SIGNIN_CLIENT_SECRET=") + QString::fromLatin1(kClientSecret)}, false, 2,
            "never from the environment"},
        StartupCase {
            "secret in the file", {{"client_secret", kClientSecret}}, {}, {}, false, 2, "never given directly"},
        StartupCase {"secret file readable by others", {}, {}, {}, true, 2, "must not be readable by group or others"},
        StartupCase {"plain HTTP on a public address", {{"listen", "0.0.0.0:8080"}}, {}, {}, false, 2,
            "Plain HTTP is only served on a loopback address"},
        StartupCase {"half a TLS pair", {{"tls_cert", "/etc/hostname"}}, {}, {}, false, 2, "tls_cert and tls_key"},
        StartupCase {"public origin with a path", {{"public_origin", "https://signin.example.com/x"}}, {}, {}, false, 2,
            "public_origin"},
        StartupCase {"token endpoint over HTTP", {{"token_url", "http://auth.example.com/oauth/token"}}, {}, {}, false,
            2, "token_url"},
        StartupCase {"unknown store", {{"store", "mysql://db"}}, {}, {}, false, 2, "store must be"},
        StartupCase {"unknown setting", {{"client_secrets", "x"}}, {}, {}, false, 2, "Unknown setting"}),
    [](const ::testing::TestParamInfo<StartupCase> &info) {
        std::string name;
        for (const char c : std::string(info.param.what))
            name += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
        return name;
    });

} // namespace
