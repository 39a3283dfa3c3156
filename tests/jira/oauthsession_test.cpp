#include "jira/oauthsession.h"

#include "jira/keychainstore.h"
#include "standinfixture.h"
#include "support/testenv.h"
#include "worklogs/namedfailure.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDateTime>
#include <QJsonDocument>
#include <QThread>
#include <QUrlQuery>

#include <gtest/gtest.h>

#include <atomic>
#include <optional>

namespace
{

// Shows the authorization page by calling back the test.
class CallbackOpener : public UrlOpener
{
public:
    std::function<void(const QUrl &)> onOpen;
    void open(const QUrl &url) override { onOpen(url); }
};

TEST(Base64URL, UsesTheURLSafeAlphabetWithoutPadding)
{
    EXPECT_EQ(Base64URL(QByteArray::fromHex("fbff")), QStringLiteral("-_8"));
    EXPECT_EQ(Base64URL(QByteArray("a")), QStringLiteral("YQ"));
    EXPECT_EQ(Base64URL(QByteArray()), QString());
    // The S256 challenge of RFC 7636, appendix B.
    const QByteArray verifier = "dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk";
    EXPECT_EQ(Base64URL(QCryptographicHash::hash(verifier, QCryptographicHash::Sha256)),
        QStringLiteral("E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM"));
}

class OAuthSessionTest : public jiratest::StandinTest
{
protected:
    void SetUp() override
    {
        jiratest::StandinTest::SetUp();
        seedJira();
        m_service = jiratest::uniqueCredentialService();
        m_session = std::make_unique<OAuthSession>(m_service);
        m_session->setClock(&m_clock);
        m_session->setUrlOpener(&m_browser);
        m_browser.onOpen = [this](const QUrl &url) {
            noteThread();
            m_opened.append(url);
            if (m_approve)
                approveInBackground(url);
        };
    }
    void TearDown() override
    {
        // The browser and every completion are the user interface's business: main thread only.
        EXPECT_EQ(m_offMainThread, 0);
        m_session.reset();
        KeychainStore(m_service, QStringLiteral("oauth")).remove();
        jiratest::StandinTest::TearDown();
    }

    // Connects and waits for the completion; the returned error is empty on success.
    std::optional<PlatformError> connectAndWait(const QString &origin, int timeoutMs = 15000)
    {
        std::optional<PlatformError> result;
        m_session->connect(origin, [this, &result](const PlatformError &error) {
            noteThread();
            result = error;
        });
        testenv::waitFor([&] { return result.has_value(); }, timeoutMs);
        return result;
    }

    void noteThread()
    {
        if (QThread::currentThread() != QCoreApplication::instance()->thread())
            ++m_offMainThread;
    }

    QVariantMap stored() const { return KeychainStore(m_service, QStringLiteral("oauth")).load(); }

    QString accessOnQueue()
    {
        QString token;
        m_session->queue().sync([&] { token = m_session->access(); });
        return token;
    }

    double now() const { return double(m_clock.wallMs()) / 1000.0; }

    QString m_service;
    TestClock m_clock;
    CallbackOpener m_browser;
    std::unique_ptr<OAuthSession> m_session;
    QList<QUrl> m_opened;
    bool m_approve = true;
    std::atomic<int> m_offMainThread {0};
};

TEST_F(OAuthSessionTest, ConnectsRefreshesAndDisconnects)
{
    const auto error = connectAndWait(m_server.origin() + QStringLiteral("/"));
    ASSERT_TRUE(error.has_value());
    ASSERT_FALSE(error->isError()) << qPrintable(error->description);
    ASSERT_EQ(m_opened.size(), 1);
    EXPECT_EQ(m_opened[0].path(), QStringLiteral("/authorize"));

    // The start request carried an S256 challenge; the poll its verifier and the broker's state.
    const auto starts = m_server.requests(QStringLiteral("POST"), QStringLiteral("^/oauth/start$"));
    const auto polls = m_server.requests(QStringLiteral("POST"), QStringLiteral("^/oauth/poll$"));
    ASSERT_EQ(starts.size(), 1);
    ASSERT_FALSE(polls.isEmpty());
    const QVariantMap start = QJsonDocument::fromJson(starts[0].body).toVariant().toMap();
    const QVariantMap poll = QJsonDocument::fromJson(polls.last().body).toVariant().toMap();
    const QByteArray verifier = poll.value(QStringLiteral("verifier")).toString().toUtf8();
    EXPECT_EQ(verifier.size(), 43);
    EXPECT_EQ(start.value(QStringLiteral("challenge")).toString(),
        Base64URL(QCryptographicHash::hash(verifier, QCryptographicHash::Sha256)));
    EXPECT_EQ(
        poll.value(QStringLiteral("state")).toString(), QUrlQuery(m_opened[0]).queryItemValue(QStringLiteral("state")));
    for (const auto &request : starts + polls)
        EXPECT_TRUE(request.header(QStringLiteral("authorization")).isNull());

    // The record is in the real secret store, with the broker that issued it (no trailing "/").
    const QVariantMap record = stored();
    const QString first = record.value(QStringLiteral("access_token")).toString();
    EXPECT_FALSE(first.isEmpty());
    EXPECT_EQ(record.value(QStringLiteral("broker")).toString(), m_server.origin());
    const double expiresIn = record.value(QStringLiteral("expires_in")).toDouble();
    EXPECT_DOUBLE_EQ(record.value(QStringLiteral("expires_at")).toDouble(), now() + expiresIn);
    EXPECT_TRUE(m_session->connected());
    EXPECT_EQ(accessOnQueue(), first);

    // 61 s before it expires: used as it is, without asking the broker.
    m_clock.advance(qint64(expiresIn - 61) * 1000);
    EXPECT_EQ(accessOnQueue(), first);
    EXPECT_TRUE(m_server.requests(QStringLiteral("POST"), QStringLiteral("^/oauth/refresh$")).isEmpty());

    // 59 s before: refreshed at the issuing broker, even when another broker is chosen meanwhile; the rotated
    // refresh token is stored.
    qputenv("HOURLOOM_TEST_BROKER", "https://elsewhere.invalid");
    m_clock.advance(2000);
    const QString second = accessOnQueue();
    EXPECT_NE(second, first);
    EXPECT_EQ(m_server.requests(QStringLiteral("POST"), QStringLiteral("^/oauth/refresh$")).size(), 1);
    const QVariantMap refreshed = stored();
    EXPECT_EQ(refreshed.value(QStringLiteral("access_token")).toString(), second);
    EXPECT_NE(refreshed.value(QStringLiteral("refresh_token")), record.value(QStringLiteral("refresh_token")));
    EXPECT_TRUE(m_server.liveRefreshTokens().contains(refreshed.value(QStringLiteral("refresh_token")).toString()));

    m_session->disconnect();
    m_session->queue().drain();
    EXPECT_TRUE(stored().isEmpty());
    EXPECT_FALSE(m_session->connected());
    try {
        accessOnQueue();
        FAIL() << "a token without a record";
    } catch (const NamedFailure &failure) {
        EXPECT_EQ(failure.reason(), QStringLiteral("Connect Jira first."));
    }

    // No token ever reaches a file outside the secret store (whose files live in another folder), nor the
    // diagnostic log in particular.
    for (const QVariantMap &r : {record, refreshed}) {
        for (const char *field : {"access_token", "refresh_token"}) {
            const QByteArray secret = r.value(QLatin1String(field)).toString().toUtf8();
            EXPECT_TRUE(jiratest::filesContaining(secret).isEmpty()) << field;
        }
    }
    EXPECT_FALSE(jiratest::diagnosticsText().isEmpty());
}

TEST_F(OAuthSessionTest, RefreshAnswerWithoutARotatedTokenKeepsTheOldRecord)
{
    ASSERT_FALSE(connectAndWait(m_server.origin())->isError());
    const QVariantMap record = stored();
    m_clock.advance(qint64(record.value(QStringLiteral("expires_in")).toDouble() - 10) * 1000);
    m_server.addFault(standin::Fault::statusReply(QStringLiteral("POST"), QStringLiteral("^/oauth/refresh$"), 200,
        "{\"access_token\":\"fresh\",\"expires_in\":3600}"));
    m_server.addFault(standin::Fault::invalidGrant());
    for (int attempt = 0; attempt < 2; ++attempt) {
        try {
            accessOnQueue();
            ADD_FAILURE() << "refresh accepted";
        } catch (const NamedFailure &failure) {
            EXPECT_EQ(failure.reason(), QStringLiteral("Jira authorization expired. Connect again."));
        }
        EXPECT_EQ(stored(), record);
    }
}

TEST_F(OAuthSessionTest, RefusesAnUnusableBrokerOriginBeforeAnyRequest)
{
    const QString origin = m_server.origin();
    const QString authority = QStringLiteral("127.0.0.1:%1").arg(m_server.port());
    for (const QString &bad : QStringList {origin + QStringLiteral("/broker"), origin + QStringLiteral("?team=1"),
             QStringLiteral("https://user@") + authority, QStringLiteral("http://") + authority,
             QStringLiteral("HTTPS://") + authority, QString()}) {
        const auto error = connectAndWait(bad);
        ASSERT_TRUE(error.has_value()) << qPrintable(bad);
        EXPECT_EQ(error->domain, QStringLiteral("Jira"));
        EXPECT_EQ(error->code, 1);
        EXPECT_EQ(error->description,
            QStringLiteral("Enter the HTTPS origin of your app's configured authorization service."));
    }
    EXPECT_EQ(m_server.hitCount(), 0);
}

TEST_F(OAuthSessionTest, NeverOpensAnUnexpectedAuthorizationURL)
{
    const QString authority = QStringLiteral("127.0.0.1:%1").arg(m_server.port());
    for (const QString &base : QStringList {QStringLiteral("https://auth.example.com/authorize"),
             QStringLiteral("https://") + authority + QStringLiteral("/authorize/"),
             QStringLiteral("http://") + authority + QStringLiteral("/authorize"),
             QStringLiteral("https://someone@") + authority + QStringLiteral("/authorize")}) {
        m_server.setAuthorizationUrlBase(base);
        const auto error = connectAndWait(m_server.origin());
        ASSERT_TRUE(error.has_value()) << qPrintable(base);
        EXPECT_EQ(error->description, QStringLiteral("Unexpected authorization URL.")) << qPrintable(base);
    }
    EXPECT_TRUE(m_opened.isEmpty());
    EXPECT_TRUE(m_server.requests(QStringLiteral("POST"), QStringLiteral("^/oauth/poll$")).isEmpty());
}

TEST_F(OAuthSessionTest, ReportsBrokerRefusals)
{
    m_server.addFault(standin::Fault::serviceUnavailable(QStringLiteral("POST"), QStringLiteral("^/oauth/start$")));
    EXPECT_EQ(connectAndWait(m_server.origin())->description,
        QStringLiteral("Authorization service is not configured or unavailable."));

    // The user declines on the authorization page.
    m_approve = false;
    std::optional<PlatformError> result;
    m_session->connect(m_server.origin(), [&](const PlatformError &error) { result = error; });
    ASSERT_TRUE(testenv::waitFor([&] { return !m_server.pendingSignIns().isEmpty(); }));
    m_server.deny(m_server.pendingSignIns().first());
    ASSERT_TRUE(testenv::waitFor([&] { return result.has_value(); }, 10000));
    EXPECT_EQ(result->description, QStringLiteral("Authorization was denied, expired, or failed. Connect again."));

    // A token answer without its lifetime is not credentials.
    m_approve = true;
    m_server.addFault(standin::Fault::statusReply(QStringLiteral("POST"), QStringLiteral("^/oauth/poll$"), 200,
        "{\"access_token\":\"a\",\"refresh_token\":\"r\",\"expires_in\":0}"));
    EXPECT_EQ(connectAndWait(m_server.origin())->description,
        QStringLiteral("Authorization timed out or returned invalid credentials."));
    EXPECT_TRUE(stored().isEmpty());
}

TEST_F(OAuthSessionTest, DisconnectDuringPollingCancelsSilently)
{
    m_approve = false;
    bool completed = false;
    m_session->connect(m_server.origin(), [&](const PlatformError &) { completed = true; });
    ASSERT_TRUE(testenv::waitFor([&] { return !m_opened.isEmpty(); }));
    ASSERT_TRUE(testenv::waitFor(
        [&] { return !m_server.requests(QStringLiteral("POST"), QStringLiteral("^/oauth/poll$")).isEmpty(); }));

    // The approval arrives right after the user disconnected: the broker now answers 200, and nothing may
    // come of it.
    m_session->disconnect();
    EXPECT_EQ(jiratest::fetchPage(m_opened.first(), m_server.caFile()) / 100, 2);
    m_session->queue().drain();
    testenv::waitFor([] { return false; }, 500);
    EXPECT_FALSE(completed);
    EXPECT_TRUE(stored().isEmpty());
    EXPECT_FALSE(m_session->connected());
}

TEST_F(OAuthSessionTest, SecondConnectSupersedesTheFirst)
{
    m_approve = false;
    int firstCalls = 0;
    std::optional<PlatformError> second;
    m_session->connect(m_server.origin(), [&](const PlatformError &) { ++firstCalls; });
    ASSERT_TRUE(testenv::waitFor([&] { return m_opened.size() == 1; }));

    m_approve = true;
    m_session->connect(m_server.origin(), [&](const PlatformError &error) { second = error; });
    // The first attempt's page is approved too, late: it must still never complete or be saved.
    EXPECT_EQ(jiratest::fetchPage(m_opened.first(), m_server.caFile()) / 100, 2);
    ASSERT_TRUE(testenv::waitFor([&] { return second.has_value(); }, 20000));
    EXPECT_FALSE(second->isError()) << qPrintable(second->description);
    testenv::waitFor([] { return false; }, 500);
    EXPECT_EQ(firstCalls, 0);
    ASSERT_EQ(m_opened.size(), 2);
    EXPECT_EQ(stored().value(QStringLiteral("access_token")).typeId(), QMetaType::QString);
}

} // namespace
