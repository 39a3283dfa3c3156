#include "worklogs/manualmatches.h"

#include "worklogs/engineinternal.h"
#include "worklogs/preferences.h"
#include "worklogs/preparedworklogs.h"

#include <QHash>

#include <algorithm>
#include <array>
#include <map>
#include <unordered_map>
#include <vector>

using namespace jrinternal;

namespace
{

// A hand-made worklog of the user: one that passes every test that does not depend on the draft.
struct Candidate {
    qint64 startedMs = 0;
    QString id, started, text;
    bool hasSpent = false;
    qint64 spent = 0;
    bool commentCounts = false; // a blank comment never counts as the same comment
    // The candidate record for each score, built on first use and shared by every draft that lists it so.
    std::array<QVariant, 4> records;

    const QVariant &record(int score)
    {
        static const QString reasons[]
            = {QStringLiteral("Same issue and day — verify coverage"), QStringLiteral("Same comment"),
                QStringLiteral("Same duration"), QStringLiteral("Same duration and comment")};
        QVariant &record = records[size_t(score)];
        if (!record.isValid()) {
            // Keys in their sorted order, each placed at the end without a search.
            std::map<QString, QVariant> fields;
            const auto add = [&fields](const QString &key, QVariant value) {
                fields.emplace_hint(fields.end(), key, std::move(value));
            };
            add(QStringLiteral("comment"), text);
            add(QStringLiteral("id"), id);
            add(QStringLiteral("reason"), reasons[score]);
            add(QStringLiteral("score"), score);
            add(QStringLiteral("seconds"), hasSpent ? spent : qint64(0));
            add(QStringLiteral("started"), started);
            record = QVariantMap(std::move(fields));
        }
        return record;
    }
};

struct ListIndex {
    QVariantList held; // keeps the data alive, so no other list can come to share its address
    std::vector<Candidate> candidates; // in the list's order
    // Local day start → the candidates of that day, ordered by "started" (as texts), ties in the list's order.
    QHash<qint64, std::vector<Candidate *>> days;

    explicit ListIndex(const QVariantList &worklogs, const QString &accountId)
        : held(worklogs)
    {
        for (const PreparedWorklog &worklog : preparedWorklogs(worklogs)) {
            if (!worklog.isRecord || !worklog.hasStart || !worklog.authoredBy(accountId) || worklog.id.isEmpty())
                continue;
            // Worklogs the program posted are never hand-made time.
            if (!worklog.marker.isNull() || worklog.hasAnyTag)
                continue;
            Candidate &candidate = candidates.emplace_back();
            candidate.startedMs = worklog.startedMs;
            candidate.id = worklog.id;
            candidate.started = worklog.started;
            candidate.text = worklog.text;
            candidate.hasSpent = worklog.hasSpent;
            candidate.spent = worklog.spent;
            // Only the emptiness test trims: a comment with extra blank lines is a different comment.
            candidate.commentCounts = !worklog.text.trimmed().isEmpty();
        }
    }

    const std::vector<Candidate *> &day(const LocalDayRange &range)
    {
        auto found = days.find(range.beginMs);
        if (found != days.end())
            return *found;
        std::vector<Candidate *> bucket;
        for (Candidate &candidate : candidates) {
            if (range.contains(candidate.startedMs))
                bucket.push_back(&candidate);
        }
        std::stable_sort(bucket.begin(), bucket.end(),
            [](const Candidate *a, const Candidate *b) { return a->started < b->started; });
        return *days.insert(range.beginMs, std::move(bucket));
    }
};

} // namespace

struct JRManualMatchIndex::Private {
    QString accountId;
    std::unordered_map<const QVariant *, std::unique_ptr<ListIndex>> lists;
};

JRManualMatchIndex::JRManualMatchIndex(const QString &accountId)
    : d(std::make_unique<Private>())
{
    d->accountId = accountId;
}

JRManualMatchIndex::~JRManualMatchIndex() = default;

QVariantList JRManualMatchIndex::matches(const QVariantMap &draft, const QVariantList &worklogs)
{
    qint64 startMs = 0;
    if (worklogs.isEmpty() || !parseJiraDate(draft.value(QStringLiteral("started")), startMs))
        return {};
    const LocalDayRange range = localDayRangeOf(startMs);
    if (!range.date.isValid())
        return {};

    std::unique_ptr<ListIndex> &list = d->lists[worklogs.constData()];
    if (!list || list->held.size() != worklogs.size())
        list = std::make_unique<ListIndex>(worklogs, d->accountId);
    const std::vector<Candidate *> &bucket = list->day(range);
    if (bucket.empty())
        return {};

    // The worklog already linked is not offered again.
    const QString linkedId = plainText(draft.value(QStringLiteral("manual_worklog_id")));
    const qint64 postSeconds = JRPostSeconds(draft);
    const QString draftComment = plainText(draft.value(QStringLiteral("comment")));
    std::vector<quint8> scores(bucket.size());
    std::array<qsizetype, 4> counts {};
    for (size_t i = 0; i < bucket.size(); ++i) {
        const Candidate &candidate = *bucket[i];
        if (!linkedId.isEmpty() && candidate.id == linkedId) {
            scores[i] = 4;
            continue;
        }
        const bool sameDuration = candidate.hasSpent && candidate.spent == postSeconds;
        const bool sameComment
            = candidate.commentCounts && candidate.text.compare(draftComment, Qt::CaseInsensitive) == 0;
        scores[i] = quint8((sameDuration ? 2 : 0) + (sameComment ? 1 : 0));
        ++counts[scores[i]];
    }
    // Best score first; within a score the bucket's order by start.
    QVariantList result;
    result.reserve(counts[0] + counts[1] + counts[2] + counts[3]);
    for (int score = 3; score >= 0; --score) {
        if (counts[size_t(score)] == 0)
            continue;
        for (size_t i = 0; i < bucket.size(); ++i) {
            if (scores[i] == score)
                result.append(bucket[i]->record(score));
        }
    }
    return result;
}

QVariantList JRManualMatches(const QVariantMap &draft, const QVariantList &worklogs, const QString &accountId)
{
    return JRManualMatchIndex(accountId).matches(draft, worklogs);
}
