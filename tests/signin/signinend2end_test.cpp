#include "jira/jiraclient.h"
#include "jira/keychainstore.h"
#include "signinfixture.h"
#include "support/testenv.h"

#include <QDateTime>
#include <QUuid>

#include <gtest/gtest.h>

#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace
{

using namespace signintest;

enum class Deployment { OneInstance, TwoInstancesWithRedis };

// Shows the authorization page by calling back the test.
class CallbackOpener : public UrlOpener
{
public:
    std::function<void(const QUrl &)> onOpen;
    void open(const QUrl &url) override { onOpen(url); }
};

// The app's own connect flow against the real service: the app starts the sign-in, a browser approves it at
// the emulated Atlassian and is sent on to the service's callback and then to the app's loopback listener; the
// app polls, keeps the tokens in the real secret store and uses them at the gateway.
class SigninEndToEndTest : public SigninTest, public ::testing::WithParamInterface<Deployment>
{
protected:
    void SetUp() override
    {
        SigninTest::SetUp();
        if (GetParam() == Deployment::TwoInstancesWithRedis && !m_redis.start())
            GTEST_SKIP() << "redis-server is not installed (scripts/install-deps.sh installs it)";
        qputenv("HOURLOOM_TEST_CA_FILE", caFile().toLocal8Bit());
        qputenv("HOURLOOM_TEST_GATEWAY", m_gateway.origin().toUtf8());
        qputenv("HOURLOOM_TEST_AUTH_HOST", "127.0.0.1");
        m_credentials
            = QStringLiteral("app.hourloom.Hourloom.test.") + QUuid::createUuid().toString(QUuid::WithoutBraces);
        m_client = std::make_unique<JiraClient>(m_credentials);
        m_client->session().setUrlOpener(&m_browser);
        m_browser.onOpen = [this](const QUrl &url) {
            std::lock_guard lock(m_mutex);
            m_browsers.emplace_back([this, url] {
                const Visit visit = browse(url.toString(), caFile());
                std::lock_guard inner(m_mutex);
                m_visits.push_back(visit);
            });
        };
    }
    void TearDown() override
    {
        {
            std::lock_guard lock(m_mutex);
            for (std::thread &browser : m_browsers)
                browser.join();
        }
        m_client.reset();
        KeychainStore(m_credentials, QStringLiteral("oauth")).remove();
        for (const char *name : {"HOURLOOM_TEST_CA_FILE", "HOURLOOM_TEST_GATEWAY", "HOURLOOM_TEST_AUTH_HOST"})
            qunsetenv(name);
        SigninTest::TearDown();
    }

    RedisProcess m_redis;
    QString m_credentials;
    CallbackOpener m_browser;
    std::unique_ptr<JiraClient> m_client;
    std::mutex m_mutex;
    std::vector<std::thread> m_browsers;
    std::vector<Visit> m_visits;
};

TEST_P(SigninEndToEndTest, ConnectsThroughTheServiceAndPostsAWorklog)
{
    ServiceProcess *entry = nullptr;
    ServiceProcess *callback = nullptr;
    if (GetParam() == Deployment::OneInstance) {
        entry = callback = &startService();
    } else {
        // The app talks to the first instance; the browser's callback lands at the second.
        const std::map<std::string, std::string> shared {{"store", m_redis.url().toStdString()}};
        entry = &startService(shared, 0, m_ports[1]);
        callback = &startService(shared, 1, m_ports[1]);
    }

    std::optional<PlatformError> result;
    m_client->connect(entry->origin(), [&](const PlatformError &error) { result = error; });
    ASSERT_TRUE(testenv::waitFor([&] { return result.has_value(); }, 60000));
    ASSERT_FALSE(result->isError()) << qPrintable(result->description);

    {
        std::lock_guard lock(m_mutex);
        ASSERT_EQ(m_visits.size(), 1u);
        const Visit &visit = m_visits.front();
        // Atlassian -> the service's callback -> the app's own listener, which showed the closing page.
        ASSERT_EQ(visit.urls.size(), 3) << visit.urls.join(QLatin1Char(' ')).toStdString();
        EXPECT_TRUE(visit.urls[1].startsWith(callback->origin() + QStringLiteral("/oauth/callback?")));
        EXPECT_TRUE(visit.urls[2].startsWith(QStringLiteral("http://127.0.0.1:")));
        EXPECT_NE(visit.last.body.find("You can return to Hourloom"), std::string::npos);
    }
    EXPECT_TRUE(entry->log().contains("\"bound\":\"yes\""));

    const QVariantMap record = KeychainStore(m_credentials, QStringLiteral("oauth")).load();
    EXPECT_EQ(record.value(QStringLiteral("broker")).toString(), entry->origin());
    EXPECT_TRUE(m_atlassian->liveRefreshTokens().contains(record.value(QStringLiteral("refresh_token")).toString()));

    QVariantList sites;
    QVariantMap created;
    const QVariantMap payload {{QStringLiteral("started"), QStringLiteral("2026-03-02T09:00:00.000+0100")},
        {QStringLiteral("timeSpentSeconds"), 3600}};
    m_client->queue().sync([&] {
        sites = m_client->resources();
        created = m_client->post(payload, QStringLiteral("ED-1"), QString::fromLatin1(kCloud), QStringLiteral("auto"));
    });
    ASSERT_EQ(sites.size(), 1);
    EXPECT_EQ(sites[0].toMap().value(QStringLiteral("id")).toString(), QString::fromLatin1(kCloud));
    EXPECT_FALSE(created.value(QStringLiteral("id")).toString().isEmpty());
    EXPECT_EQ(m_gateway.worklogCount(QStringLiteral("ED-1")), 1);

    // An access token about to expire is refreshed through the same service; the rotated refresh token is stored.
    QVariantMap expiring = record;
    expiring.insert(QStringLiteral("expires_at"), double(QDateTime::currentMSecsSinceEpoch()) / 1000.0);
    QString token;
    m_client->queue().sync([&] {
        m_client->session().save(expiring);
        token = m_client->access();
    });
    EXPECT_NE(token, record.value(QStringLiteral("access_token")).toString());
    const QVariantMap refreshed = KeychainStore(m_credentials, QStringLiteral("oauth")).load();
    EXPECT_EQ(
        m_atlassian->liveRefreshTokens(), QStringList {refreshed.value(QStringLiteral("refresh_token")).toString()});
    m_client->queue().sync([&] { sites = m_client->resources(); });
    EXPECT_EQ(sites.size(), 1);

    // Nothing the sign-in handled reached either service's log.
    entry->stop();
    callback->stop();
    expectNoSecretIn(entry->log());
    expectNoSecretIn(callback->log());
}

INSTANTIATE_TEST_SUITE_P(Deployments, SigninEndToEndTest,
    ::testing::Values(Deployment::OneInstance, Deployment::TwoInstancesWithRedis),
    [](const ::testing::TestParamInfo<Deployment> &info) {
        return info.param == Deployment::OneInstance ? std::string("OneInstance")
                                                     : std::string("TwoInstancesWithRedis");
    });

} // namespace
