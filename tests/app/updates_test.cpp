#include "app/appdelegate.h"
#include "app/ui/jirareviewwindowcontroller.h"
#include "app/ui/onboardingwindow.h"
#include "app/ui/reviewmodel.h"
#include "app/ui/settingswindow.h"
#include "app/updatecontroller.h"
#include "simtracker.h"
#include "source/stintwatchmonitor.h"
#include "standin/server.h"
#include "support/signedin.h"
#include "support/testenv.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QLabel>
#include <QPointer>
#include <QTreeView>

#include <gtest/gtest.h>

namespace
{

using namespace signedin;

// Each test keeps its credentials apart: tests run side by side on one secret store.
QString credentialService()
{
    const testing::TestInfo *test = testing::UnitTest::GetInstance()->current_test_info();
    return QStringLiteral("app.hourloom.test.app.%1.%2")
        .arg(QString::fromLatin1(test->name()))
        .arg(QCoreApplication::applicationPid());
}

} // namespace

// An installed update restarts the program, but never in the middle of a posting run: the shell holds the
// relaunch while Worklogs posts and lets it go once the run has ended.
TEST(AppUpdates, RelaunchIsHeldWhileWorklogsArePosting)
{
    standin::Server server;
    ASSERT_TRUE(startJira(server, {QStringLiteral("ABC-2")}));

    // Yesterday's two sessions on one issue, as the tracker recorded them.
    SimTracker tracker(testenv::freshDir(QStringLiteral("source")));
    const QDate day = QDate::currentDate().addDays(-1);
    QDateTime now(day, QTime(9, 0));
    tracker.setClock([&now] { return now; });
    tracker.create();
    tracker.start(1, QStringLiteral("ABC-2 Payment retry backoff"));
    now = now.addSecs(3600);
    tracker.stop();
    now = now.addSecs(1800);
    tracker.start(1, QStringLiteral("ABC-2 Payment retry backoff"));
    now = now.addSecs(1800);
    tracker.stop();

    AppDelegate delegate(tracker.folder(), testenv::freshDir(QStringLiteral("store")));
    delegate.alert = [](const QString &, const QString &) {};
    delegate.credentialService = credentialService();
    delegate.showOnboarding = [] {};
    ASSERT_TRUE(delegate.applicationDidFinishLaunching());
    JiraReviewWindowController *review = delegate.reviewController();
    signIn(server, review);

    delegate.monitor()->scan(true);
    ASSERT_TRUE(testenv::waitFor([&] { return delegate.activityCount() == 2; }, 20000));
    review->setReviewDay(day);
    delegate.jira();
    review->prepareConnection();
    ASSERT_TRUE(testenv::waitFor([&] { return review->selectedCloud() == kCloud; }, 30000))
        << qPrintable(review->statusText());
    review->checkJira();
    ASSERT_TRUE(testenv::waitFor([&] { return !review->busy(); }, 30000)) << qPrintable(review->statusText());
    ASSERT_TRUE(review->statusText().startsWith(QStringLiteral("Checked"))) << qPrintable(review->statusText());
    ASSERT_EQ(review->selectedCloud(), kCloud);
    auto *model = qobject_cast<ReviewModel *>(review->tree()->model());
    for (int i = 0; i < model->rows().size(); ++i) {
        const QModelIndex box = model->indexOfRow(i, ReviewModel::IncludeColumn);
        if (box.flags() & Qt::ItemIsUserCheckable)
            model->setData(box, Qt::Checked, Qt::CheckStateRole);
    }
    review->confirmPost = [](const QString &, const QString &) { return true; };

    UpdateController *updates = delegate.updateController();
    ASSERT_NE(updates, nullptr);
    int relaunches = 0;
    updates->relaunch = [&relaunches] { ++relaunches; };

    review->post();
    ASSERT_TRUE(review->posting()) << qPrintable(review->statusText());
    updates->relaunchAfterInstall();
    EXPECT_TRUE(updates->relaunchHeld());
    EXPECT_EQ(relaunches, 0);

    ASSERT_TRUE(testenv::waitFor([&] { return !review->posting(); }, 30000));
    EXPECT_EQ(review->statusText(), QStringLiteral("Posted 2 worklogs."));
    EXPECT_EQ(relaunches, 1);
    EXPECT_FALSE(updates->relaunchHeld());

    // Without a posting run an installed update relaunches at once.
    updates->relaunchAfterInstall();
    EXPECT_EQ(relaunches, 2);
    review->disconnectJira();
    server.stop();
}

// Set-up ends by itself once Jira is connected from its last step, and Settings shows the connection.
TEST(AppUpdates, OnboardingFinishesAndSettingsFollowOnceJiraIsConnected)
{
    standin::Server server;
    ASSERT_TRUE(startJira(server, {QStringLiteral("ABC-2")}));
    OnboardingWindowController::setCompleted(false);
    AppDelegate delegate(testenv::freshDir(QStringLiteral("source")), testenv::freshDir(QStringLiteral("store")));
    delegate.alert = [](const QString &, const QString &) {};
    delegate.credentialService = credentialService();
    ASSERT_TRUE(delegate.applicationDidFinishLaunching());
    JiraReviewWindowController *review = delegate.reviewController();
    ASSERT_NE(delegate.onboardingWindow(), nullptr);
    delegate.onboardingWindow()->setStep(2);
    delegate.settings();
    auto *account = delegate.settingsWindow()->findChild<QLabel *>(QStringLiteral("accountState"));
    ASSERT_NE(account, nullptr);
    EXPECT_EQ(account->text(), QStringLiteral("Not connected"));

    signIn(server, review);
    review->prepareConnection();
    QPointer<OnboardingWindowController> onboarding = delegate.onboardingWindow();
    EXPECT_TRUE(testenv::waitFor([&] { return OnboardingWindowController::completed(); }, 30000))
        << qPrintable(review->statusText());
    EXPECT_TRUE(!onboarding || !onboarding->isVisible());
    EXPECT_EQ(account->text(), QStringLiteral("Connected to example"));
    review->disconnectJira();
    EXPECT_EQ(account->text(), QStringLiteral("Not connected"));
    server.stop();
}
