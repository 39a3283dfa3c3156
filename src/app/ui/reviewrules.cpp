#include "app/ui/reviewrules.h"

#include "app/ui/rowkeys.h"
#include "records/draft.h"
#include "records/receipt.h"
#include "records/session.h"
#include "records/worklog.h"
#include "worklogs/engine.h"

#include <QKeySequence>
#include <QLocale>

namespace review
{

namespace
{

QString str(const QVariantMap &map, const QString &key)
{
    return map.value(key).toString();
}

bool flag(const QVariantMap &map, const QString &key)
{
    return map.value(key).toBool();
}

qint64 num(const QVariantMap &map, const QString &key)
{
    return map.value(key).toLongLong();
}

bool nonEmptyMap(const QVariantMap &map, const QString &key)
{
    return !map.value(key).toMap().isEmpty();
}

QString plural(qint64 count)
{
    return count == 1 ? QString() : QStringLiteral("s");
}

bool current(const QVariantMap &row)
{
    return flag(row, DraftKey::kComparisonCurrent);
}

} // namespace

QString iconName(Symbol symbol)
{
    switch (symbol) {
    case Symbol::Combined:
        return QStringLiteral("merge");
    case Symbol::Ready:
        return QStringLiteral("go-up");
    case Symbol::Attention:
        return QStringLiteral("dialog-warning");
    case Symbol::Done:
        return QStringLiteral("emblem-ok");
    case Symbol::Neutral:
        return QStringLiteral("radio");
    case Symbol::Waiting:
        return QStringLiteral("appointment-soon");
    case Symbol::Checked:
        return QStringLiteral("emblem-default");
    case Symbol::Failed:
        return QStringLiteral("dialog-error");
    }
    return {};
}

QString durationCell(qint64 seconds)
{
    if (seconds >= 1 && seconds <= 59)
        return QStringLiteral("<1m");
    return JRDurationText(seconds);
}

QString daySignature(const QVariantList &sessions)
{
    QString signature;
    for (const QVariant &item : sessions) {
        const QVariantMap session = item.toMap();
        signature += QStringLiteral("%1|%2|%3|%4|%5\n")
                         .arg(num(session, SessionKey::kStartMs))
                         .arg(num(session, SessionKey::kEndMs))
                         .arg(flag(session, SessionKey::kSourceRunning) ? 1 : 0)
                         .arg(str(session, SessionKey::kDescription), str(session, SessionKey::kIssue));
    }
    return signature;
}

StatusLook statusLook(const QVariantMap &row)
{
    const QString status = str(row, DraftKey::kStatus);
    if (row.contains(RowKey::kCombinedSeconds)) {
        QString text = QStringLiteral("Part of %1 worklog").arg(JRDurationText(num(row, RowKey::kCombinedSeconds)));
        const QString activity = str(row, DraftKey::kActivity);
        if (!activity.isEmpty())
            text += QStringLiteral(" · ") + activity;
        if (status != QStringLiteral("Ready"))
            text += QStringLiteral(" · ") + status;
        return {text, Symbol::Combined, Tint::Accent};
    }
    if (flag(row, DraftKey::kFragment) && status == QStringLiteral("Ready"))
        return {QStringLiteral("Under a minute · posts only combined"), Symbol::Ready, Tint::Accent};
    if (status == QStringLiteral("Ready"))
        return {status, Symbol::Ready, Tint::Accent};
    for (const char *word : {"review", "differs", "ncertain", "confirm"})
        if (status.contains(QLatin1String(word)))
            return {status, Symbol::Attention, Tint::Attention};
    if (status == QStringLiteral("Complete") || status.startsWith(QStringLiteral("Already posted"))
        || status.startsWith(QStringLiteral("Posted")) || status.startsWith(QStringLiteral("Manually logged")))
        return {status, Symbol::Done, Tint::Secondary};
    return {status, Symbol::Neutral, Tint::Secondary};
}

StatusLook progressLook(const QString &progress)
{
    if (progress == QStringLiteral("Checked") || progress == QStringLiteral("Posted"))
        return {progress, Symbol::Checked, Tint::Accent};
    if (progress == QStringLiteral("Failed"))
        return {progress, Symbol::Failed, Tint::Failure};
    return {progress, Symbol::Waiting, Tint::Secondary};
}

bool unavailable(const QVariantMap &row)
{
    if (flag(row, RowKey::kHistoryRow))
        return false;
    if (nonEmptyMap(row, DraftKey::kJiraExclusion) || flag(row, DraftKey::kSourceRunning))
        return true;
    if (row.contains(DraftKey::kRemainingSeconds) && num(row, DraftKey::kRemainingSeconds) < 1)
        return true;
    return current(row) && !flag(row, DraftKey::kEligible);
}

bool groupUnavailable(const QVariantList &children)
{
    if (children.isEmpty())
        return false;
    for (const QVariant &child : children)
        if (!unavailable(child.toMap()))
            return false;
    return true;
}

ReceiptIndex::ReceiptIndex(const QVariantMap &receipts, const QString &cloud)
{
    for (auto it = receipts.cbegin(); it != receipts.cend(); ++it) {
        QVariantMap receipt = it.value().toMap();
        if (str(receipt, ReceiptKey::kCloud) != cloud)
            continue;
        receipt.insert(ReceiptKey::kMarker, it.key());
        QSet<QString> named;
        const QString direct = str(receipt, ReceiptKey::kSourceKey);
        if (!direct.isEmpty())
            named.insert(direct);
        const QVariantMap coverage = receipt.value(ReceiptKey::kCoverage).toMap();
        for (auto key = coverage.cbegin(); key != coverage.cend(); ++key)
            named.insert(key.key());
        for (const QString &key : std::as_const(named))
            m_bySource[key].append(receipt);
    }
}

Lock lockedSession(const QVariantMap &row, const QString &cloud, const QString &account, const QSet<QString> &lockedSet,
    const ReceiptIndex &receipts)
{
    const QVariantMap session = row.value(DraftKey::kSession).toMap();
    const QString sourceKey = str(row, DraftKey::kSourceKey);
    const QVariantList named = receipts.receiptsFor(sourceKey);
    if (!named.isEmpty()) {
        const qint64 ownSeconds = (num(session, SessionKey::kEndMs) - num(session, SessionKey::kStartMs)) / 1000;
        QString marker;
        for (const QVariant &item : named) {
            const QVariantMap receipt = item.toMap();
            if (str(receipt, ReceiptKey::kState) != ReceiptKey::kPosted)
                return Lock::Recorded;
            const QVariantMap payload = receipt.value(ReceiptKey::kPayload).toMap();
            if (num(payload, WorklogKey::kTimeSpentSeconds) >= ownSeconds)
                return Lock::Recorded;
            if (marker.isNull())
                marker = JRMarker(row, cloud, account);
            if (str(receipt, ReceiptKey::kMarker) == marker)
                return Lock::Recorded;
            for (const QVariant &property : payload.value(WorklogKey::kProperties).toList())
                if (JRText(property.toMap().value(WorklogKey::kPropertyValue)).contains(marker))
                    return Lock::Recorded;
        }
    }
    if (flag(session, SessionKey::kAssignmentLocked) || flag(row, SessionKey::kAssignmentLocked))
        return Lock::Assignment;
    if (lockedSet.contains(cloud + QLatin1Char('|') + sourceKey))
        return Lock::Assignment;
    return Lock::None;
}

bool canSelectDraft(const QVariantMap &row, bool busy, bool locked, const QHash<QString, bool> *intent)
{
    if (flag(row, RowKey::kHistoryRow) || unavailable(row) || locked)
        return false;
    if (busy && !intent)
        return false;
    if (intent && intent->contains(str(row, DraftKey::kSourceKey)))
        return true;
    return current(row) && flag(row, DraftKey::kEligible);
}

bool toPostEditable(const QVariantMap &row, bool busy, bool lockedBySubmission)
{
    return !flag(row, RowKey::kHistoryRow) && !flag(row, DraftKey::kFragment) && !busy
        && !nonEmptyMap(row, DraftKey::kJiraExclusion) && !lockedBySubmission;
}

qint64 toPostSeconds(const QString &text, qint64 remaining)
{
    const qint64 seconds = JRSecondsFromText(text.trimmed());
    if (seconds <= 0 || seconds % 60 != 0 || seconds > remaining)
        return -1;
    return seconds;
}

QString toPostRefusal()
{
    return QStringLiteral("Enter a positive whole-minute amount no greater than Not logged.");
}

int settleSelectionIntent(QVariantList &rows, const QHash<QString, bool> *intent)
{
    int refused = 0;
    for (QVariant &item : rows) {
        QVariantMap row = item.toMap();
        const bool ready = current(row) && flag(row, DraftKey::kEligible);
        bool include = flag(row, DraftKey::kInclude);
        if (intent) {
            // Rows the intent does not know (another day, a new session) keep the check's own choice.
            const QString key = str(row, DraftKey::kSourceKey);
            const bool wanted = intent->contains(key) ? intent->value(key) : include;
            if (wanted && !ready)
                ++refused;
            include = wanted && ready;
        } else if (include && !ready) {
            ++refused;
            include = false;
        }
        if (include != flag(row, DraftKey::kInclude)) {
            row.insert(DraftKey::kInclude, include);
            item = row;
        }
    }
    return refused;
}

QString untickedMessage(int count)
{
    return QStringLiteral("%1 ticked worklog%2 cannot be posted and %3 unticked; Jira Status says why.")
        .arg(count)
        .arg(plural(count), count == 1 ? QStringLiteral("was") : QStringLiteral("were"));
}

QString footerText(const QVariantList &rows, bool history, int hiddenShort)
{
    qint64 tracked = 0, logged = 0, remaining = 0;
    for (const QVariant &item : rows) {
        const QVariantMap row = item.toMap();
        tracked += num(row, DraftKey::kSeconds);
        logged += num(row, DraftKey::kLoggedSeconds);
        remaining += num(row, DraftKey::kRemainingSeconds);
    }
    if (history) {
        QString hidden;
        if (hiddenShort > 0)
            hidden = QStringLiteral(" · %1 under a minute hidden").arg(hiddenShort);
        return QStringLiteral("%1 session%2 · Tracked %3%4")
            .arg(rows.size())
            .arg(plural(rows.size()), JRDurationText(tracked), hidden);
    }
    return QStringLiteral("Tracked %1 · Logged %2 · Not logged %3")
        .arg(JRDurationText(tracked), JRDurationText(logged), JRDurationText(remaining));
}

QVariantList worklogsToPost(const QVariantList &rows)
{
    QVariantList ticked;
    for (const QVariant &item : rows) {
        const QVariantMap row = item.toMap();
        if (flag(row, DraftKey::kInclude) && current(row) && flag(row, DraftKey::kEligible)
            && !flag(row, RowKey::kHistoryRow))
            ticked.append(item);
    }
    return JRWorklogsToPost(ticked);
}

PostButton postButton(const QVariantList &rows, bool busy)
{
    PostButton button;
    const QVariantList worklogs = worklogsToPost(rows);
    button.count = int(worklogs.size());
    for (const QVariant &worklog : worklogs)
        button.seconds += JRPostSeconds(worklog.toMap());
    if (button.count == 0) {
        button.title = QStringLiteral("Select Worklogs to Post");
        button.toolTip = QStringLiteral("Select at least one ready worklog");
        return button;
    }
    const QString time = JRDurationText(button.seconds);
    button.title = QStringLiteral("Post %1 Worklog%2 · %3…").arg(button.count).arg(plural(button.count), time);
    button.toolTip = QStringLiteral("Post %1 to Jira").arg(time);
    button.enabled = !busy;
    return button;
}

PostStep postStep(const QDateTime &comparisonAt, const QDateTime &now, const QVariantList &rows)
{
    if (!comparisonAt.isValid() || comparisonAt.secsTo(now) > 300)
        return PostStep::Recheck;
    if (!worklogsToPost(rows).isEmpty())
        return PostStep::Confirm;
    bool ticked = false, allFragments = true;
    for (const QVariant &item : rows) {
        const QVariantMap row = item.toMap();
        if (!flag(row, DraftKey::kInclude))
            continue;
        ticked = true;
        allFragments = allFragments && num(row, DraftKey::kSeconds) < 60;
    }
    return ticked && allFragments ? PostStep::OnlyFragments : PostStep::NothingEligible;
}

QString postStepText(PostStep step)
{
    switch (step) {
    case PostStep::Recheck:
        return QStringLiteral("Checking Jira again first: the last check is over five minutes old. Post when it "
                              "finishes.");
    case PostStep::NothingEligible:
        return QStringLiteral("Check at least one eligible entry.");
    case PostStep::OnlyFragments:
        return QStringLiteral("The ticked sessions are under a minute; they post only together with other sessions "
                              "on their issue.");
    case PostStep::Confirm:
        break;
    }
    return {};
}

Confirmation confirmation(const QVariantList &worklogs, const QString &site, bool reduceEstimate)
{
    qint64 total = 0, sessions = 0;
    bool combines = false;
    for (const QVariant &item : worklogs) {
        const QVariantMap worklog = item.toMap();
        total += JRPostSeconds(worklog);
        const qint64 combined = num(worklog, DraftKey::kCombinedCount);
        sessions += combined > 0 ? combined : 1;
        combines = combines || combined > 1;
    }
    const qint64 count = worklogs.size();
    const QString combineText = combines
        ? QStringLiteral("\n%1 sessions combine into %2 worklog%3.").arg(sessions).arg(count).arg(plural(count))
        : QString();
    const QString estimate = reduceEstimate
        ? QStringLiteral("Each issue's remaining estimate is reduced by the time posted, which cannot be undone "
                         "from here.")
        : QStringLiteral("Remaining estimates stay unchanged.");
    return {QStringLiteral("Post %1 worklog%2 to Jira?").arg(count).arg(plural(count)),
        QStringLiteral("Site: %1\nTotal: %2.%3\nThis writes the checked preview entries under your Jira account. %4")
            .arg(site, JRDurationText(total), combineText, estimate)};
}

QString postedText(qint64 count, const QString &detail)
{
    const QString text = QStringLiteral("Posted %1 worklog%2.").arg(count).arg(plural(count));
    return detail.isEmpty() ? text : text + QLatin1Char(' ') + detail;
}

QString progressCount(qint64 completed, qint64 total, bool posting)
{
    const QString noun = posting ? (total == 1 ? QStringLiteral("worklog") : QStringLiteral("worklogs"))
                                 : (total == 1 ? QStringLiteral("issue") : QStringLiteral("issues"));
    return QStringLiteral("%1 of %2 %3").arg(completed).arg(total).arg(noun);
}

QString checkedText(const QDateTime &at, const QDateTime &now)
{
    const qint64 age = at.secsTo(now);
    QString when;
    if (age < 60)
        when = QStringLiteral("just now");
    else if (age < 3600)
        when = QStringLiteral("%1 min ago").arg(age / 60);
    else
        when = QStringLiteral("at ") + QLocale().toString(at.time(), QLocale::ShortFormat);
    const QString shortcut = QKeySequence(Qt::CTRL | Qt::Key_R).toString(QKeySequence::NativeText);
    return QStringLiteral("Checked %1 · %2 to check again").arg(when, shortcut);
}

} // namespace review
