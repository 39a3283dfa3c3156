#include "app/ui/lognotification.h"
#include "notificationserver.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QFile>
#include <QProcess>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

namespace
{

TEST(LogNotification, SentWithBothActionsAndLogNowComesBack)
{
    NotificationServer server;
    if (!server.start())
        GTEST_SKIP() << "needs dunst, xvfb-run and a session bus (scripts/run-tests.sh)";
    QDBusConnectionInterface *bus = QDBusConnection::sessionBus().interface();
    QTRY_VERIFY_WITH_TIMEOUT(bus->isServiceRegistered(QStringLiteral("org.freedesktop.Notifications")), 30000);
    ASSERT_TRUE(LogNotificationSender::serverOffersActions());

    LogNotificationSender sender;
    int logNow = 0, later = 0;
    sender.primaryAction = [&] { ++logNow; };
    sender.later = [&] { ++later; };
    QSignalSpy sent(&sender, &LogNotificationSender::notificationSent);
    PromptContent content;
    content.title = QStringLiteral("Log 20m to ABC-1?");
    content.details = {{QStringLiteral("Comment"), QStringLiteral("a < b & c")}};
    content.primaryTitle = QStringLiteral("Log now");
    sender.show(content);
    EXPECT_TRUE(sender.visible());
    ASSERT_TRUE(sent.wait(30000));
    ASSERT_NE(sender.notificationId(), 0u);

    // dunstctl asks the server over D-Bus to open the notification's actions; the script picks "Log now".
    QProcess context;
    context.start(QStringLiteral("dunstctl"), {QStringLiteral("context")});
    ASSERT_TRUE(context.waitForFinished(30000));
    QTRY_COMPARE_WITH_TIMEOUT(logNow, 1, 30000);
    EXPECT_EQ(later, 0);
    EXPECT_FALSE(sender.visible());
    QFile menu(server.menuFile);
    ASSERT_TRUE(menu.open(QIODevice::ReadOnly));
    const QByteArray offered = menu.readAll();
    EXPECT_TRUE(offered.contains("#Log now")) << offered.toStdString();
    EXPECT_TRUE(offered.contains("#Later")) << offered.toStdString();
}

TEST(LogNotification, BodyAndActionsFollowThePrompt)
{
    PromptContent content;
    content.title = QStringLiteral("3h not in Jira yet");
    content.subtitle = QStringLiteral("2 worklogs · ABC-1 and ABC-2");
    content.primaryTitle = QStringLiteral("Review…");
    content.disabledReason = QStringLiteral("Jira is busy — try again in a moment");
    EXPECT_EQ(LogNotificationSender::actions(content), QStringList({QStringLiteral("later"), QStringLiteral("Later")}))
        << "no primary action while it may not be pressed";
    EXPECT_EQ(LogNotificationSender::body(content),
        QStringLiteral("2 worklogs · ABC-1 and ABC-2\nJira is busy — try again in a moment"));
    content.disabledReason.clear();
    content.details = {{QStringLiteral("Comment"), QStringLiteral("<b>")}};
    EXPECT_EQ(LogNotificationSender::actions(content).size(), 4);
    EXPECT_TRUE(LogNotificationSender::body(content).contains(QStringLiteral("Comment: &lt;b&gt;")));
}

} // namespace
