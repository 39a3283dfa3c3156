#include "app/settingsrules.h"
#include "app/ui/issuerulestable.h"
#include "app/ui/lognotification.h"
#include "app/ui/onboardingwindow.h"
#include "app/ui/settingswindow.h"
#include "app/ui/tasklogprompt.h"
#include "worklogs/issueassignments.h"

#include <QAbstractItemModelTester>
#include <QCheckBox>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSettings>
#include <QStandardPaths>
#include <QTableView>

#include <gtest/gtest.h>

namespace
{

QString snapshot(const QString &name)
{
    QDir().mkpath(QStringLiteral(HOURLOOM_SNAPSHOT_DIR));
    return QStringLiteral(HOURLOOM_SNAPSHOT_DIR "/") + name + QStringLiteral(".png");
}

TEST(SettingsRules, JiraStateTexts)
{
    EXPECT_EQ(HLJiraStateText(false, {QStringLiteral("Acme")}, true), QStringLiteral("Not connected"));
    EXPECT_EQ(HLJiraStateText(true, {QStringLiteral("Acme")}, true), QStringLiteral("Connected to Acme"));
    EXPECT_EQ(HLJiraStateText(true, {QStringLiteral("A"), QStringLiteral("B"), QStringLiteral("C")}, true),
        QStringLiteral("Connected to 3 sites"));
    EXPECT_EQ(HLJiraStateText(true, {}, false), QStringLiteral("Connected"));
    EXPECT_EQ(HLJiraButtonTitle(true), QStringLiteral("Disconnect"));
    EXPECT_EQ(HLJiraButtonTitle(false), QStringLiteral("Connect in Browser…"));
}

TEST(SettingsRules, ConnectionAndEndOfDayEnableRows)
{
    struct Case {
        bool connected, workday, titles, reminders, time;
    };
    for (const Case &c : {Case {false, true, false, false, false}, Case {true, false, true, true, false},
             Case {true, true, true, true, true}}) {
        const SettingsEnablement e = HLSettingsEnablement(c.connected, c.workday);
        EXPECT_EQ(e.fetchTitles, c.titles);
        EXPECT_EQ(e.reminders, c.reminders);
        EXPECT_EQ(e.workdayTime, c.time);
        EXPECT_EQ(e.fetchTitlesHelp.isEmpty(), c.connected);
        EXPECT_EQ(e.remindersHelp,
            c.connected ? QString() : QStringLiteral("Reminders need a Jira connection. Connect in the Jira pane."));
    }
    EXPECT_EQ(HLBusyRefusal(true), QStringLiteral("Jira is busy. Try again when it finishes."));
    EXPECT_TRUE(HLBusyRefusal(false).isEmpty());
}

TEST(SettingsRules, HourlyRateAcceptsNumbersOrBlank)
{
    struct Case {
        const char *text;
        bool accepted;
        const char *stored;
    };
    for (const Case &c :
        {Case {"", true, ""}, Case {"  ", true, ""}, Case {"25", true, "25"}, Case {" 25.50 ", true, "25.50"},
            Case {"abc", false, ""}, Case {"25$", false, ""}, Case {"-3", false, ""}, Case {"12345678", false, ""}}) {
        const HourlyRateCheck check = HLCheckHourlyRate(QString::fromUtf8(c.text));
        EXPECT_EQ(check.accepted, c.accepted) << c.text;
        EXPECT_EQ(check.value, QString::fromUtf8(c.stored)) << c.text;
        EXPECT_EQ(check.message.isEmpty(), c.accepted) << c.text;
    }
}

TEST(SettingsRules, SignInServiceApplyRules)
{
    SignInServiceChoice choice(false, QString(), QStringLiteral("https://signin.hourloom.test"));
    EXPECT_EQ(choice.builtInTitle(), QStringLiteral("Hourloom (signin.hourloom.test)"));
    EXPECT_FALSE(choice.applyEnabled()) << "nothing pending";
    choice.select(true, QStringLiteral("https://team.example.com/path"));
    EXPECT_TRUE(choice.applyEnabled());
    EXPECT_EQ(choice.apply(true).message, QStringLiteral("Wait for worklogs to finish posting."));
    const auto bad = choice.apply(false);
    EXPECT_FALSE(bad.saved);
    EXPECT_EQ(bad.message, QStringLiteral("Enter an HTTPS address without a path, such as https://signin.example.com"));
    choice.select(true, QStringLiteral("https://Team.example.com/"));
    const auto good = choice.apply(false);
    EXPECT_TRUE(good.saved);
    EXPECT_EQ(good.origin, QStringLiteral("https://team.example.com"));
    EXPECT_EQ(good.message, QStringLiteral("Saved. Connect Jira again in the Jira pane."));
    choice.markSaved(true, good.origin);
    EXPECT_FALSE(choice.applyEnabled());
    choice.select(false, QString());
    EXPECT_TRUE(choice.applyEnabled()) << "back to the built-in service";

    SignInServiceChoice none(false, QString(), QString());
    EXPECT_FALSE(none.hasBuiltIn());
    none.select(false, QString());
    EXPECT_TRUE(none.pendingCustom()) << "without a built-in service only a custom one can be chosen";
}

class RulesFixture : public ::testing::Test
{
protected:
    void SetUp() override
    {
        QSettings().clear();
        store = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + QStringLiteral("/Hourloom");
        QDir().mkpath(store);
        IssueAssignments assignments(store);
        for (const auto &[description, issue] : {std::pair {"Standup", "ABC-1"}, std::pair {"Code review", "ABC-2"}}) {
            const QVariantMap s = {{QStringLiteral("description"), QString::fromUtf8(description)},
                {QStringLiteral("issue"), QStringLiteral("Unassigned")}, {QStringLiteral("local_id"), 1},
                {QStringLiteral("start_ms"), 1}, {QStringLiteral("project"), 1}};
            assignments.saveSession(
                s, QStringLiteral("https://acme.atlassian.net"), QString::fromUtf8(issue), QString(), true, false);
        }
    }
    QString store;
};

TEST_F(RulesFixture, RulesTableModelEditsThroughTheOwner)
{
    IssueRulesTable table;
    new QAbstractItemModelTester(table.model(), QAbstractItemModelTester::FailureReportingMode::Fatal, &table);
    QList<QPair<QString, bool>> combines;
    QStringList issues;
    table.changeIssue = [&](const QVariantMap &, const QString &issue) {
        issues << issue;
        return true;
    };
    table.changeCombine = [&](const QVariantMap &, bool on) {
        combines << qMakePair(QString(), on);
        return true;
    };
    table.siteName = [](const QString &site) {
        return site == QLatin1String("https://acme.atlassian.net") ? QStringLiteral("Acme") : QString();
    };
    IssueAssignments assignments(store);
    table.setRules(assignments.rules());
    IssueRulesModel *model = table.model();
    ASSERT_EQ(model->rowCount(), 2);
    EXPECT_EQ(model->headerData(3, Qt::Horizontal).toString(), QStringLiteral("Site"));
    EXPECT_EQ(model->data(model->index(0, 3)).toString(), QStringLiteral("Acme"));
    EXPECT_EQ(model->data(model->index(0, 1), Qt::ToolTipRole).toString(),
        QStringLiteral("Double-click a rule to change its issue. Sessions with this description post there."));
    EXPECT_FALSE(model->setData(model->index(0, 1), QStringLiteral("not an issue"))) << "refused input";
    EXPECT_TRUE(model->setData(model->index(0, 1), QStringLiteral("https://acme.atlassian.net/browse/XYZ-9")));
    EXPECT_EQ(issues, QStringList {QStringLiteral("XYZ-9")});
    EXPECT_EQ(model->data(model->index(0, 1)).toString(), QStringLiteral("XYZ-9"));
    EXPECT_TRUE(model->setData(model->index(1, 2), Qt::Checked, Qt::CheckStateRole));
    ASSERT_EQ(combines.size(), 1);
    EXPECT_TRUE(combines.first().second);

    QString asked;
    QVariantMap deleted;
    table.confirm = [&](const QString &question, const QString &) {
        asked = question;
        return true;
    };
    table.deleteRule = [&](const QVariantMap &rule) { deleted = rule; };
    table.view()->selectRow(1);
    table.deleteSelectedRule();
    EXPECT_EQ(asked, QStringLiteral("Delete the rule for “%1”?").arg(model->data(model->index(1, 0)).toString()));
    EXPECT_FALSE(deleted.isEmpty());
}

TEST_F(RulesFixture, SettingsPanesSnapshotsAndRules)
{
    SettingsWindow window(store, nullptr);
    window.confirm = [](const QString &, const QString &) { return true; };
    window.siteName = [](const QString &) { return QStringLiteral("Acme"); };
    window.setConnection(false, {}, false);
    window.show();
    EXPECT_EQ(window.currentPane(), QStringLiteral("general"));
    const auto titles = window.findChild<QCheckBox *>(QStringLiteral("FetchIssueTitles"));
    ASSERT_NE(titles, nullptr);
    EXPECT_FALSE(titles->isEnabled());
    window.setConnection(true, {QStringLiteral("Acme")});
    EXPECT_TRUE(titles->isEnabled());
    EXPECT_EQ(window.findChild<QLabel *>(QStringLiteral("accountState"))->text(), QStringLiteral("Connected to Acme"));

    QList<int> heights;
    for (const QString &pane : SettingsWindow::paneIdentifiers()) {
        window.showPane(pane);
        QCoreApplication::processEvents();
        heights << window.height();
        EXPECT_TRUE(window.writeSnapshot(snapshot(QStringLiteral("settings-") + pane)));
    }
    EXPECT_NE(heights.at(0), heights.at(1)) << "the window fits its height to the pane";

    // Busy: the combine checkbox is restored with the message.
    auto *combine = window.findChild<QCheckBox *>(QStringLiteral("CombineDailyByIssue"));
    const bool before = combine->isChecked();
    window.setBusy(true);
    combine->click();
    EXPECT_EQ(combine->isChecked(), before);
    EXPECT_EQ(QSettings().value(QStringLiteral("CombineDailyByIssue"), before).toBool(), before);
    window.setBusy(false);
    combine->click();
    EXPECT_NE(combine->isChecked(), before);

    // A bad rate keeps the old value.
    auto *rate = window.findChild<QLineEdit *>(QStringLiteral("HourlyRate"));
    rate->setText(QStringLiteral("25.50"));
    Q_EMIT rate->editingFinished();
    rate->setText(QStringLiteral("lots"));
    Q_EMIT rate->editingFinished();
    EXPECT_EQ(QSettings().value(QStringLiteral("HourlyRate")).toString(), QStringLiteral("25.50"));
    EXPECT_EQ(rate->text(), QStringLiteral("25.50"));

    // A custom sign-in service: Apply only with a pending change, then the callback signs Jira out.
    int signedOut = 0;
    window.signInServiceChanged = [&] { ++signedOut; };
    auto *custom = window.findChild<QLineEdit *>(QStringLiteral("customServer"));
    auto *apply = window.findChild<QPushButton *>(QStringLiteral("applySignIn"));
    custom->setText(QStringLiteral("https://signin.team.test"));
    Q_EMIT custom->textEdited(custom->text());
    ASSERT_TRUE(apply->isEnabled());
    apply->click();
    EXPECT_EQ(signedOut, 1);
    EXPECT_FALSE(apply->isEnabled());
    EXPECT_EQ(
        QSettings().value(QStringLiteral("JiraBrokerOrigin")).toString(), QStringLiteral("https://signin.team.test"));
}

TEST(Onboarding, StepsTextsAndCompletion)
{
    QSettings().clear();
    EXPECT_EQ(OnboardingWindowController::sourceStepText(false, false, QDir::homePath() + QStringLiteral("/x")),
        QStringLiteral("Hourloom reads your local Stintwatch database to prepare worklogs. Pick the folder that "
                       "contains Stintwatch.db. Your tracking history stays on this computer."));
    EXPECT_EQ(OnboardingWindowController::sourceStepText(
                  false, true, QDir::homePath() + QStringLiteral("/.local/share/Stintwatch")),
        QStringLiteral("Stintwatch keeps its database at ~/.local/share/Stintwatch. The picker opens there; click "
                       "Choose to let Hourloom read it. Your tracking history stays on this computer."));
    EXPECT_TRUE(OnboardingWindowController::sourceStepText(true, false, QStringLiteral("/data"))
                    .contains(QStringLiteral("read it. The system asks because")));

    OnboardingWindowController window;
    int chooses = 0, connects = 0, finished = 0;
    window.chooseSourceRequested = [&] { ++chooses; };
    window.connectJiraRequested = [&] { ++connects; };
    window.didFinish = [&] { ++finished; };
    window.show();
    EXPECT_TRUE(window.writeSnapshot(snapshot(QStringLiteral("onboarding-1"))));
    window.primaryButton()->click();
    EXPECT_EQ(window.step(), 1);
    window.primaryButton()->click();
    EXPECT_EQ(chooses, 1);
    EXPECT_EQ(window.step(), 1) << "Continue waits for a connected folder";
    window.sourceDidChange(true);
    EXPECT_TRUE(window.writeSnapshot(snapshot(QStringLiteral("onboarding-2"))));
    window.primaryButton()->click();
    EXPECT_EQ(window.step(), 2);
    EXPECT_TRUE(window.writeSnapshot(snapshot(QStringLiteral("onboarding-3"))));
    window.primaryButton()->click();
    EXPECT_EQ(connects, 1);
    EXPECT_FALSE(OnboardingWindowController::completed());
    window.secondaryButton()->click(); // "Set Up Later"
    EXPECT_TRUE(OnboardingWindowController::completed());
    EXPECT_EQ(finished, 1);

    QSettings().clear();
    OnboardingWindowController closed;
    closed.didFinish = [&] { ++finished; };
    closed.show();
    closed.close();
    EXPECT_EQ(finished, 2);
    EXPECT_FALSE(OnboardingWindowController::completed()) << "closing is not finishing";
}

TEST(PromptPopup, PlacementAndSnapshot)
{
    const QRect screen(0, 0, 1920, 1080);
    const QSize size(340, 200);
    EXPECT_EQ(TaskLogPromptController::placement({}, size, screen), QPoint(1920 - 340 - 8, 8)) << "panel corner";
    EXPECT_EQ(TaskLogPromptController::placement(QRect(1800, 0, 24, 24), size, screen), QPoint(1920 - 340 - 8, 32))
        << "below a top-panel icon, kept on screen";
    EXPECT_EQ(TaskLogPromptController::placement(QRect(600, 1056, 24, 24), size, screen), QPoint(441, 1056 - 200 - 8))
        << "above a bottom-panel icon";

    TaskLogPromptController prompt;
    int pressed = 0;
    prompt.primaryAction = [&] { ++pressed; };
    PromptContent content;
    content.title = QStringLiteral("Log 1h 20m to ABC-12?");
    content.details = {{QStringLiteral("Already in Jira"), QStringLiteral("nothing yet")},
        {QStringLiteral("Sessions"), QStringLiteral("2 today")},
        {QStringLiteral("Comment"), QStringLiteral("Fix the login page")},
        {QStringLiteral("Site"), QStringLiteral("Acme")}};
    content.notice = QStringLiteral("Jira may already have this time, logged by hand.");
    content.primaryTitle = QStringLiteral("Log now");
    prompt.show(content);
    EXPECT_TRUE(prompt.visible());
    EXPECT_TRUE(prompt.writeSnapshot(snapshot(QStringLiteral("log-prompt"))));
    const auto buttons = prompt.widget()->findChildren<QPushButton *>();
    const auto later = std::find_if(
        buttons.begin(), buttons.end(), [](QPushButton *b) { return b->text() == QStringLiteral("Later"); });
    ASSERT_NE(later, buttons.end());
    EXPECT_EQ((*later)->toolTip(),
        QStringLiteral("Dismiss this reminder. Nothing is written and the worklog stays available in Worklogs."));
    const auto log = std::find_if(
        buttons.begin(), buttons.end(), [](QPushButton *b) { return b->text() == QStringLiteral("Log now"); });
    ASSERT_NE(log, buttons.end());
    (*log)->click();
    EXPECT_EQ(pressed, 1);
    prompt.dismiss();
    EXPECT_FALSE(prompt.visible());
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
