#include "platform/serialqueue.h"
#include "support/testenv.h"
#include "worklogs/namedfailure.h"

#include <QDir>
#include <QSettings>
#include <QStandardPaths>
#include <QThread>

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <vector>

TEST(SerialQueue, RunsWorkInOrderOnOneThreadOffTheCaller)
{
    SerialQueue queue(QStringLiteral("app.hourloom.Hourloom.test"));
    std::vector<int> order;
    std::atomic<int> running {0};
    std::atomic<bool> overlapped {false};
    QThread *seen = nullptr;
    for (int i = 0; i < 50; ++i) {
        queue.async([&, i] {
            if (running.fetch_add(1) != 0)
                overlapped = true;
            if (!seen)
                seen = QThread::currentThread();
            EXPECT_EQ(seen, QThread::currentThread());
            EXPECT_TRUE(queue.isCurrent());
            order.push_back(i);
            running.fetch_sub(1);
        });
    }
    queue.drain();
    ASSERT_EQ(order.size(), 50u);
    for (int i = 0; i < 50; ++i)
        EXPECT_EQ(order[i], i);
    EXPECT_FALSE(overlapped);
    EXPECT_NE(seen, QThread::currentThread());
    EXPECT_FALSE(queue.isCurrent());
}

TEST(SerialQueue, SyncPassesFailuresBackToTheCaller)
{
    SerialQueue queue(QStringLiteral("failing"));
    EXPECT_THROW(
        queue.sync([] { throw NamedFailure(QStringLiteral("JiraError"), QStringLiteral("no")); }), NamedFailure);
    int after = 0;
    queue.sync([&] { after = 1; });
    EXPECT_EQ(after, 1);
}

TEST(TestHarness, IsolatesHomeAndSettings)
{
    const QString home = testenv::home();
    EXPECT_TRUE(home.contains(QStringLiteral("hourloom-test-")));
    EXPECT_TRUE(QDir(home).exists());
    EXPECT_TRUE(QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation).startsWith(home));
    QSettings settings;
    EXPECT_EQ(settings.fileName(), home + QStringLiteral("/.config/Hourloom/Hourloom.conf"));
}

TEST(TestHarness, ScopedTimeZoneSwitchesLocalTime)
{
    const QDateTime instant = QDateTime::fromMSecsSinceEpoch(1774746000000LL, Qt::UTC); // 2026-03-29 01:00 UTC
    {
        testenv::ScopedTimeZone zone("Asia/Kolkata");
        EXPECT_EQ(instant.toLocalTime().offsetFromUtc(), 5 * 3600 + 1800);
    }
    {
        testenv::ScopedTimeZone zone("Europe/Berlin");
        EXPECT_EQ(instant.toLocalTime().offsetFromUtc(), 2 * 3600); // clocks went forward at 01:00 UTC
    }
}

#include "platform/endpoints.h"

TEST(Endpoints, DefaultsAreTheRealServicesAndTestHooksOverrideThem)
{
    EXPECT_EQ(endpoints::gatewayOrigin(), QStringLiteral("https://api.atlassian.com"));
    EXPECT_EQ(endpoints::authorizationHost(), QStringLiteral("auth.atlassian.com"));
    EXPECT_EQ(endpoints::rateServiceBase(), QStringLiteral("https://api.frankfurter.dev"));
    EXPECT_TRUE(endpoints::extraCAFile().isEmpty());
#ifdef HOURLOOM_TEST_HOOKS
    qputenv("HOURLOOM_TEST_GATEWAY", "https://127.0.0.1:9999/");
    EXPECT_EQ(endpoints::gatewayOrigin(), QStringLiteral("https://127.0.0.1:9999"));
    qputenv("HOURLOOM_TEST_GATEWAY", "");
    EXPECT_EQ(endpoints::gatewayOrigin(), QStringLiteral("https://api.atlassian.com"));
    qunsetenv("HOURLOOM_TEST_GATEWAY");
#endif
}

TEST(SerialQueue, DestructionRunsWorkAlreadyQueued)
{
    std::atomic<int> ran {0};
    {
        SerialQueue queue(QStringLiteral("closing"));
        for (int i = 0; i < 20; ++i)
            queue.async([&] {
                QThread::msleep(1);
                ++ran;
            });
    }
    EXPECT_EQ(ran.load(), 20);
}
