#include "submission/worklogservice.h"

#include "diagnostics/diagnosticlog.h"
#include "jira/jiraclient.h"
#include "jira/jsonvalue.h"
#include "platform/failure.h"
#include "submission/receiptcoverage.h"
#include "submission/submissionlock.h"
#include "worklogs/engine.h"

#include <QDateTime>
#include <QHash>
#include <QRegularExpression>
#include <QSet>

#include <algorithm>
#include <optional>

namespace
{

const QString kIssue = QStringLiteral("issue");
const QString kSourceKeys = QStringLiteral("source_keys");
const QString kCompleted = QStringLiteral("completed");
const QString kTotal = QStringLiteral("total");
const QString kState = QStringLiteral("state");
const QString kExclusion = QStringLiteral("jira_exclusion");
const QString kRemaining = QStringLiteral("remaining_seconds");
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
    const auto remaining = draft.constFind(kRemaining);
    return remaining != draft.constEnd() && remaining->toLongLong() == 0;
}

void notify(const WorklogService::Progress &progress, const QVariantMap &event)
{
    if (progress)
        progress(event);
}

void recordCompletion(const QString &event, qint64 count, bool failed)
{
    DiagnosticLog::shared().record(
        event, {{QStringLiteral("count"), count}, {QStringLiteral("failed"), failed ? 1 : 0}});
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
        return {{kState, QStringLiteral("unknown")}};
    return found->toMap();
}

// The states the caller's own view of the ledger gave the row's sessions ("jira_receipt_state").
bool callerSaysUncertain(const QVariantMap &row)
{
    QVariantList sessions {row.value(QStringLiteral("session"))};
    sessions += row.value(QStringLiteral("source_sessions")).toList();
    if (text(row, QStringLiteral("jira_receipt_state")) == QStringLiteral("pending"))
        return true;
    for (const QVariant &session : std::as_const(sessions))
        if (text(session.toMap(), QStringLiteral("jira_receipt_state")) == QStringLiteral("pending"))
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
        const QVariant author
            = worklog.toMap().value(QStringLiteral("author")).toMap().value(QStringLiteral("accountId"));
        if (isText(author) && author.toString() == account)
            own.append(worklog);
    }
    return own;
}

// Worklogs posted in this run count towards the Jira time of their issue and day: "%@|%.0f".
QString dayKey(const QVariantMap &row)
{
    const QDateTime started = JRDate(row.value(QStringLiteral("started")));
    const qint64 dayStart = started.isValid() ? started.toLocalTime().date().startOfDay().toSecsSinceEpoch() : 0;
    return text(row, kIssue) + QLatin1Char('|') + QString::number(dayStart);
}

} // namespace

WorklogService::WorklogService(JiraClient &client, const QString &directory)
    : m_client(client)
    , m_directory(directory)
    , m_store(directory)
{
}

QVariantMap WorklogService::compareDrafts(const QVariantList &drafts, const QString &cloud, const Progress &progress)
{
    Q_ASSERT(m_client.queue().isCurrent());
    QVariantList result;
    qint64 completed = 0;
    qint64 total = 0;
    QString currentIssue;
    QVariantList currentKeys;
    const auto event = [&](const char *state) {
        return QVariantMap {{QStringLiteral("phase"), QStringLiteral("compare")}, {kState, QString::fromLatin1(state)},
            {kIssue, currentIssue}, {kSourceKeys, currentKeys}, {kCompleted, completed}, {kTotal, total}};
    };

    try {
        // One reading of the preferences for every draft of the run.
        const JRPreferenceSnapshot preferences;
        const QString account = text(m_client.identity(cloud), QStringLiteral("accountId"));
        const QVariantMap receipts = m_store.receipts();

        // A posted or pending worklog is always compared on the issue it was sent to, whatever the
        // assignments say now.
        QVariantList copies;
        copies.reserve(drafts.size());
        for (const QVariant &item : drafts) {
            QVariantMap copy = item.toMap();
            const QVariant receiptIssue = receipts.value(JRMarker(copy, cloud, account)).toMap().value(kIssue);
            if (isText(receiptIssue) && !receiptIssue.toString().isEmpty())
                copy.insert(kIssue, receiptIssue);
            copies.append(copy);
        }

        QVariantList queue;
        QHash<QString, QVariantList> queueKeys;
        // A draft whose session a receipt of unknown outcome covers on another issue (the session moved since)
        // also fetches that issue: finding the worklog there settles the receipt.
        const ReceiptCoverage ledgerCoverage(receipts, cloud);
        QHash<qsizetype, QString> proofIssues;
        for (qsizetype index = 0; index < copies.size(); ++index) {
            const QVariantMap copy = copies.at(index).toMap();
            const QString issue = text(copy, kIssue);
            if (!copy.value(kExclusion).toMap().isEmpty() || copy.value(QStringLiteral("source_running")).toBool()
                || nothingRemains(copy) || !JRValid(copy) || issue.isEmpty())
                continue;
            if (!queueKeys.contains(issue)) {
                QVariantList rows;
                for (const QVariant &other : std::as_const(copies))
                    if (text(other.toMap(), kIssue) == issue)
                        rows.append(other);
                const QVariantList keys = QVariant(JRSourceKeysForRows(rows)).toList();
                queueKeys.insert(issue, keys);
                queue.append(QVariantMap {{kIssue, issue}, {kSourceKeys, keys}});
            }
            const QVariantMap covering = ledgerCoverage.blocking(copy);
            const QString sentTo = text(covering, kIssue);
            if (covering.isEmpty() || text(covering, kState) == QStringLiteral("posted") || sentTo == issue
                || !kIssueKey.match(sentTo).hasMatch())
                continue;
            proofIssues.insert(index, sentTo);
            if (!queueKeys.contains(sentTo)) {
                const QVariantList keys = QVariant(JRSourceKeysForRows({copy})).toList();
                queueKeys.insert(sentTo, keys);
                queue.append(QVariantMap {{kIssue, sentTo}, {kSourceKeys, keys}});
            }
        }
        total = queue.size();

        QDateTime from;
        QDateTime to;
        JRDayWindow(copies, from, to);

        QVariantMap start = event("start");
        start.remove(kIssue);
        start.remove(kSourceKeys);
        start.insert(QStringLiteral("items"), queue);
        notify(progress, start);

        IssueAssignments assignments(m_directory);
        QHash<QString, QVariantList> fetched;
        struct Pending {
            qsizetype index;
            QString marker;
            QVariantMap receipt;
        };
        QList<Pending> pending;
        QSet<QString> unreachable;
        const auto fetch = [&](const QString &issue) {
            currentIssue = issue;
            currentKeys = queueKeys.value(issue);
            notify(progress, event("active"));
            const auto pageProgress = [&](qint64 page, qint64 pages) {
                QVariantMap pageEvent = event("page");
                pageEvent.insert(QStringLiteral("page"), page);
                pageEvent.insert(QStringLiteral("pages"), pages);
                notify(progress, pageEvent);
            };
            fetched.insert(issue, ownWorklogs(m_client.worklogs(issue, cloud, from, to, pageProgress), account));
            ++completed;
            notify(progress, event("complete"));
        };
        for (qsizetype index = 0; index < copies.size(); ++index) {
            QVariantMap copy = copies.at(index).toMap();
            copy.insert(QStringLiteral("include"), false);

            if (copy.contains(QStringLiteral("session"))) {
                const QVariantMap resolved = assignments.resolve(copy.value(QStringLiteral("session")).toMap(), cloud);
                QVariantMap exclusion = resolved.value(kExclusion).toMap();
                // A manual match silences a draft only when nothing remains to post; any remainder stays
                // available.
                const QString kind = text(exclusion, QStringLiteral("kind"));
                if (kind != QStringLiteral("ignore") && copy.contains(kRemaining) && !nothingRemains(copy))
                    exclusion.clear();
                copy.insert(kExclusion, exclusion);
                if (text(exclusion, QStringLiteral("kind")) == QStringLiteral("manual"))
                    copy.insert(QStringLiteral("manual_worklog_id"), text(exclusion, QStringLiteral("worklog_id")));
            }

            const QVariantMap exclusion = copy.value(kExclusion).toMap();
            if (!exclusion.isEmpty()) {
                copy.insert(QStringLiteral("status"), JRExclusionStatus(exclusion));
                copy.insert(QStringLiteral("eligible"), false);
                result.append(copy);
                continue;
            }
            if (copy.value(QStringLiteral("source_running")).toBool()) {
                copy.insert(QStringLiteral("eligible"), false);
                result.append(copy);
                continue;
            }
            if (nothingRemains(copy)) {
                copy.insert(QStringLiteral("status"), QStringLiteral("Complete"));
                copy.insert(QStringLiteral("eligible"), false);
                copy.insert(QStringLiteral("existing"), 0);
                copy.insert(QStringLiteral("manual_matches"), QVariantList {});
                result.append(copy);
                continue;
            }

            const QString marker = JRMarker(copy, cloud, account);
            const QVariantMap receipt = receiptUnder(receipts, marker);
            if (!receipt.isEmpty()) {
                const QVariant receiptIssue = receipt.value(kIssue);
                if (isText(receiptIssue) && !receiptIssue.toString().isEmpty())
                    copy.insert(kIssue, receiptIssue);
                if (receipt.contains(QStringLiteral("payload"))) {
                    const QVariantMap payload = receipt.value(QStringLiteral("payload")).toMap();
                    if (payload.contains(QStringLiteral("started")))
                        copy.insert(QStringLiteral("started"), payload.value(QStringLiteral("started")));
                    if (payload.contains(QStringLiteral("timeSpentSeconds")))
                        copy.insert(QStringLiteral("post_seconds"), payload.value(QStringLiteral("timeSpentSeconds")));
                    copy.insert(QStringLiteral("comment"), commentWithoutTag(payload.value(QStringLiteral("comment"))));
                }
                copy.insert(QStringLiteral("assignment"), QStringLiteral("Submission recorded"));
            }

            const QString issue = text(copy, kIssue);
            if (JRValid(copy) && !fetched.contains(issue))
                fetch(issue);
            const QString proofIssue = proofIssues.value(index);
            if (!proofIssue.isEmpty() && !fetched.contains(proofIssue) && !unreachable.contains(proofIssue)) {
                // Only a proof is looked for there: an issue deleted or closed to the user since leaves the
                // receipt uncertain instead of failing the whole check.
                try {
                    fetch(proofIssue);
                } catch (const NamedFailure &) {
                    unreachable.insert(proofIssue);
                    ++completed;
                    notify(progress, event("complete"));
                }
            }

            copy.insert(QStringLiteral("marker"), marker);
            pending.append({result.size(), marker, receipt});
            result.append(copy);
        }

        // A worklog that carries the marker of a receipt still "pending" proves that Jira created it: the
        // receipt counts as posted from now on, and the next post run records it so (see settle()).
        QHash<QString, QString> proven;
        QVariantList found;
        for (auto it = fetched.constBegin(); it != fetched.constEnd(); ++it) {
            for (const QVariant &item : it.value()) {
                const QVariantMap worklog = item.toMap();
                const QString marker = JRLogMarker(worklog);
                const QVariant entry = receipts.value(marker);
                if (marker.isEmpty() || entry.typeId() != QMetaType::QVariantMap)
                    continue;
                const QVariantMap receipt = entry.toMap();
                const QString site = text(receipt, QStringLiteral("cloud"));
                const QVariant id = worklog.value(QStringLiteral("id"));
                if (text(receipt, kState) == QStringLiteral("posted") || (!site.isEmpty() && site != cloud)
                    || !isText(id) || id.toString().isEmpty() || proven.contains(marker))
                    continue;
                proven.insert(marker, id.toString());
                found.append(QVariantMap {{QStringLiteral("marker"), marker}, {QStringLiteral("id"), id},
                    {kIssue, it.key()}, {QStringLiteral("cloud"), cloud}, {QStringLiteral("account"), account}});
            }
        }
        for (const QVariant &item : std::as_const(found))
            m_found.insert(item.toMap().value(QStringLiteral("marker")).toString(), item.toMap());
        const ReceiptCoverage coverage(receipts, cloud, proven);

        // The comparisons cannot fail, so they run after the fetches, issue by issue: the engine prepares an
        // issue's worklogs once for consecutive comparisons against the same list.
        std::stable_sort(pending.begin(), pending.end(), [&result](const Pending &left, const Pending &right) {
            return text(result.at(left.index).toMap(), kIssue) < text(result.at(right.index).toMap(), kIssue);
        });
        JRManualMatchIndex manualMatches(account);
        for (const Pending &entry : std::as_const(pending)) {
            QVariantMap copy = result.at(entry.index).toMap();
            const QVariantList worklogs = fetched.value(text(copy, kIssue));
            // Under another marker (another group, issue or logged time) the same sessions may already be in
            // Jira, or may be any moment: such a draft shows the receipt's state and is never eligible.
            QVariantMap receipt = entry.receipt;
            if (receipt.isEmpty()) {
                receipt = coverage.blocking(copy);
                if (receipt.isEmpty() && callerSaysUncertain(copy))
                    receipt = {{kState, QStringLiteral("pending")}};
                if (!receipt.isEmpty()) {
                    copy.insert(QStringLiteral("jira_receipt_state"),
                        text(receipt, kState) == QStringLiteral("posted") ? QStringLiteral("posted")
                                                                          : QStringLiteral("pending"));
                    copy.insert(QStringLiteral("assignment"), QStringLiteral("Submission recorded"));
                }
            }
            const QVariantMap comparison = JRCompare(copy, worklogs, account, entry.marker, receipt);
            for (auto it = comparison.constBegin(); it != comparison.constEnd(); ++it)
                copy.insert(it.key(), it.value());
            const bool eligible = copy.value(QStringLiteral("eligible")).toBool();
            const QVariantList matches = eligible ? manualMatches.matches(copy, worklogs) : QVariantList {};
            copy.insert(QStringLiteral("manual_matches"), matches);
            if (!matches.isEmpty())
                copy.insert(
                    QStringLiteral("status"), QStringLiteral("Possible manual worklog — confirm match or review"));
            copy.insert(QStringLiteral("include"), eligible);
            result[entry.index] = copy;
        }

        recordCompletion(QStringLiteral("jira_compare_completed"), result.size(), false);
        return {{QStringLiteral("drafts"), result}, {QStringLiteral("account"), account},
            {QStringLiteral("receipts_found"), found}};
    } catch (const std::exception &caught) {
        // Named failures carry the sentence for the user; anything else (a system error) gets the general one.
        const auto *named = dynamic_cast<const NamedFailure *>(&caught);
        const QString reason
            = named && !named->reason().isEmpty() ? named->reason() : QStringLiteral("Checking Jira failed.");
        QVariantMap failed = event("failed");
        failed.insert(QStringLiteral("error"), reason);
        QVariantMap answer {{QStringLiteral("error"), reason}};
        // Jira's own explanation travels beside the sentence, for the user to read under it.
        if (named && !named->detail().isEmpty()) {
            failed.insert(QStringLiteral("detail"), named->detail());
            answer.insert(QStringLiteral("detail"), named->detail());
        }
        notify(progress, failed);
        recordCompletion(QStringLiteral("jira_compare_completed"), result.size(), true);
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
        recordCompletion(QStringLiteral("jira_post_completed"), completed, false);
        return posted;
    } catch (const std::exception &caught) {
        const auto *named = dynamic_cast<const NamedFailure *>(&caught);
        QVariantMap failed {{QStringLiteral("phase"), QStringLiteral("post")}, {kState, QStringLiteral("failed")},
            {kIssue, issue}, {kSourceKeys, sourceKeys}, {kCompleted, completed}, {kTotal, qint64(drafts.size())},
            {QStringLiteral("error"),
                named && !named->reason().isEmpty() ? named->reason() : QStringLiteral("Posting failed.")}};
        if (named && !named->detail().isEmpty())
            failed.insert(QStringLiteral("detail"), named->detail());
        notify(progress, failed);
        recordCompletion(QStringLiteral("jira_post_completed"), completed, true);
        throw;
    }
}

bool WorklogService::settle(QVariantMap &receipts, const QString &cloud, const QString &account)
{
    bool changed = false;
    for (auto it = m_found.constBegin(); it != m_found.constEnd(); ++it) {
        const QVariantMap &proof = it.value();
        const QVariant entry = receipts.value(it.key());
        if (text(proof, QStringLiteral("cloud")) != cloud || text(proof, QStringLiteral("account")) != account
            || entry.typeId() != QMetaType::QVariantMap)
            continue;
        QVariantMap receipt = entry.toMap();
        if (text(receipt, kState) == QStringLiteral("posted"))
            continue;
        // The record stays whole: only its state and Jira's id are added, as if the answer had arrived.
        receipt.insert(kState, QStringLiteral("posted"));
        receipt.insert(QStringLiteral("id"), text(proof, QStringLiteral("id")));
        receipts.insert(it.key(), receipt);
        changed = true;
    }
    m_found.clear();
    if (changed)
        m_store.saveReceipts(receipts);
    return changed;
}

QVariantList WorklogService::postRows(const QVariantList &rows, const QString &cloud, const QString &account,
    qint64 generation, Estimate estimate, const Progress &report, qint64 &completed, QString &issue,
    QStringList &sourceKeys)
{
    const qint64 total = rows.size();
    const auto event = [&](const char *state) {
        return QVariantMap {{QStringLiteral("phase"), QStringLiteral("post")}, {kState, QString::fromLatin1(state)},
            {kIssue, issue}, {kSourceKeys, sourceKeys}, {kCompleted, completed}, {kTotal, total}};
    };

    if (text(m_client.identity(cloud), QStringLiteral("accountId")) != account)
        throw failure("AccountChanged", "Jira account changed. Check Jira again.");

    QVariantMap receipts = m_store.receipts();

    // The user disconnected or reconnected since the check: what they approved no longer applies.
    if (m_client.generation() != generation)
        throw failure("ConnectionChanged", "Jira connection changed. Check Jira again.");

    settle(receipts, cloud, account);

    // Exclusions as they are now, not as they were when the rows were built: an exclusion or a manual match
    // added after the check must stop the post.
    IssueAssignments assignments(m_directory);
    for (const QVariant &item : rows) {
        const QVariantMap row = item.toMap();
        QVariantList sessions {row.value(QStringLiteral("session"))};
        sessions += row.value(QStringLiteral("source_sessions")).toList();
        bool excluded = text(row.value(kExclusion).toMap(), QStringLiteral("kind")) == QStringLiteral("ignore");
        for (const QVariant &value : std::as_const(sessions)) {
            const QVariantMap session = value.toMap();
            if (session.isEmpty())
                continue;
            const QVariantMap built = session.value(kExclusion).toMap();
            const QVariantMap now = assignments.resolve(session, cloud).value(kExclusion).toMap();
            const QString kind = text(now, QStringLiteral("kind"));
            excluded = excluded || text(built, QStringLiteral("kind")) == QStringLiteral("ignore")
                || kind == QStringLiteral("ignore") || (kind == QStringLiteral("manual") && now != built);
        }
        if (excluded)
            throw failure("Excluded", "This session is excluded from Jira. Check Jira again.");
    }

    QStringList markers;
    QSet<QString> seen;
    ReceiptCoverage coverage(receipts, cloud);
    for (const QVariant &item : rows) {
        const QVariantMap row = item.toMap();
        const QString marker = JRMarker(row, cloud, account);
        // Any receipt, posted or left pending by an earlier run, means the worklog may already be in Jira. The
        // same marker twice in one run would post one worklog twice. Under another marker, the receipts'
        // coverage still knows every session that is, or may be, in Jira.
        if (receipts.contains(marker) || seen.contains(marker) || callerSaysUncertain(row)
            || !coverage.blocking(row).isEmpty())
            throw failure("Duplicate",
                "A session in this worklog is already posted or has an uncertain submission. Check Jira again.");
        coverage.add(row);
        seen.insert(marker);
        markers.append(marker);
    }

    const QString mode = estimate == Estimate::Reduce ? QStringLiteral("auto") : QStringLiteral("leave");
    QHash<QString, qint64> postedPerDay;
    QVariantList posted;
    for (qsizetype index = 0; index < rows.size(); ++index) {
        const QVariantMap row = rows.at(index).toMap();
        const QString &marker = markers.at(index);
        issue = text(row, kIssue);
        sourceKeys = JRSourceKeysForRows({row});

        // Re-check immediately before the POST: Jira must still hold what the user saw, plus what this run
        // has posted to the same issue and day.
        QDateTime from;
        QDateTime to;
        JRDayWindow({row}, from, to);
        const QVariantMap fresh = JRCompare(row, m_client.worklogs(issue, cloud, from, to, {}), account, marker, {});
        if (!fresh.value(QStringLiteral("eligible")).toBool())
            throw failure("Duplicate", "An entry is already posted or has an uncertain submission. Check Jira again.");
        const QString day = dayKey(row);
        const qint64 expected = row.value(QStringLiteral("existing")).toLongLong() + postedPerDay.value(day);
        if (fresh.value(QStringLiteral("existing")).toLongLong() != expected)
            throw failure("Changed", "Jira time changed since the last check. Check Jira again.");

        const QVariantMap payload = JRPayload(row, marker);
        QVariantMap receipt {
            {kState, QStringLiteral("pending")},
            {kIssue, issue},
            {QStringLiteral("source_key"), text(row, QStringLiteral("source_key"))},
            {QStringLiteral("coverage"), JRCoverage(row)},
            {QStringLiteral("cloud"), cloud},
            {QStringLiteral("payload"), payload},
        };
        // A token that cannot be refreshed fails here, before a receipt exists, not after it as an uncertain
        // submission; the POST below then finds the token fresh.
        m_client.access();
        receipts.insert(marker, receipt);
        m_store.saveReceipts(receipts);

        notify(report, event("submitting"));
        const QVariantMap created = m_client.post(payload, issue, cloud, mode);
        const QVariant spent = created.value(QStringLiteral("timeSpentSeconds"));
        const qint64 seconds = HLIsJSONNumber(spent) ? spent.toLongLong() : JRPostSeconds(row);
        postedPerDay[day] += seconds;

        receipt.insert(kState, QStringLiteral("posted"));
        receipt.insert(QStringLiteral("id"), created.value(QStringLiteral("id")).toString());
        receipts.insert(marker, receipt);
        m_store.saveReceipts(receipts);

        ++completed;
        posted.append(QVariantMap {{QStringLiteral("marker"), marker}, {kIssue, issue},
            {QStringLiteral("id"), receipt.value(QStringLiteral("id"))}, {QStringLiteral("seconds"), seconds},
            {kSourceKeys, sourceKeys}});
        notify(report, event("complete"));
    }
    return posted;
}
