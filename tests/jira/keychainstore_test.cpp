// Runs against the real Secret Service that scripts/run-tests.sh starts (a private D-Bus session with an
// unlocked GNOME Keyring).
#include "jira/keychainstore.h"

#include <QEventLoop>
#include <QUuid>

#include "worklogs/namedfailure.h"

#include <gtest/gtest.h>

#include <qt6keychain/keychain.h>

#include <cstdlib>
#include <thread>

namespace
{

class KeychainStoreTest : public ::testing::Test
{
protected:
    void SetUp() override { qunsetenv("HOURLOOM_TEST_NO_KEYCHAIN"); }
    void TearDown() override
    {
        qunsetenv("HOURLOOM_TEST_NO_KEYCHAIN");
        m_store.remove();
    }

    // A service name of its own per test, so tests never see each other's items.
    KeychainStore m_store {
        QStringLiteral("app.hourloom.Hourloom.test.") + QUuid::createUuid().toString(QUuid::WithoutBraces),
        QStringLiteral("oauth")};
};

TEST_F(KeychainStoreTest, SavesReplacesAndRemovesTheRecord)
{
    EXPECT_TRUE(m_store.load().isEmpty());
    m_store.remove(); // removing a missing item is no failure

    const QVariantMap first {{QStringLiteral("access_token"), QStringLiteral("a1")},
        {QStringLiteral("expires_at"), 1.7e9}, {QStringLiteral("scope"), QStringLiteral("read:jira-work")}};
    m_store.save(first);
    EXPECT_EQ(m_store.load(), first);

    const QVariantMap second {{QStringLiteral("access_token"), QStringLiteral("a2")}};
    m_store.save(second);
    EXPECT_EQ(m_store.load(), second);

    // Another store object for the same item sees the same record: it lives in the Secret Service.
    EXPECT_EQ(KeychainStore(m_store.service(), m_store.account()).load(), second);

    m_store.remove();
    EXPECT_TRUE(m_store.load().isEmpty());
}

TEST_F(KeychainStoreTest, DamagedItemReadsAsNotConnected)
{
    for (const QByteArray &damaged : {QByteArray("{\"access_token\":"), QByteArray("[\"a\"]"), QByteArray("")}) {
        KeychainStore::onStoreThread([&] {
            QKeychain::WritePasswordJob job(m_store.service());
            job.setAutoDelete(false);
            job.setKey(m_store.account());
            job.setBinaryData(damaged);
            QEventLoop loop;
            QObject::connect(&job, &QKeychain::Job::finished, &loop, &QEventLoop::quit);
            job.start();
            loop.exec();
            ASSERT_EQ(job.error(), QKeychain::NoError) << qPrintable(job.errorString());
        });
        EXPECT_TRUE(m_store.load().isEmpty()) << damaged.constData();
    }
}

TEST_F(KeychainStoreTest, OnlyTheExactTextOneSwitchesTheStoreOff)
{
    const QVariantMap record {{QStringLiteral("access_token"), QStringLiteral("kept")}};
    m_store.save(record);

    qputenv("HOURLOOM_TEST_NO_KEYCHAIN", "1");
    EXPECT_TRUE(m_store.load().isEmpty());
    m_store.save({{QStringLiteral("access_token"), QStringLiteral("ignored")}});
    m_store.remove();

    for (const char *value : {"11", "true", ""}) {
        qputenv("HOURLOOM_TEST_NO_KEYCHAIN", value);
        EXPECT_EQ(m_store.load(), record) << value;
    }
}

TEST_F(KeychainStoreTest, WorksFromAnyThread)
{
    const QVariantMap record {{QStringLiteral("access_token"), QStringLiteral("threaded")}};
    QVariantMap seen;
    std::thread writer([&] {
        try {
            m_store.save(record);
            seen = m_store.load();
        } catch (const NamedFailure &failure) {
            seen = {{QStringLiteral("failure"), failure.reason()}};
        }
    });
    writer.join();
    EXPECT_EQ(seen, record);
    EXPECT_EQ(m_store.load(), record);
}

} // namespace

namespace
{

// A child process whose session bus does not exist: the store cannot be asked at all, which is not "not found".
TEST(KeychainStoreUnavailable, ReportsAStoreThatCannotBeReached)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const QByteArray bus = qgetenv("DBUS_SESSION_BUS_ADDRESS");
    qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/hourloom-bus");
    EXPECT_EXIT(
        {
            try {
                KeychainStore(QStringLiteral("app.hourloom.Hourloom.test.unreachable"), QStringLiteral("oauth")).load();
            } catch (const NamedFailure &failure) {
                std::_Exit(
                    failure.reason() == QStringLiteral("Unable to read Jira credentials from Keychain.") ? 0 : 1);
            }
            std::_Exit(2);
        },
        ::testing::ExitedWithCode(0), "");
    qputenv("DBUS_SESSION_BUS_ADDRESS", bus);
}

} // namespace
