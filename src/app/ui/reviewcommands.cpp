// The row commands of the Worklogs window (context menu, double click) and the history export.

#include "app/ui/jirareviewwindow_p.h"
#include "app/ui/rowkeys.h"
#include "app/ui/sessioneditor.h"
#include "app/ui/worklogpicker.h"
#include "platform/clock.h"
#include "records/draft.h"
#include "records/exclusion.h"
#include "records/session.h"
#include "worklogs/engine.h"
#include "worklogs/namedfailure.h"

#include <QDesktopServices>
#include <QFileDialog>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QKeySequence>
#include <QMainWindow>
#include <QMenu>
#include <QMessageBox>
#include <QSaveFile>
#include <QStandardPaths>
#include <QUrl>

namespace
{

QString str(const QVariantMap &map, const QString &key)
{
    return map.value(key).toString();
}

qint64 num(const QVariantMap &map, const QString &key)
{
    return map.value(key).toLongLong();
}

QString refreshShortcut()
{
    return QKeySequence(Qt::CTRL | Qt::Key_R).toString(QKeySequence::NativeText);
}

} // namespace

QString JiraReviewWindowController::Private::refusalForEdit(const QVariantMap &row, bool reset) const
{
    if (cloud.isEmpty() || !client->connected())
        return QStringLiteral("Connect Jira and choose a site in Worklogs first.");
    if (busy)
        return QStringLiteral("Wait for the current Jira operation to finish.");
    if (review::Lock(row.value(RowKey::kLocked).toInt()) == review::Lock::Recorded
        || !str(row, DraftKey::kJiraReceiptState).isEmpty()) {
        return reset ? QStringLiteral("This session has a recorded or uncertain submission. Review it in Jira.")
                     : QStringLiteral("This session has a recorded or uncertain submission. Review it in Jira; local "
                                      "editing will not change that worklog.");
    }
    if (!assignments)
        return status;
    return {};
}

QMenu *JiraReviewWindowController::Private::contextMenu(const QModelIndex &index, QWidget *parent)
{
    auto *menu = new QMenu(parent);
    const int row = model->rowOf(index);
    if (row < 0)
        return menu;
    const QVariantMap draft = model->row(row);
    const bool unassigned = str(draft, DraftKey::kIssue).isEmpty();
    auto add = [&](const QString &title, auto handler) {
        QAction *action = menu->addAction(title);
        QObject::connect(action, &QAction::triggered, q, handler);
        return action;
    };
    add(QStringLiteral("Edit Worklog…"), [this, row] { editRow(row, false); });
    add(unassigned ? QStringLiteral("Assign Jira Issue…") : QStringLiteral("Change Jira Issue…"),
        [this, row] { editRow(row, false); });
    add(QStringLiteral("Edit Worklog Comment…"), [this, row] { editRow(row, true); });
    add(QStringLiteral("Use Automatic Assignment"), [this, row] { useAutomaticAssignment(row); });
    menu->addSeparator();
    add(QStringLiteral("Mark as Already Logged in Jira…"), [this, row] { markAsLogged(row); });
    const bool excluded = !draft.value(DraftKey::kJiraExclusion).toMap().isEmpty()
        || !draft.value(DraftKey::kSession).toMap().value(SessionKey::kJiraExclusion).toMap().isEmpty();
    if (excluded)
        add(QStringLiteral("Undo Jira Exclusion"), [this, row] { undoExclusion(row); });
    else
        add(QStringLiteral("Ignore for Jira"), [this, row] { ignoreForJira(row); });
    menu->addSeparator();
    QAction *open = add(QStringLiteral("Open Item in Jira"), [this, row] { openInJira(row); });
    const QString site = siteURL();
    open->setEnabled(site.startsWith(QStringLiteral("https://"))
        && !IssueAssignments::issueFromInput(str(draft, DraftKey::kIssue), site).isNull());
    return menu;
}

void JiraReviewWindowController::Private::editRow(int row, bool commentOnly)
{
    const QVariantMap draft = model->row(row);
    const QString refusal = refusalForEdit(draft, false);
    if (!refusal.isEmpty()) {
        setStatus(refusal);
        return;
    }
    QVariantMap session = draft.value(DraftKey::kSession).toMap();
    session.insert(SessionKey::kIssue,
        str(draft, DraftKey::kIssue).isEmpty() ? SessionKey::kUnassigned : str(draft, DraftKey::kIssue));
    session.insert(SessionKey::kComment, str(draft, DraftKey::kComment));
    const QVariantMap result = q->editSession ? q->editSession(session, commentOnly)
                                              : SessionEditor::edit(session, siteURL(), commentOnly, window);
    if (result.isEmpty())
        return;
    const bool all = str(result, SessionEditKey::kScope) == SessionEditKey::kAllSessions;
    const QString issue = commentOnly ? QString() : str(result, SessionEditKey::kIssue);
    if (!changeAssignments([&] {
            assignments->saveSession(session, cloud, issue, str(result, SessionEditKey::kComment), all,
                result.value(SessionEditKey::kAggregateDaily).toBool());
        }))
        return;
    assignmentsChanged();
}

void JiraReviewWindowController::Private::useAutomaticAssignment(int row)
{
    const QVariantMap draft = model->row(row);
    const QString refusal = refusalForEdit(draft, true);
    if (!refusal.isEmpty()) {
        setStatus(refusal);
        return;
    }
    if (!changeAssignments([&] { assignments->removeOverride(draft.value(DraftKey::kSession).toMap(), cloud); }))
        return;
    assignmentsChanged();
}

void JiraReviewWindowController::Private::markAsLogged(int row)
{
    const QVariantMap draft = model->row(row);
    const QString refusal = refusalForEdit(draft, false);
    if (!refusal.isEmpty()) {
        setStatus(refusal);
        return;
    }
    const QString issue = str(draft, DraftKey::kIssue);
    if (issue.isEmpty()) {
        setStatus(QStringLiteral("Assign a Jira issue to this session first, then check Jira again. Matching reads "
                                 "the worklogs of that one issue, so it cannot run while the session is unassigned."));
        return;
    }
    const QString day = str(draft, DraftKey::kStarted).left(10);
    const QVariantMap checked = compared.value(str(draft, DraftKey::kSourceKey));
    if (checked.isEmpty()) {
        if (!checkedDays.isEmpty() && !checkedDays.contains(day)) {
            setStatus(QStringLiteral("This session started on %1, and Worklogs checked a different day. Set the date "
                                     "to %1, wait for Jira to be checked, then mark it again.")
                          .arg(day));
            return;
        }
        setStatus(QStringLiteral("This session is not among the ones checked. Check Jira again (%1), then mark it.")
                      .arg(refreshShortcut()));
        return;
    }
    if (num(draft, DraftKey::kSeconds) < 60 && JRIgnoreShortSessions()) {
        setStatus(QStringLiteral("This session is shorter than a minute, so Worklogs leaves it out. Turn off “Keep "
                                 "sessions under a minute out of Jira” in Settings → General, check Jira again, then "
                                 "mark it."));
        return;
    }
    const QVariantList candidates = checked.value(DraftKey::kManualMatches).toList();
    if (!checked.value(DraftKey::kEligible).toBool() && candidates.isEmpty()) {
        setStatus(QStringLiteral("This session is not open for matching: %1.").arg(str(checked, DraftKey::kStatus)));
        return;
    }
    if (candidates.isEmpty()) {
        setStatus(QStringLiteral("No worklog of yours on %1 for %2 can be matched. Only worklogs you authored on that "
                                 "issue and day, and not already posted by Hourloom, are offered.")
                      .arg(day, issue));
        return;
    }
    const qint64 seconds = num(draft, DraftKey::kSeconds);
    const QVariantMap chosen = q->chooseMatch ? q->chooseMatch(candidates, issue, seconds)
                                              : ManualWorklogPicker::chooseMatch(candidates, issue, seconds, window);
    if (chosen.isEmpty())
        return;
    const QVariantMap exclusion {{ExclusionKey::kKind, ExclusionKey::kManual},
        {ExclusionKey::kWorklogId, str(chosen, ManualMatchKey::kId)},
        {ExclusionKey::kSeconds, num(chosen, ManualMatchKey::kSeconds)}, {ExclusionKey::kIssue, issue},
        {ExclusionKey::kAccount, account}, {ExclusionKey::kConfirmedAt, JRISO(Clock::shared().wallNow())}};
    if (!setExclusion(draft, exclusion))
        return;
    assignmentsChanged();
    setStatus(
        QStringLiteral("Saved locally. The matched duration now counts as logged; any remainder stays available."));
}

void JiraReviewWindowController::Private::ignoreForJira(int row)
{
    const QVariantMap draft = model->row(row);
    const QString refusal = refusalForEdit(draft, false);
    if (!refusal.isEmpty()) {
        setStatus(refusal);
        return;
    }
    const QVariantMap exclusion {{ExclusionKey::kKind, ExclusionKey::kIgnore}, {ExclusionKey::kWorklogId, QString()},
        {ExclusionKey::kSeconds, num(draft, DraftKey::kSeconds)}, {ExclusionKey::kAccount, account},
        {ExclusionKey::kConfirmedAt, JRISO(Clock::shared().wallNow())}};
    if (!setExclusion(draft, exclusion))
        return;
    assignmentsChanged();
    setStatus(QStringLiteral(
        "Saved locally. This session is excluded from Jira submission. Use Undo Jira Exclusion to restore it."));
}

void JiraReviewWindowController::Private::undoExclusion(int row)
{
    const QVariantMap draft = model->row(row);
    QString refusal = refusalForEdit(draft, false);
    // Undoing an exclusion never changes a worklog, so a recorded submission does not block it.
    if (refusal.startsWith(QStringLiteral("This session has a recorded")))
        refusal.clear();
    if (!refusal.isEmpty()) {
        setStatus(refusal);
        return;
    }
    if (!setExclusion(draft, {}))
        return;
    comparisonAt = QDateTime();
    assignmentsChanged();
    setStatus(QStringLiteral(
        "Exclusion removed. Jira is checked again before posting. Recorded submission safeguards remain active."));
}

void JiraReviewWindowController::Private::openInJira(int row)
{
    const QString site = siteURL();
    const QString issue = IssueAssignments::issueFromInput(str(model->row(row), DraftKey::kIssue), site);
    if (!site.startsWith(QStringLiteral("https://")) || issue.isNull())
        return;
    QDesktopServices::openUrl(QUrl(site + QStringLiteral("/browse/") + issue));
}

bool JiraReviewWindowController::Private::writeHistory(const QString &path, QString *error) const
{
    QJsonArray list;
    for (const QVariant &session : sessions)
        list.append(QJsonObject::fromVariantMap(session.toMap()));
    const QJsonObject root {{QStringLiteral("format_version"), 1},
        {QStringLiteral("duration_basis"), QStringLiteral("source timestamp intervals; not Jira worklogs")},
        {QStringLiteral("sessions"), list}};
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        if (error)
            *error = file.errorString();
        return false;
    }
    file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    file.write(QJsonDocument(root).toJson(QJsonDocument::Indented));
    if (!file.commit()) {
        if (error)
            *error = file.errorString();
        return false;
    }
    return true;
}

void JiraReviewWindowController::exportHistory()
{
    const QString folder = QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation);
    const QString path = QFileDialog::getSaveFileName(d->window, QStringLiteral("Export History…"),
        folder + QStringLiteral("/stintwatch-history.json"), QStringLiteral("JSON (*.json)"));
    if (path.isEmpty())
        return;
    QString error;
    if (!d->writeHistory(path, &error))
        QMessageBox::warning(d->window, QStringLiteral("Export failed"), error);
}

bool JiraReviewWindowController::Private::changeAssignments(const std::function<void()> &change)
{
    try {
        change();
    } catch (const NamedFailure &failure) {
        setStatus(failure.reason());
        return false;
    }
    return true;
}

bool JiraReviewWindowController::Private::setExclusion(const QVariantMap &draft, const QVariantMap &exclusion)
{
    if (!changeAssignments(
            [&] { assignments->setExclusion(exclusion, draft.value(DraftKey::kSession).toMap(), cloud); }))
        return false;
    // The session's last comparison was made under the old exclusion.
    compared.remove(str(draft, DraftKey::kSourceKey));
    return true;
}
