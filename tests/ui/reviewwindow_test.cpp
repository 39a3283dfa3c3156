#include "app/ui/reviewview.h"
#include "app/ui/sessioneditor.h"
#include "app/ui/worklogpicker.h"

#include "jira/jiraclient.h"
#include "support/testenv.h"
#include "uifixture.h"
#include "worklogs/engine.h"

#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QFile>
#include <QHeaderView>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMainWindow>
#include <QMenu>
#include <QPushButton>
#include <QRadioButton>
#include <QSettings>
#include <QSignalSpy>
#include <QTest>
#include <QTreeView>

namespace
{

const QDate kDay(2026, 3, 2);

QAction *actionNamed(QMenu *menu, const QString &text)
{
    for (QAction *action : menu->actions())
        if (action->text() == text)
            return action;
    return nullptr;
}

QString footer(JiraReviewWindowController &controller)
{
    return controller.window()->findChild<QLabel *>(QStringLiteral("footer"))->text();
}

QPushButton *postButton(JiraReviewWindowController &controller)
{
    return controller.window()->findChild<QPushButton *>(QStringLiteral("post"));
}

} // namespace

class ReviewWindowTest : public WindowFixture
{
protected:
    void open()
    {
        m_controller->setReviewDay(kDay);
        openChecked(uitest::realisticDay(kDay));
    }

    struct LiveDay {
        QVariantList sessions;
        QVariantMap running;
        qint64 start = 0;
    };

    // The realistic day with a session running since 17:00 (ten minutes so far), opened and checked.
    LiveDay openWithRunningSession()
    {
        LiveDay day {uitest::realisticDay(kDay),
            uitest::session(
                QStringLiteral("ABC-3"), QDateTime(kDay, QTime(17, 0)), 0, QStringLiteral("Live work"), 50, true)};
        day.start = day.running.value(QStringLiteral("start_ms")).toLongLong();
        day.running.insert(QStringLiteral("end_ms"), day.start + 600'000);
        day.sessions.append(day.running);
        m_controller->setReviewDay(kDay);
        openChecked(day.sessions);
        return day;
    }

    // The next live update: the running session has reached twenty minutes.
    void grow(LiveDay &day)
    {
        day.running.insert(QStringLiteral("end_ms"), day.start + 1'200'000);
        day.sessions.last() = day.running;
        m_controller->updateSessions(day.sessions);
    }
};

TEST_F(ReviewWindowTest, CheckTicksEligibleRowsAndTheButtonCountsWorklogs)
{
    open();
    const QVariantMap ready = rowFor(QStringLiteral("ABC-1 Triage failing nightly build"));
    EXPECT_EQ(ready.value(QStringLiteral("status")).toString(), QStringLiteral("Ready"));
    EXPECT_TRUE(ready.value(QStringLiteral("include")).toBool());
    EXPECT_FALSE(rowFor(QStringLiteral("Team lunch talk prep")).value(QStringLiteral("include")).toBool());
    // Nine assigned sessions, one of them under a minute and alone on nothing: eight worklogs.
    const QString title = postButton(*m_controller)->text();
    EXPECT_TRUE(title.startsWith(QStringLiteral("Post 8 Worklogs · "))) << qPrintable(title);
    EXPECT_TRUE(postButton(*m_controller)->isEnabled());
    EXPECT_EQ(footer(*m_controller), QStringLiteral("Tracked 6h 35m · Logged 0m · Not logged 6h 35m"));
    EXPECT_TRUE(m_controller->statusText().startsWith(QStringLiteral("Checked just now")))
        << qPrintable(m_controller->statusText());
}

TEST_F(ReviewWindowTest, DraggingAcrossRowsSetsEveryCrossedRowToTheFirstState)
{
    open();
    QTreeView *tree = m_controller->tree();
    tree->expandAll();
    m_controller->window()->resize(1200, 900);
    m_controller->window()->show();
    const QModelIndex first = indexFor(QStringLiteral("ABC-2 Payment retry backoff"), ReviewModel::IncludeColumn);
    const QModelIndex last = model()->index(2, ReviewModel::IncludeColumn, first.parent());
    ASSERT_TRUE(last.isValid());
    ASSERT_TRUE(model()->row(model()->rowOf(first)).value(QStringLiteral("include")).toBool());
    const QPoint from = tree->visualRect(first).center();
    const QPoint to = tree->visualRect(last).center();
    QTest::mousePress(tree->viewport(), Qt::LeftButton, {}, from);
    for (int y = from.y(); y <= to.y(); y += 4) {
        QMouseEvent move(QEvent::MouseMove, QPointF(from.x(), y), tree->viewport()->mapToGlobal(QPointF(from.x(), y)),
            Qt::NoButton, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(tree->viewport(), &move);
    }
    QTest::mouseRelease(tree->viewport(), Qt::LeftButton, {}, to);
    for (int i = 0; i < 3; ++i)
        EXPECT_FALSE(model()
                         ->row(model()->rowOf(model()->index(i, 0, first.parent())))
                         .value(QStringLiteral("include"))
                         .toBool())
            << i;
    EXPECT_TRUE(rowFor(QStringLiteral("ABC-1 Triage failing nightly build")).value(QStringLiteral("include")).toBool());
    EXPECT_TRUE(postButton(*m_controller)->text().startsWith(QStringLiteral("Post 5 Worklogs")));

    // Space ticks the selected row again.
    tree->setFocus();
    tree->setCurrentIndex(first);
    tree->selectionModel()->select(first, QItemSelectionModel::ClearAndSelect | QItemSelectionModel::Rows);
    QTest::keyClick(tree, Qt::Key_Space);
    EXPECT_TRUE(model()->row(model()->rowOf(first)).value(QStringLiteral("include")).toBool());
}

TEST_F(ReviewWindowTest, EditingToPostAcceptsWholeMinutesAndRefusesMore)
{
    open();
    QTreeView *tree = m_controller->tree();
    const QModelIndex toPost = indexFor(QStringLiteral("OPS-7 Rotate staging certificates"), ReviewModel::ToPostColumn);
    ASSERT_TRUE(toPost.flags() & Qt::ItemIsEditable);
    tree->setFocus();
    tree->setCurrentIndex(toPost);
    QTest::keyClick(tree, Qt::Key_F2);
    auto *editor = qobject_cast<QLineEdit *>(QApplication::focusWidget());
    ASSERT_NE(editor, nullptr);
    editor->setText(QStringLiteral("20m"));
    tree->itemDelegateForIndex(toPost)->setModelData(editor, model(), toPost);
    EXPECT_EQ(
        m_controller->statusText(), QStringLiteral("Enter a positive whole-minute amount no greater than Not logged."));
    EXPECT_EQ(
        rowFor(QStringLiteral("OPS-7 Rotate staging certificates")).value(QStringLiteral("post_seconds")).toLongLong(),
        900);

    QTest::keyClick(tree, Qt::Key_F2);
    editor = qobject_cast<QLineEdit *>(QApplication::focusWidget());
    ASSERT_NE(editor, nullptr);
    editor->setText(QStringLiteral("10m"));
    tree->itemDelegateForIndex(toPost)->setModelData(editor, model(), toPost);
    EXPECT_EQ(
        rowFor(QStringLiteral("OPS-7 Rotate staging certificates")).value(QStringLiteral("post_seconds")).toLongLong(),
        600);

    // A live update of the same sessions keeps the edit.
    m_controller->updateSessions(uitest::realisticDay(kDay));
    EXPECT_EQ(
        rowFor(QStringLiteral("OPS-7 Rotate staging certificates")).value(QStringLiteral("post_seconds")).toLongLong(),
        600);
}

TEST_F(ReviewWindowTest, LiveUpdatesKeepSelectionExpansionAndTicks)
{
    QVariantList sessions = uitest::realisticDay(kDay);
    m_controller->setReviewDay(kDay);
    openChecked(sessions);
    QTreeView *tree = m_controller->tree();
    const QModelIndex selected = indexFor(QStringLiteral("OPS-7 On-call handover"), 0);
    tree->selectionModel()->select(selected, QItemSelectionModel::ClearAndSelect | QItemSelectionModel::Rows);
    tree->collapse(model()->indexOfGroup(0));
    QSignalSpy resets(model(), &QAbstractItemModel::modelReset);
    for (int tick = 1; tick <= 3; ++tick) {
        QVariantMap running = sessions.last().toMap();
        running.insert(QStringLiteral("duration"), 2400 + tick);
        sessions.last() = running;
        m_controller->updateSessions(sessions);
    }
    EXPECT_EQ(resets.count(), 0);
    EXPECT_TRUE(tree->selectionModel()->isRowSelected(selected.row(), selected.parent()));
    EXPECT_FALSE(tree->isExpanded(model()->indexOfGroup(0)));
    EXPECT_TRUE(rowFor(QStringLiteral("OPS-7 On-call handover")).value(QStringLiteral("include")).toBool());
}

TEST_F(ReviewWindowTest, HeaderMenuTogglesColumnsPersistsAndResets)
{
    open();
    QMenu *columns = m_controller->columnsMenu();
    QTreeView *tree = m_controller->tree();
    EXPECT_TRUE(tree->isColumnHidden(ReviewModel::NotLoggedColumn));
    EXPECT_TRUE(tree->isColumnHidden(ReviewModel::CommentColumn));
    actionNamed(columns, QStringLiteral("Comment"))->trigger();
    actionNamed(columns, QStringLiteral("Title"))->trigger();
    EXPECT_FALSE(tree->isColumnHidden(ReviewModel::CommentColumn));
    EXPECT_TRUE(tree->isColumnHidden(ReviewModel::TitleColumn));
    tree->setColumnWidth(ReviewModel::TrackedColumn, 133);
    const QVariantMap stored = QSettings().value(QStringLiteral("WorklogsColumns")).toMap();
    EXPECT_TRUE(stored.value(QStringLiteral("comment")).toMap().value(QStringLiteral("shown")).toBool());
    EXPECT_FALSE(stored.value(QStringLiteral("title")).toMap().value(QStringLiteral("shown")).toBool());
    EXPECT_EQ(stored.value(QStringLiteral("seconds")).toMap().value(QStringLiteral("width")).toInt(), 133);

    // A new window restores them.
    JiraReviewWindowController again(m_directory, credentialService());
    EXPECT_FALSE(again.tree()->isColumnHidden(ReviewModel::CommentColumn));
    EXPECT_TRUE(again.tree()->isColumnHidden(ReviewModel::TitleColumn));
    EXPECT_EQ(again.tree()->columnWidth(ReviewModel::TrackedColumn), 133);

    actionNamed(columns, QStringLiteral("Reset Columns"))->trigger();
    EXPECT_TRUE(tree->isColumnHidden(ReviewModel::CommentColumn));
    EXPECT_FALSE(tree->isColumnHidden(ReviewModel::TitleColumn));
    EXPECT_FALSE(actionNamed(columns, QStringLiteral("Post"))->isEnabled());
}

TEST_F(ReviewWindowTest, ContextMenuRefusesAndReportsWithTheWindowTexts)
{
    open();
    auto run = [this](const QString &description, const QString &command) {
        std::unique_ptr<QMenu> menu(m_controller->contextMenu(indexFor(description, 0), nullptr));
        QAction *action = actionNamed(menu.get(), command);
        if (!action)
            return QStringLiteral("<no action %1>").arg(command);
        action->trigger();
        return m_controller->statusText();
    };
    bool editorShown = false;
    m_controller->editSession = [&](const QVariantMap &, bool) {
        editorShown = true;
        return QVariantMap();
    };
    EXPECT_EQ(run(QStringLiteral("Team lunch talk prep"), QStringLiteral("Mark as Already Logged in Jira…")),
        QStringLiteral("Assign a Jira issue to this session first, then check Jira again. Matching reads the worklogs "
                       "of that one issue, so it cannot run while the session is unassigned."));
    EXPECT_EQ(
        run(QStringLiteral("ABC-1 Triage failing nightly build"), QStringLiteral("Mark as Already Logged in Jira…")),
        QStringLiteral("No worklog of yours on 2026-03-02 for ABC-1 can be matched. Only worklogs you authored on that "
                       "issue and day, and not already posted by Hourloom, are offered."));
    EXPECT_EQ(run(QStringLiteral("OPS-7 On-call handover"), QStringLiteral("Ignore for Jira")),
        QStringLiteral(
            "Saved locally. This session is excluded from Jira submission. Use Undo Jira Exclusion to restore it."));
    EXPECT_EQ(rowFor(QStringLiteral("OPS-7 On-call handover")).value(QStringLiteral("status")).toString(),
        QStringLiteral("Ignored for Jira"));
    EXPECT_FALSE(rowFor(QStringLiteral("OPS-7 On-call handover")).value(QStringLiteral("can_tick")).toBool());
    EXPECT_EQ(run(QStringLiteral("OPS-7 On-call handover"), QStringLiteral("Undo Jira Exclusion")),
        QStringLiteral(
            "Exclusion removed. Jira is checked again before posting. Recorded submission safeguards remain active."));

    // While an operation runs, every edit is refused.
    m_controller->checkJira();
    ASSERT_TRUE(m_controller->busy());
    EXPECT_EQ(run(QStringLiteral("ABC-1 Triage failing nightly build"), QStringLiteral("Change Jira Issue…")),
        QStringLiteral("Wait for the current Jira operation to finish."));
    EXPECT_FALSE(editorShown);
    ASSERT_TRUE(waitIdle());
    EXPECT_NE(run(QStringLiteral("Team lunch talk prep"), QStringLiteral("Assign Jira Issue…")), QString());
    EXPECT_TRUE(editorShown);

    // Without a site nothing can be edited.
    m_controller->disconnectJira();
    EXPECT_EQ(run(QStringLiteral("ABC-1 Triage failing nightly build"), QStringLiteral("Edit Worklog Comment…")),
        QStringLiteral("Connect Jira and choose a site in Worklogs first."));
    EXPECT_TRUE(footer(*m_controller).startsWith(QStringLiteral("9 sessions · Tracked ")))
        << qPrintable(footer(*m_controller));
}

TEST_F(ReviewWindowTest, AssigningAnIssueThroughTheEditorMovesTheRow)
{
    open();
    m_controller->editSession = [](const QVariantMap &session, bool commentOnly) {
        EXPECT_FALSE(commentOnly);
        EXPECT_EQ(session.value(QStringLiteral("issue")).toString(), QStringLiteral("Unassigned"));
        return QVariantMap {{QStringLiteral("issue"), QStringLiteral("OPS-7")},
            {QStringLiteral("comment"), QStringLiteral("Prep")}, {QStringLiteral("scope"), QStringLiteral("session")},
            {QStringLiteral("aggregate_daily"), false}};
    };
    std::unique_ptr<QMenu> menu(
        m_controller->contextMenu(indexFor(QStringLiteral("Team lunch talk prep"), 0), nullptr));
    actionNamed(menu.get(), QStringLiteral("Assign Jira Issue…"))->trigger();
    const QVariantMap row = rowFor(QStringLiteral("Team lunch talk prep"));
    EXPECT_EQ(row.value(QStringLiteral("issue")).toString(), QStringLiteral("OPS-7"));
    EXPECT_EQ(row.value(QStringLiteral("comment")).toString(), QStringLiteral("Prep"));
}

TEST(SessionEditor, RefusesForeignInputAndEnablesCombiningOnlyForAllSessions)
{
    const QVariantMap session {{QStringLiteral("description"), QStringLiteral("Review")},
        {QStringLiteral("issue"), QStringLiteral("Unassigned")}};
    SessionEditor editor(session, QStringLiteral("https://example.atlassian.net"), false);
    EXPECT_EQ(editor.windowTitle(), QStringLiteral("Assign Jira Issue"));
    EXPECT_TRUE(editor.issueField()->text().isEmpty());
    EXPECT_FALSE(editor.combineChoice()->isEnabled());
    editor.allSessionsChoice()->setChecked(true);
    EXPECT_TRUE(editor.combineChoice()->isEnabled());
    editor.combineChoice()->setChecked(true);

    editor.issueField()->setText(QStringLiteral("https://other.atlassian.net/browse/ABC-1"));
    editor.save();
    EXPECT_EQ(editor.refusal(),
        QStringLiteral("Enter a valid Jira key or an HTTPS /browse/issue URL belonging to the selected Jira site."));
    EXPECT_TRUE(editor.result().isEmpty());

    editor.issueField()->setText(QStringLiteral("https://example.atlassian.net/browse/ABC-12"));
    editor.save();
    EXPECT_EQ(editor.result().value(QStringLiteral("issue")).toString(), QStringLiteral("ABC-12"));
    EXPECT_EQ(editor.result().value(QStringLiteral("scope")).toString(), QStringLiteral("all"));
    EXPECT_TRUE(editor.result().value(QStringLiteral("aggregate_daily")).toBool());

    SessionEditor commentOnly(session, {}, true);
    EXPECT_EQ(commentOnly.windowTitle(), QStringLiteral("Edit Worklog Comment"));
    EXPECT_FALSE(commentOnly.issueField()->isEnabled());
}

TEST(WorklogPicker, ListsCandidatesAndShowsTheSelectedDetail)
{
    const QVariantList candidates {
        QVariantMap {{QStringLiteral("id"), QStringLiteral("10001")}, {QStringLiteral("seconds"), 1800},
            {QStringLiteral("started"), QStringLiteral("2026-03-02T09:00")},
            {QStringLiteral("comment"), QStringLiteral("by hand")},
            {QStringLiteral("reason"), QStringLiteral("Same duration")}},
        QVariantMap {{QStringLiteral("id"), QStringLiteral("10002")}, {QStringLiteral("seconds"), 600},
            {QStringLiteral("started"), QStringLiteral("2026-03-02T11:00")}, {QStringLiteral("comment"), QString()},
            {QStringLiteral("reason"), QStringLiteral("Same issue and day — verify coverage")}}};
    ManualWorklogPicker picker(candidates, QStringLiteral("ABC-1"), 1800);
    EXPECT_EQ(picker.windowTitle(), QStringLiteral("Mark as already logged in Jira?"));
    ASSERT_EQ(picker.list()->count(), 2);
    EXPECT_EQ(picker.list()->item(0)->text(), QStringLiteral("Worklog 10001 · 1800 s · 2026-03-02T09:00"));
    EXPECT_EQ(picker.detailText(),
        QStringLiteral("Same duration\nStarted: 2026-03-02T09:00\nDuration: 1800 seconds\n\nby hand"));
    picker.list()->setCurrentRow(1);
    EXPECT_EQ(picker.chosen().value(QStringLiteral("id")).toString(), QStringLiteral("10002"));
}

TEST_F(ReviewWindowTest, ExportWritesPrettyJsonAtomically)
{
    m_controller->showSessions(uitest::realisticDay(kDay));
    const QString path = testenv::freshDir(QStringLiteral("export")) + QStringLiteral("/stintwatch-history.json");
    QString error;
    ASSERT_TRUE(m_controller->exportHistoryTo(path, &error)) << qPrintable(error);
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray bytes = file.readAll();
    EXPECT_TRUE(bytes.contains("\n    \"duration_basis\""));
    const QJsonObject root = QJsonDocument::fromJson(bytes).object();
    EXPECT_EQ(root.value(QStringLiteral("duration_basis")).toString(),
        QStringLiteral("source timestamp intervals; not Jira worklogs"));
    EXPECT_EQ(root.value(QStringLiteral("sessions")).toArray().size(), 10);
    EXPECT_EQ(file.permissions() & (QFileDevice::ReadOther | QFileDevice::ReadGroup), QFileDevice::Permissions());
    EXPECT_FALSE(m_controller->exportHistoryTo(QStringLiteral("/nonexistent/dir/x.json"), &error));
    EXPECT_FALSE(error.isEmpty());
}

TEST_F(ReviewWindowTest, ARunningSessionGrowsInPlace)
{
    LiveDay day = openWithRunningSession();
    QSignalSpy resets(model(), &QAbstractItemModel::modelReset);
    QSignalSpy changes(model(), &QAbstractItemModel::dataChanged);
    const QString before = footer(*m_controller);
    grow(day);
    EXPECT_EQ(resets.count(), 0);
    EXPECT_GE(changes.count(), 1);
    EXPECT_EQ(rowFor(QStringLiteral("Live work")).value(QStringLiteral("seconds")).toLongLong(), 1200);
    EXPECT_NE(footer(*m_controller), before);
    EXPECT_FALSE(rowFor(QStringLiteral("Live work")).value(QStringLiteral("can_tick")).toBool());

    // A changed description is no tick: the day is rebuilt.
    day.running.insert(QStringLiteral("description"), QStringLiteral("Live work, renamed"));
    day.sessions.last() = day.running;
    m_controller->updateSessions(day.sessions);
    EXPECT_GE(rowOf(QStringLiteral("Live work, renamed")), 0);
}

TEST_F(ReviewWindowTest, ACheckPutsItsOutcomeIntoTheRowsInPlace)
{
    LiveDay day = openWithRunningSession();
    QTreeView *tree = m_controller->tree();
    const QModelIndex selected = indexFor(QStringLiteral("OPS-7 On-call handover"), 0);
    tree->selectionModel()->select(selected, QItemSelectionModel::ClearAndSelect | QItemSelectionModel::Rows);
    tree->collapse(model()->indexOfGroup(0));
    QSignalSpy resets(model(), &QAbstractItemModel::modelReset);

    // A live tick while the check runs changes one row; the outcome still goes into every row.
    m_controller->checkJira();
    ASSERT_TRUE(m_controller->busy());
    const QVariant before = rowFor(QStringLiteral("Live work")).value(QStringLiteral("seconds"));
    grow(day);
    const QVariant grown = rowFor(QStringLiteral("Live work")).value(QStringLiteral("seconds"));
    ASSERT_NE(grown, before);
    ASSERT_TRUE(waitIdle()) << qPrintable(m_controller->statusText());

    EXPECT_TRUE(m_controller->statusText().startsWith(QStringLiteral("Checked")))
        << qPrintable(m_controller->statusText());
    EXPECT_EQ(resets.count(), 0);
    EXPECT_TRUE(tree->selectionModel()->isRowSelected(selected.row(), selected.parent()));
    EXPECT_FALSE(tree->isExpanded(model()->indexOfGroup(0)));
    const QVariantMap checked = rowFor(QStringLiteral("OPS-7 On-call handover"));
    EXPECT_TRUE(checked.value(QStringLiteral("comparison_current")).toBool());
    EXPECT_TRUE(checked.value(QStringLiteral("include")).toBool());
    EXPECT_FALSE(checked.contains(QStringLiteral("progress")));
    EXPECT_EQ(rowFor(QStringLiteral("Live work")).value(QStringLiteral("seconds")), grown);
}
