// The whole application between a simulated tracker and the local Jira stand-in: switching issue brings up
// the log prompt at the tray icon, "Log now" puts exactly one marked worklog into Jira, "Later" puts none.

#include "app/appdelegate.h"
#include "app/menubarcontroller.h"
#include "app/promptlogic.h"
#include "app/ui/jirareviewwindowcontroller.h"
#include "app/ui/lognotification.h"
#include "app/ui/tasklogprompt.h"
#include "notificationserver.h"
#include "simtracker.h"
#include "source/stintwatchmonitor.h"
#include "standin/server.h"
#include "support/signedin.h"
#include "support/testenv.h"
#include "worklogs/engine.h"

#include <QCoreApplication>
#include <QDBusConnectionInterface>
#include <QJsonObject>
#include <QLabel>
#include <QPushButton>
#include <QSettings>
#include <QSignalSpy>

#include <gtest/gtest.h>

#include <memory>

namespace
{

QPushButton *button(QWidget *popup, const QString &text)
{
    for (QPushButton *candidate : popup->findChildren<QPushButton *>())
        if (candidate->text() == text && candidate->isVisible())
            return candidate;
    return nullptr;
}

QStringList labels(QWidget *popup)
{
    QStringList texts;
    for (QLabel *label : popup->findChildren<QLabel *>())
        if (label->isVisible())
            texts << label->text();
    return texts;
}

} // namespace

class PromptEndToEnd : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(signedin::startJira(m_server, {QStringLiteral("ABC-1"), QStringLiteral("ABC-2")}))
            << qPrintable(m_server.errorString());

        QSettings settings;
        settings.setValue(QStringLiteral("OnboardingCompleted"), true);
        settings.setValue(QStringLiteral("AskToLogOnIssueSwitch"), true);
        settings.setValue(QStringLiteral("PromptsAsNotifications"), false);
        JRSetWorkdayReminderEnabled(false);

        const QString source = testenv::freshDir(QStringLiteral("source"));
        m_tracker = std::make_unique<SimTracker>(source);
        m_tracker->create();
        m_delegate = std::make_unique<AppDelegate>(source, testenv::freshDir(QStringLiteral("store")), true);
        m_delegate->credentialService
            = QStringLiteral("app.hourloom.test.prompts.%1").arg(QCoreApplication::applicationPid());
        m_delegate->alert = [](const QString &title, const QString &detail) {
            ADD_FAILURE() << qPrintable(title) << ": " << qPrintable(detail);
        };
        ASSERT_TRUE(m_delegate->applicationDidFinishLaunching());

        // Signed in to the stand-in with one site.
        JiraReviewWindowController *review = m_delegate->reviewController();
        signedin::signIn(m_server, review);
        review->prepareConnection();
        ASSERT_TRUE(testenv::waitFor([review] { return review->selectedCloud() == signedin::kCloud; }, 30000))
            << qPrintable(review->statusText());
        EXPECT_TRUE(review->readyForPrompt());
        EXPECT_EQ(review->siteName(), QStringLiteral("example"));

        StintwatchMonitor *monitor = m_delegate->monitor();
        monitor->setRunningCheck([] { return true; });
        monitor->scan(true);
        ASSERT_TRUE(testenv::waitFor([monitor] { return monitor->scanCount() >= 1; }, 20000));
    }

    void TearDown() override
    {
        m_delegate.reset();
        m_tracker.reset();
        m_server.stop();
    }

    // Tracks ABC-1 for `seconds` (a heartbeat proves it live now), then switches to ABC-2; the prompt for
    // the ABC-1 session must open.
    void switchIssue(qint64 seconds = 79 * 60 + 30)
    {
        const QDateTime began = QDateTime::currentDateTime().addSecs(-seconds);
        m_tracker->setClock([began] { return began; });
        m_tracker->start(42, QStringLiteral("ABC-1 Fix the login"));
        m_tracker->setClock({});
        m_tracker->heartbeat();
        MenuBarController *menu = m_delegate->menuBar();
        ASSERT_TRUE(testenv::waitFor(
            [&] {
                return m_delegate->monitor()->liveObserved()
                    && menu->statusText().startsWith(QStringLiteral("Tracking · "));
            },
            20000))
            << qPrintable(menu->statusText());

        m_tracker->switchTo(43, QStringLiteral("ABC-2 Review the notes"));
        LogPromptCoordinator *prompts = m_delegate->prompts();
        ASSERT_TRUE(testenv::waitFor([prompts] { return prompts->promptVisible(); }, 60000))
            << "no prompt; Worklogs says: " << qPrintable(m_delegate->reviewController()->statusText());
    }

    QList<QJsonObject> markedWorklogs() const
    {
        QList<QJsonObject> marked;
        for (const char *issue : {"ABC-1", "ABC-2"})
            for (const QJsonValue &worklog : m_server.worklogs(QString::fromLatin1(issue), signedin::kAccount))
                if (!JRLogMarker(worklog.toObject().toVariantMap()).isEmpty())
                    marked << worklog.toObject();
        return marked;
    }

    int worklogPosts() const
    {
        int posts = 0;
        for (const standin::ReceivedRequest &request : m_server.requests())
            posts += request.method == QStringLiteral("POST") && request.path.endsWith(QStringLiteral("/worklog"));
        return posts;
    }

    standin::Server m_server;
    std::unique_ptr<SimTracker> m_tracker;
    std::unique_ptr<AppDelegate> m_delegate;
};

TEST_F(PromptEndToEnd, LogNowPostsTheEndedSessionOnce)
{
    switchIssue();
    QWidget *popup = m_delegate->promptPopup()->widget();
    const QStringList shown = labels(popup);
    EXPECT_TRUE(shown.contains(QStringLiteral("Log 1h 20m to ABC-1?"))) << qPrintable(shown.join(u'|'));
    EXPECT_TRUE(shown.contains(QStringLiteral("nothing yet"))) << qPrintable(shown.join(u'|'));
    EXPECT_TRUE(shown.contains(QStringLiteral("1 today"))) << qPrintable(shown.join(u'|'));
    EXPECT_TRUE(shown.contains(QStringLiteral("example"))) << qPrintable(shown.join(u'|'));
    EXPECT_EQ(worklogPosts(), 0) << "nothing is posted before \"Log now\"";

    QSignalSpy posted(m_delegate->prompts(), &LogPromptCoordinator::posted);
    QPushButton *logNow = button(popup, QStringLiteral("Log now"));
    ASSERT_NE(logNow, nullptr);
    logNow->click();
    ASSERT_TRUE(posted.count() > 0 || posted.wait(60000));
    EXPECT_TRUE(posted.at(0).at(0).toBool()) << qPrintable(m_delegate->reviewController()->statusText());
    EXPECT_EQ(posted.at(0).at(1).toString(), QStringLiteral("Logged 1h 20m to ABC-1"));

    const QList<QJsonObject> marked = markedWorklogs();
    ASSERT_EQ(marked.size(), 1);
    EXPECT_EQ(m_server.worklogs(QStringLiteral("ABC-1"), signedin::kAccount).size(), 1);
    EXPECT_EQ(marked.first().value(QStringLiteral("timeSpentSeconds")).toInt(), 80 * 60);
    EXPECT_EQ(worklogPosts(), 1);
    // The Worklogs controller knows the session is in Jira now.
    EXPECT_FALSE(m_delegate->reviewController()->posting());
}

TEST_F(PromptEndToEnd, LaterWritesNothing)
{
    switchIssue();
    QSignalSpy dismissed(m_delegate->prompts(), &LogPromptCoordinator::promptDismissed);
    QPushButton *later = button(m_delegate->promptPopup()->widget(), QStringLiteral("Later"));
    ASSERT_NE(later, nullptr);
    later->click();
    ASSERT_TRUE(dismissed.count() > 0 || dismissed.wait(10000));
    EXPECT_FALSE(m_delegate->promptPopup()->visible());

    // The tracker goes on; further scans and the prompt's own timer pass without writing anything.
    const int scans = m_delegate->monitor()->scanCount();
    m_tracker->heartbeat();
    ASSERT_TRUE(testenv::waitFor([&] { return m_delegate->monitor()->scanCount() > scans; }, 20000));
    EXPECT_FALSE(m_delegate->promptPopup()->visible()) << "the same session is not offered twice";
    EXPECT_EQ(worklogPosts(), 0);
    EXPECT_TRUE(markedWorklogs().isEmpty());
}

TEST_F(PromptEndToEnd, TheWorkdayReminderLeadsToWorklogs)
{
    if (QTime::currentTime() < QTime(0, 15))
        GTEST_SKIP() << "the tracked time would begin yesterday";
    switchIssue(9 * 60 + 30);
    QPushButton *later = button(m_delegate->promptPopup()->widget(), QStringLiteral("Later"));
    ASSERT_NE(later, nullptr);
    later->click();
    m_tracker->stop();
    // A stop the monitor saw happen is live, but it is not tracking: the reminder may come.
    ASSERT_TRUE(testenv::waitFor([&] { return m_delegate->monitor()->lastKind() == 2; }, 20000));

    JRSetWorkdayReminderEnabled(true);
    JRSetWorkdayWeekendsIncluded(true);
    JRSetWorkdayMinutes(0, 1);
    QSettings().remove(QStringLiteral("WorkdayReminderLastDay"));
    // The stop ends ABC-2 after seconds: too short to offer; wait until that offer is settled.
    ASSERT_TRUE(testenv::waitFor([&] { return !m_delegate->prompts()->hasPendingSwitch(); }, 20000));
    ASSERT_TRUE(testenv::waitFor(
        [&] {
            m_delegate->prompts()->checkWorkdayEnd();
            return m_delegate->promptPopup()->visible();
        },
        20000));
    QWidget *popup = m_delegate->promptPopup()->widget();
    EXPECT_TRUE(labels(popup).contains(QStringLiteral("10m not in Jira yet"))) << qPrintable(labels(popup).join(u'|'));
    ASSERT_NE(button(popup, QStringLiteral("Open Worklogs…")), nullptr);
    QPushButton *review = button(popup, QStringLiteral("Review…"));
    ASSERT_NE(review, nullptr);
    EXPECT_FALSE(m_delegate->reviewController()->isOpen());
    review->click();
    EXPECT_TRUE(m_delegate->reviewController()->isOpen());
    EXPECT_FALSE(m_delegate->promptPopup()->visible());
    EXPECT_EQ(worklogPosts(), 0) << "the reminder never posts";
}

// Chosen in Settings and offered by the desktop, the prompt comes as a notification instead, and its
// "Log now" action, invoked over D-Bus, posts exactly as the popup's button does.
TEST_F(PromptEndToEnd, TheNotificationsLogNowPostsOnce)
{
    NotificationServer server;
    if (!server.start())
        GTEST_SKIP() << "needs dunst, xvfb-run and a session bus (scripts/run-tests.sh)";
    QDBusConnectionInterface *bus = QDBusConnection::sessionBus().interface();
    ASSERT_TRUE(testenv::waitFor(
        [bus] { return bus->isServiceRegistered(QStringLiteral("org.freedesktop.Notifications")).value(); }, 30000));
    QSettings().setValue(QStringLiteral("PromptsAsNotifications"), true);

    switchIssue();
    LogNotificationSender *notification = m_delegate->promptNotification();
    ASSERT_NE(notification, nullptr);
    EXPECT_FALSE(m_delegate->promptPopup()->visible());
    ASSERT_TRUE(testenv::waitFor([notification] { return notification->notificationId() != 0; }, 30000));
    EXPECT_EQ(worklogPosts(), 0);

    QSignalSpy posted(m_delegate->prompts(), &LogPromptCoordinator::posted);
    QProcess context;
    context.start(QStringLiteral("dunstctl"), {QStringLiteral("context")});
    ASSERT_TRUE(context.waitForFinished(30000));
    ASSERT_TRUE(posted.count() > 0 || posted.wait(60000));
    EXPECT_EQ(posted.at(0).at(1).toString(), QStringLiteral("Logged 1h 20m to ABC-1"));
    QFile menu(server.menuFile); // what the notification offered
    ASSERT_TRUE(menu.open(QIODevice::ReadOnly));
    const QByteArray offered = menu.readAll();
    EXPECT_TRUE(offered.contains("#Log now") && offered.contains("#Later")) << offered.toStdString();
    EXPECT_EQ(markedWorklogs().size(), 1);
    EXPECT_EQ(worklogPosts(), 1);
    QSettings().setValue(QStringLiteral("PromptsAsNotifications"), false);
}
