#include "platform/wakenotifier.h"

#include "support/testenv.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>

#include <gtest/gtest.h>

namespace
{

TEST(WakeNotifierTest, FiresOnlyWhenTheMachineWakes)
{
    if (!QDBusConnection::sessionBus().isConnected())
        GTEST_SKIP() << "no session bus (run through scripts/run-tests.sh)";
    // A second connection plays logind on the session bus.
    QDBusConnection logind = QDBusConnection::connectToBus(QDBusConnection::SessionBus, QStringLiteral("logind"));
    ASSERT_TRUE(logind.registerService(QStringLiteral("org.freedesktop.login1")));

    WakeNotifier notifier(QDBusConnection::sessionBus(), nullptr);
    ASSERT_TRUE(notifier.isListening());
    int wakes = 0;
    QObject::connect(&notifier, &WakeNotifier::woke, &notifier, [&] { ++wakes; });

    auto send = [&](bool sleeping) {
        QDBusMessage signal = QDBusMessage::createSignal(QStringLiteral("/org/freedesktop/login1"),
            QStringLiteral("org.freedesktop.login1.Manager"), QStringLiteral("PrepareForSleep"));
        signal << sleeping;
        ASSERT_TRUE(logind.send(signal));
    };
    send(true);
    send(false);
    EXPECT_TRUE(testenv::waitFor([&] { return wakes == 1; }, 3000));
    QCoreApplication::processEvents();
    EXPECT_EQ(wakes, 1);
    logind.unregisterService(QStringLiteral("org.freedesktop.login1"));
    QDBusConnection::disconnectFromBus(QStringLiteral("logind"));
}

TEST(WakeNotifierTest, StaysSilentWithoutABus)
{
    WakeNotifier notifier(QDBusConnection(QStringLiteral("not-connected")), nullptr);
    EXPECT_FALSE(notifier.isListening());
}

} // namespace
