#include "submission/worklogservice.h"

#include "diagnostics/diagnosticlog.h"
#include "jira/jiraclient.h"
#include "jira/jsonvalue.h"
#include "records/comparison.h"
#include "records/draft.h"
#include "records/exclusion.h"
#include "records/receipt.h"
#include "records/session.h"
#include "records/worklog.h"
#include "submission/receiptcoverage.h"
#include "submission/submissionlock.h"
#include "worklogs/engine.h"
#include "worklogs/manualmatches.h"
#include "worklogs/namedfailure.h"
#include "worklogs/preferences.h"

#include <QDateTime>
#include <QHash>
#include <QRegularExpression>
#include <QSet>

#include <algorithm>
#include <memory>
#include <optional>

namespace
{

const QRegularExpression kIssueKey(QStringLiteral("^[A-Z][A-Z0-9_]*-[0-9]+\\z"));

QString text(const QVariantMap &map, const QString &key)
{
    return map.value(key).toString();
}

bool isText(const QVariant &value)
{
    return value.typeId() == QMetaType::QString;
}

// "remaining_seconds" present and zero: nothing is left to post.
bool nothingRemains(const QVariantMap &draft)
{
    const auto remaining = draft.constFind(DraftKey::kRemainingSeconds);
    return remaining != draft.constEnd() && remaining->toLongLong() == 0;
}

void notify(const WorklogService::Progress &progress, const QVariantMap &event)
{
    if (progress)
        progress(event);
}

void recordCompletion(const QString &event, qint64 count, bool failed)
{
    DiagnosticLog::shared().record(event, {{DiagnosticKey::kCount, count}, {DiagnosticKey::kFailed, failed ? 1 : 0}});
}

// The user's comment from a posted body: the marker tag line (current or former name) is cut off.
QString commentWithoutTag(const QVariant &comment)
{
    QString flat = JRText(comment);
    qsizetype cut = flat.lastIndexOf(QStringLiteral("\n[Hourloom:"));
    if (cut < 0)
        cut = flat.lastIndexOf(QStringLiteral("\n[Stintwatch Companion:"));
    if (cut >= 0)
        flat.truncate(cut);
    return flat;
}

// The receipt under a marker. An entry that is not a record still says that something was sent under this
// marker: it reads as a receipt of unknown outcome, never as none.
QVariantMap receiptUnder(const QVariantMap &receipts, const QString &marker)
{
    const auto found = receipts.constFind(marker);
    if (found == receipts.constEnd())
        return {};
    if (found->typeId() != QMetaType::QVariantMap)
        return {{ReceiptKey::kState, ReceiptKey::kUnknown}};
    return found->toMap();
}

// The states the caller's own view of the ledger gave the row's sessions ("jira_receipt_state").
bool callerSaysUncertain(const QVariantMap &row)
{
    QVariantList sessions {row.value(DraftKey::kSession)};
    sessions += row.value(DraftKey::kSourceSessions).toList();
    if (text(row, DraftKey::kJiraReceiptState) == ReceiptKey::kPending)
        return true;
    for (const QVariant &session : std::as_const(sessions))
        if (text(session.toMap(), SessionKey::kJiraReceiptState) == ReceiptKey::kPending)
            return true;
    return false;
}

NamedFailure failure(const char *name, const char *reason)
{
    return NamedFailure(QString::fromLatin1(name), QString::fromUtf8(reason));
}

// The user's own worklogs of an issue. Comparison and manual matching ignore every other author entirely, so
// filtering once per fetched issue spares each draft a walk over a busy issue's colleagues' worklogs.
QVariantList ownWorklogs(const QVariantList &worklogs, const QString &account)
{
    QVariantList own;
    for (const QVariant &worklog : worklogs) {
        const QVariant author = worklog.toMap().value(WorklogKey::kAuthor).toMap().value(WorklogKey::kAccountId);
        if (isText(author) && author.toString() == account)
            own.append(worklog);
    }
    return own;
}

// Worklogs posted in this run count towards the Jira time of their issue and day: "%@|%.0f".
QString dayKey(const QVariantMap &row)
{
    const QDateTime started = JRDate(row.value(DraftKey::kStarted));
    const qint64 dayStart = started.isValid() ? started.toLocalTime().date().startOfDay().toSecsSinceEpoch() : 0;
    return text(row, DraftKey::kIssue) + QLatin1Char('|') + QString::number(dayStart);
}

// One check of drafts against Jira, as a list of steps over the state they share. Only `fetch` talks to Jira;
// the steps before it decide what to fetch, the steps after it compare what came back.
struct CheckRun {
    struct Pending {
        qsizetype index; // into `result`
        QString marker;
        QVariantMap receipt; // the receipt under the draft's own marker; empty = none
    };

    CheckRun(JiraClient &jira, const QString &site, const WorklogService::Progress &report)
        : client(jira)
        , cloud(site)
        , progress(report)
    {
    }

    JiraClient &client;
    const QString &cloud;
    const WorklogService::Progress &progress;

    QString account;
    QVariantMap receipts;
    // The drafts, each on the issue its receipt names.
    QVariantList copies;
    // The issues to fetch, each {"issue", "source_keys"}, and each one's source keys.
    QVariantList queue;
    QHash<QString, QVariantList> queueKeys;
    // Draft index -> another issue whose worklogs may prove that an uncertain receipt's worklog exists.
    QHash<qsizetype, QString> proofIssues;
    QDateTime from;
    QDateTime to;
    // Issue -> the user's worklogs on it.
    QHash<QString, QVariantList> fetched;
    QSet<QString> unreachable;
    QList<Pending> pending;
    QVariantList result;
    // Pending receipts whose worklog Jira holds: marker -> Jira's id, and the records handed to the caller.
    QHash<QString, QString> proven;
    QVariantList found;
    qint64 completed = 0;
    // The user's hand-made worklogs, indexed once per issue and day for the whole run.
    std::unique_ptr<JRManualMatchIndex> manualMatches;
    qint64 total = 0;
    QString currentIssue;
    QVariantList currentKeys;

    QVariantMap event(const char *state) const
    {
        return QVariantMap {{ProgressKey::kPhase, QStringLiteral("compare")},
            {ProgressKey::kState, QString::fromLatin1(state)}, {ProgressKey::kIssue, currentIssue},
            {ProgressKey::kSourceKeys, currentKeys}, {ProgressKey::kCompleted, completed},
            {ProgressKey::kTotal, total}};
    }

    void readLedger(const ReceiptStore &store)
    {
        account = text(client.identity(cloud), WorklogKey::kAccountId);
        receipts = store.receipts();
    }

    // A posted or pending worklog is always compared on the issue it was sent to, whatever the assignments
    // say now.
    void moveToReceiptIssues(const QVariantList &drafts)
    {
        copies.reserve(drafts.size());
        for (const QVariant &item : drafts) {
            QVariantMap copy = item.toMap();
            const QVariant receiptIssue
                = receipts.value(JRMarker(copy, cloud, account)).toMap().value(ReceiptKey::kIssue);
            if (isText(receiptIssue) && !receiptIssue.toString().isEmpty())
                copy.insert(DraftKey::kIssue, receiptIssue);
            copies.append(copy);
        }
    }

    void enqueue(const QString &issue, const QVariantList &keys)
    {
        queueKeys.insert(issue, keys);
        queue.append(QVariantMap {{ProgressKey::kIssue, issue}, {ProgressKey::kSourceKeys, keys}});
    }

    // The issues to fetch: every issue a comparable draft is on, and the issues that may prove an uncertain
    // receipt. A draft whose session a receipt of unknown outcome covers on another issue (the session moved
    // since) also fetches that issue: finding the worklog there settles the receipt.
    void planFetches()
    {
        const ReceiptCoverage ledgerCoverage(receipts, cloud);
        for (qsizetype index = 0; index < copies.size(); ++index) {
            const QVariantMap copy = copies.at(index).toMap();
            const QString issue = text(copy, DraftKey::kIssue);
            if (!copy.value(DraftKey::kJiraExclusion).toMap().isEmpty() || copy.value(DraftKey::kSourceRunning).toBool()
                || nothingRemains(copy) || !JRValid(copy) || issue.isEmpty())
                continue;
            if (!queueKeys.contains(issue)) {
                QVariantList rows;
                for (const QVariant &other : std::as_const(copies))
                    if (text(other.toMap(), DraftKey::kIssue) == issue)
                        rows.append(other);
                enqueue(issue, QVariant(JRSourceKeysForRows(rows)).toList());
            }
            const QVariantMap covering = ledgerCoverage.blocking(copy);
            const QString sentTo = text(covering, ReceiptKey::kIssue);
            if (covering.isEmpty() || text(covering, ReceiptKey::kState) == ReceiptKey::kPosted || sentTo == issue
                || !kIssueKey.match(sentTo).hasMatch())
                continue;
            proofIssues.insert(index, sentTo);
            if (!queueKeys.contains(sentTo))
                enqueue(sentTo, QVariant(JRSourceKeysForRows({copy})).toList());
        }
        total = queue.size();
        JRDayWindow(copies, from, to);
    }

    void announce() const
    {
        QVariantMap start = event("start");
        start.remove(ProgressKey::kIssue);
        start.remove(ProgressKey::kSourceKeys);
        start.insert(ProgressKey::kItems, queue);
        notify(progress, start);
    }

    void fetch(const QString &issue)
    {
        currentIssue = issue;
        currentKeys = queueKeys.value(issue);
        notify(progress, event("active"));
        const auto pageProgress = [&](qint64 page, qint64 pages) {
            QVariantMap pageEvent = event("page");
            pageEvent.insert(ProgressKey::kPage, page);
            pageEvent.insert(ProgressKey::kPages, pages);
            notify(progress, pageEvent);
        };
        fetched.insert(issue, ownWorklogs(client.worklogs(issue, cloud, from, to, pageProgress), account));
        ++completed;
        notify(progress, event("complete"));
    }

    // Only a proof is looked for there: an issue deleted or closed to the user since leaves the receipt
    // uncertain instead of failing the whole check.
    void fetchProof(const QString &issue)
    {
        if (issue.isEmpty() || fetched.contains(issue) || unreachable.contains(issue))
            return;
        try {
            fetch(issue);
        } catch (const NamedFailure &) {
            unreachable.insert(issue);
            ++completed;
            notify(progress, event("complete"));
        }
    }

    // The exclusion as the assignments hold it now. A manual match silences a draft only when nothing remains
    // to post; any remainder stays available.
    static void resolveExclusion(QVariantMap &copy, const IssueAssignments &assignments, const QString &cloud)
    {
        if (!copy.contains(DraftKey::kSession))
            return;
        const QVariantMap resolved = assignments.resolve(copy.value(DraftKey::kSession).toMap(), cloud);
        QVariantMap exclusion = resolved.value(SessionKey::kJiraExclusion).toMap();
        const QString kind = text(exclusion, ExclusionKey::kKind);
        if (kind != ExclusionKey::kIgnore && copy.contains(DraftKey::kRemainingSeconds) && !nothingRemains(copy))
            exclusion.clear();
        copy.insert(DraftKey::kJiraExclusion, exclusion);
        if (text(exclusion, ExclusionKey::kKind) == ExclusionKey::kManual)
            copy.insert(DraftKey::kManualWorklogId, text(exclusion, ExclusionKey::kWorklogId));
    }

    // Fills in the outcome of a draft that is never compared (excluded, still running, nothing left to post);
    // false for a draft that is.
    static bool settledWithoutJira(QVariantMap &copy)
    {
        const QVariantMap exclusion = copy.value(DraftKey::kJiraExclusion).toMap();
        if (!exclusion.isEmpty()) {
            copy.insert(DraftKey::kStatus, JRExclusionStatus(exclusion));
            copy.insert(DraftKey::kEligible, false);
            return true;
        }
        if (copy.value(DraftKey::kSourceRunning).toBool()) {
            copy.insert(DraftKey::kEligible, false);
            return true;
        }
        if (nothingRemains(copy)) {
            copy.insert(DraftKey::kStatus, QStringLiteral("Complete"));
            copy.insert(DraftKey::kEligible, false);
            copy.insert(DraftKey::kExisting, 0);
            copy.insert(DraftKey::kManualMatches, QVariantList {});
            return true;
        }
        return false;
    }

    // A draft sent before is compared as it was sent: issue, start, seconds and comment from the receipt.
    static void applyReceipt(QVariantMap &copy, const QVariantMap &receipt)
    {
        const QVariant receiptIssue = receipt.value(ReceiptKey::kIssue);
        if (isText(receiptIssue) && !receiptIssue.toString().isEmpty())
            copy.insert(DraftKey::kIssue, receiptIssue);
        if (receipt.contains(ReceiptKey::kPayload)) {
            const QVariantMap payload = receipt.value(ReceiptKey::kPayload).toMap();
            if (payload.contains(WorklogKey::kStarted))
                copy.insert(DraftKey::kStarted, payload.value(WorklogKey::kStarted));
            if (payload.contains(WorklogKey::kTimeSpentSeconds))
                copy.insert(DraftKey::kPostSeconds, payload.value(WorklogKey::kTimeSpentSeconds));
            copy.insert(DraftKey::kComment, commentWithoutTag(payload.value(WorklogKey::kComment)));
        }
        copy.insert(DraftKey::kAssignment, QStringLiteral("Submission recorded"));
    }

    // Settles what needs no Jira, fetches each issue a comparable draft needs, and queues that draft for
    // comparison.
    void fetchForDrafts(const IssueAssignments &assignments)
    {
        for (qsizetype index = 0; index < copies.size(); ++index) {
            QVariantMap copy = copies.at(index).toMap();
            copy.insert(DraftKey::kInclude, false);
            resolveExclusion(copy, assignments, cloud);
            if (settledWithoutJira(copy)) {
                result.append(copy);
                continue;
            }
            const QString marker = JRMarker(copy, cloud, account);
            const QVariantMap receipt = receiptUnder(receipts, marker);
            if (!receipt.isEmpty())
                applyReceipt(copy, receipt);

            const QString issue = text(copy, DraftKey::kIssue);
            if (JRValid(copy) && !fetched.contains(issue))
                fetch(issue);
            fetchProof(proofIssues.value(index));

            copy.insert(DraftKey::kMarker, marker);
            pending.append({result.size(), marker, receipt});
            result.append(copy);
        }
    }

    // A worklog that carries the marker of a receipt still "pending" proves that Jira created it: the receipt
    // counts as posted from now on, and the next post run records it so (see WorklogService::settle).
    void findProofs()
    {
        for (auto it = fetched.constBegin(); it != fetched.constEnd(); ++it) {
            for (const QVariant &item : it.value()) {
                const QVariantMap worklog = item.toMap();
                const QString marker = JRLogMarker(worklog);
                const QVariant entry = receipts.value(marker);
                if (marker.isEmpty() || entry.typeId() != QMetaType::QVariantMap)
                    continue;
                const QVariantMap receipt = entry.toMap();
                const QString site = text(receipt, ReceiptKey::kCloud);
                const QVariant id = worklog.value(WorklogKey::kId);
                if (text(receipt, ReceiptKey::kState) == ReceiptKey::kPosted || (!site.isEmpty() && site != cloud)
                    || !isText(id) || id.toString().isEmpty() || proven.contains(marker))
                    continue;
                proven.insert(marker, id.toString());
                found.append(QVariantMap {{ReceiptKey::kMarker, marker}, {ReceiptKey::kId, id},
                    {ReceiptKey::kIssue, it.key()}, {ReceiptKey::kCloud, cloud}, {ReceiptKey::kAccount, account}});
            }
        }
    }

    // Under another marker (another group, issue or logged time) the same sessions may already be in Jira, or
    // may be any moment: such a draft shows the receipt's state and is never eligible.
    static QVariantMap coveringReceipt(QVariantMap &copy, const ReceiptCoverage &coverage)
    {
        QVariantMap receipt = coverage.blocking(copy);
        if (receipt.isEmpty() && callerSaysUncertain(copy))
            receipt = {{ReceiptKey::kState, ReceiptKey::kPending}};
        if (!receipt.isEmpty()) {
            copy.insert(DraftKey::kJiraReceiptState,
                text(receipt, ReceiptKey::kState) == ReceiptKey::kPosted ? ReceiptKey::kPosted : ReceiptKey::kPending);
            copy.insert(DraftKey::kAssignment, QStringLiteral("Submission recorded"));
        }
        return receipt;
    }

    void compareOne(const Pending &entry, const ReceiptCoverage &coverage)
    {
        QVariantMap copy = result.at(entry.index).toMap();
        const QVariantList worklogs = fetched.value(text(copy, DraftKey::kIssue));
        const QVariantMap receipt = entry.receipt.isEmpty() ? coveringReceipt(copy, coverage) : entry.receipt;
        const QVariantMap comparison = JRCompare(copy, worklogs, account, entry.marker, receipt);
        for (auto it = comparison.constBegin(); it != comparison.constEnd(); ++it)
            copy.insert(it.key(), it.value());
        const bool eligible = copy.value(ComparisonKey::kEligible).toBool();
        if (eligible && !manualMatches)
            manualMatches = std::make_unique<JRManualMatchIndex>(account);
        const QVariantList matches = eligible ? manualMatches->matches(copy, worklogs) : QVariantList {};
        copy.insert(DraftKey::kManualMatches, matches);
        if (!matches.isEmpty())
            copy.insert(DraftKey::kStatus, QStringLiteral("Possible manual worklog — confirm match or review"));
        copy.insert(DraftKey::kInclude, eligible);
        result[entry.index] = copy;
    }

    // The comparisons cannot fail, so they run after the fetches, issue by issue: the engine prepares an
    // issue's worklogs once for consecutive comparisons against the same list.
    void compareAll()
    {
        const ReceiptCoverage coverage(receipts, cloud, proven);
        std::stable_sort(pending.begin(), pending.end(), [this](const Pending &left, const Pending &right) {
            return text(result.at(left.index).toMap(), DraftKey::kIssue)
                < text(result.at(right.index).toMap(), DraftKey::kIssue);
        });
        for (const Pending &entry : std::as_const(pending))
            compareOne(entry, coverage);
    }

    QVariantMap answer() const
    {
        return {{CheckKey::kDrafts, result}, {CheckKey::kAccount, account}, {CheckKey::kReceiptsFound, found}};
    }
};

// The failure a service call reports: a named failure as it stands (with `general` when it has no sentence),
// anything else (a system error) as a "JiraError" with the general sentence.
NamedFailure asNamedFailure(const std::exception &caught, const QString &general)
{
    const auto *named = dynamic_cast<const NamedFailure *>(&caught);
    if (!named)
        return NamedFailure(QStringLiteral("JiraError"), general);
    return named->reason().isEmpty() ? NamedFailure(named->name(), general) : *named;
}

} // namespace

WorklogService::WorklogService(JiraClient &client, const QString &directory)
    : m_client(client)
    , m_directory(directory)
    , m_store(directory)
{
}

QVariantMap WorklogService::checkDrafts(const QVariantList &drafts, const QString &cloud, const Progress &progress)
{
    Q_ASSERT(m_client.queue().isCurrent());
    CheckRun run(m_client, cloud, progress);
    try {
        // One reading of the preferences for every draft of the run.
        const JRPreferenceSnapshot preferences;
        run.readLedger(m_store);
        run.moveToReceiptIssues(drafts);
        run.planFetches();
        run.announce();
        run.fetchForDrafts(IssueAssignments(m_directory));
        run.findProofs();
        run.compareAll();
    } catch (const std::exception &caught) {
        const NamedFailure failure = asNamedFailure(caught, QStringLiteral("Checking Jira failed."));
        QVariantMap failed = run.event("failed");
        failed.insert(ProgressKey::kError, failure.reason());
        // Jira's own explanation travels beside the sentence, for the user to read under it.
        if (!failure.detail().isEmpty())
            failed.insert(ProgressKey::kDetail, failure.detail());
        notify(progress, failed);
        recordCompletion(DiagnosticEvent::kJiraCompareCompleted, run.result.size(), true);
        throw failure;
    }
    for (const QVariant &item : std::as_const(run.found))
        m_found.insert(item.toMap().value(ReceiptKey::kMarker).toString(), item.toMap());
    recordCompletion(DiagnosticEvent::kJiraCompareCompleted, run.result.size(), false);
    return run.answer();
}

QVariantMap WorklogService::compareDrafts(const QVariantList &drafts, const QString &cloud, const Progress &progress)
{
    try {
        return checkDrafts(drafts, cloud, progress);
    } catch (const NamedFailure &failure) {
        QVariantMap answer {{CheckKey::kError, failure.reason()}};
        if (!failure.detail().isEmpty())
            answer.insert(CheckKey::kDetail, failure.detail());
        return answer;
    }
}

QVariantList WorklogService::postDrafts(const QVariantList &drafts, const QString &cloud, const QString &account,
    qint64 generation, const Progress &progress)
{
    return postDrafts(
        drafts, cloud, account, generation, JRReduceEstimateOnPost() ? Estimate::Reduce : Estimate::Leave, progress);
}

QVariantList WorklogService::postDrafts(const QVariantList &drafts, const QString &cloud, const QString &account,
    qint64 generation, Estimate estimate, const Progress &progress)
{
    Q_ASSERT(m_client.queue().isCurrent());
    qint64 completed = 0;
    QString issue;
    QStringList sourceKeys;
    // Held until the run's last event is recorded, on every path: another process must not start posting
    // while this one still reports what it did.
    std::optional<SubmissionLock> lock;
    try {
        lock.emplace(m_directory + QStringLiteral("/jira-submit.lock"));
        QVariantList posted
            = postRows(drafts, cloud, account, generation, estimate, progress, completed, issue, sourceKeys);
        recordCompletion(DiagnosticEvent::kJiraPostCompleted, completed, false);
        return posted;
    } catch (const std::exception &caught) {
        const NamedFailure failure = asNamedFailure(caught, QStringLiteral("Posting failed."));
        QVariantMap failed {{ProgressKey::kPhase, QStringLiteral("post")},
            {ProgressKey::kState, QStringLiteral("failed")}, {ProgressKey::kIssue, issue},
            {ProgressKey::kSourceKeys, sourceKeys}, {ProgressKey::kCompleted, completed},
            {ProgressKey::kTotal, qint64(drafts.size())}, {ProgressKey::kError, failure.reason()}};
        if (!failure.detail().isEmpty())
            failed.insert(ProgressKey::kDetail, failure.detail());
        notify(progress, failed);
        recordCompletion(DiagnosticEvent::kJiraPostCompleted, completed, true);
        throw failure;
    }
}

bool WorklogService::settle(QVariantMap &receipts, const QString &cloud, const QString &account)
{
    bool changed = false;
    for (auto it = m_found.constBegin(); it != m_found.constEnd(); ++it) {
        const QVariantMap &proof = it.value();
        const QVariant entry = receipts.value(it.key());
        if (text(proof, ReceiptKey::kCloud) != cloud || text(proof, ReceiptKey::kAccount) != account
            || entry.typeId() != QMetaType::QVariantMap)
            continue;
        QVariantMap receipt = entry.toMap();
        if (text(receipt, ReceiptKey::kState) == ReceiptKey::kPosted)
            continue;
        // The record stays whole: only its state and Jira's id are added, as if the answer had arrived.
        receipt.insert(ReceiptKey::kState, ReceiptKey::kPosted);
        receipt.insert(ReceiptKey::kId, text(proof, ReceiptKey::kId));
        receipts.insert(it.key(), receipt);
        changed = true;
    }
    m_found.clear();
    if (changed)
        m_store.saveReceipts(receipts);
    return changed;
}

namespace
{

// Exclusions as they are now, not as they were when the rows were built: an exclusion or a manual match added
// after the check must stop the post.
void refuseExcluded(const QVariantList &rows, const IssueAssignments &assignments, const QString &cloud)
{
    for (const QVariant &item : rows) {
        const QVariantMap row = item.toMap();
        QVariantList sessions {row.value(DraftKey::kSession)};
        sessions += row.value(DraftKey::kSourceSessions).toList();
        bool excluded = text(row.value(DraftKey::kJiraExclusion).toMap(), ExclusionKey::kKind) == ExclusionKey::kIgnore;
        for (const QVariant &value : std::as_const(sessions)) {
            const QVariantMap session = value.toMap();
            if (session.isEmpty())
                continue;
            const QVariantMap built = session.value(SessionKey::kJiraExclusion).toMap();
            const QVariantMap now = assignments.resolve(session, cloud).value(SessionKey::kJiraExclusion).toMap();
            const QString kind = text(now, ExclusionKey::kKind);
            excluded = excluded || text(built, ExclusionKey::kKind) == ExclusionKey::kIgnore
                || kind == ExclusionKey::kIgnore || (kind == ExclusionKey::kManual && now != built);
        }
        if (excluded)
            throw failure("Excluded", "This session is excluded from Jira. Check Jira again.");
    }
}

// The marker of each row, refusing the run when any row may already be in Jira. Any receipt, posted or left
// pending by an earlier run, means the worklog may already be in Jira. The same marker twice in one run would
// post one worklog twice. Under another marker, the receipts' coverage still knows every session that is, or
// may be, in Jira.
QStringList markersOrRefuse(
    const QVariantList &rows, const QVariantMap &receipts, const QString &cloud, const QString &account)
{
    QStringList markers;
    QSet<QString> seen;
    ReceiptCoverage coverage(receipts, cloud);
    for (const QVariant &item : rows) {
        const QVariantMap row = item.toMap();
        const QString marker = JRMarker(row, cloud, account);
        if (receipts.contains(marker) || seen.contains(marker) || callerSaysUncertain(row)
            || !coverage.blocking(row).isEmpty())
            throw failure("Duplicate",
                "A session in this worklog is already posted or has an uncertain submission. Check Jira again.");
        coverage.add(row);
        seen.insert(marker);
        markers.append(marker);
    }
    return markers;
}

// Re-check immediately before the POST: Jira must still hold what the user saw, plus `postedToday`, what this
// run has posted to the same issue and day.
void recheck(JiraClient &client, const QVariantMap &row, const QString &marker, const QString &cloud,
    const QString &account, qint64 postedToday)
{
    QDateTime from;
    QDateTime to;
    JRDayWindow({row}, from, to);
    const QVariantMap fresh
        = JRCompare(row, client.worklogs(text(row, DraftKey::kIssue), cloud, from, to, {}), account, marker, {});
    if (!fresh.value(ComparisonKey::kEligible).toBool())
        throw failure("Duplicate", "An entry is already posted or has an uncertain submission. Check Jira again.");
    const qint64 expected = row.value(DraftKey::kExisting).toLongLong() + postedToday;
    if (fresh.value(ComparisonKey::kExisting).toLongLong() != expected)
        throw failure("Changed", "Jira time changed since the last check. Check Jira again.");
}

} // namespace

QVariantMap WorklogService::openLedger(const QString &cloud, const QString &account, qint64 generation)
{
    if (text(m_client.identity(cloud), WorklogKey::kAccountId) != account)
        throw failure("AccountChanged", "Jira account changed. Check Jira again.");
    QVariantMap receipts = m_store.receipts();
    // The user disconnected or reconnected since the check: what they approved no longer applies.
    if (m_client.generation() != generation)
        throw failure("ConnectionChanged", "Jira connection changed. Check Jira again.");
    settle(receipts, cloud, account);
    return receipts;
}

QVariantList WorklogService::postRows(const QVariantList &rows, const QString &cloud, const QString &account,
    qint64 generation, Estimate estimate, const Progress &report, qint64 &completed, QString &issue,
    QStringList &sourceKeys)
{
    const qint64 total = rows.size();
    const auto event = [&](const char *state) {
        return QVariantMap {{ProgressKey::kPhase, QStringLiteral("post")},
            {ProgressKey::kState, QString::fromLatin1(state)}, {ProgressKey::kIssue, issue},
            {ProgressKey::kSourceKeys, sourceKeys}, {ProgressKey::kCompleted, completed}, {ProgressKey::kTotal, total}};
    };

    QVariantMap receipts = openLedger(cloud, account, generation);
    refuseExcluded(rows, IssueAssignments(m_directory), cloud);
    const QStringList markers = markersOrRefuse(rows, receipts, cloud, account);

    const QString mode = estimate == Estimate::Reduce ? QStringLiteral("auto") : QStringLiteral("leave");
    QHash<QString, qint64> postedPerDay;
    QVariantList posted;
    for (qsizetype index = 0; index < rows.size(); ++index) {
        const QVariantMap row = rows.at(index).toMap();
        const QString &marker = markers.at(index);
        issue = text(row, DraftKey::kIssue);
        sourceKeys = JRSourceKeysForRows({row});
        const QString day = dayKey(row);
        recheck(m_client, row, marker, cloud, account, postedPerDay.value(day));

        const QVariantMap payload = JRPayload(row, marker);
        QVariantMap receipt {
            {ReceiptKey::kState, ReceiptKey::kPending},
            {ReceiptKey::kIssue, issue},
            {ReceiptKey::kSourceKey, text(row, DraftKey::kSourceKey)},
            {ReceiptKey::kCoverage, JRCoverage(row)},
            {ReceiptKey::kCloud, cloud},
            {ReceiptKey::kPayload, payload},
        };
        // A token that cannot be refreshed fails here, before a receipt exists, not after it as an uncertain
        // submission; the POST below then finds the token fresh.
        m_client.access();
        receipts.insert(marker, receipt);
        m_store.saveReceipts(receipts);

        notify(report, event("submitting"));
        const QVariantMap created = m_client.post(payload, issue, cloud, mode);
        const QVariant spent = created.value(WorklogKey::kTimeSpentSeconds);
        const qint64 seconds = HLIsJSONNumber(spent) ? spent.toLongLong() : JRPostSeconds(row);
        postedPerDay[day] += seconds;

        receipt.insert(ReceiptKey::kState, ReceiptKey::kPosted);
        receipt.insert(ReceiptKey::kId, created.value(WorklogKey::kId).toString());
        receipts.insert(marker, receipt);
        m_store.saveReceipts(receipts);

        ++completed;
        posted.append(QVariantMap {{PostedKey::kMarker, marker}, {PostedKey::kIssue, issue},
            {PostedKey::kId, receipt.value(ReceiptKey::kId)}, {PostedKey::kSeconds, seconds},
            {PostedKey::kSourceKeys, sourceKeys}});
        notify(report, event("complete"));
    }
    return posted;
}
