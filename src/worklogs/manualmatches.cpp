#include "worklogs/manualmatches.h"

#include "worklogs/engineinternal.h"
#include "worklogs/marker.h"
#include "worklogs/preferences.h"
#include "worklogs/preparedworklogs.h"

#include <algorithm>

using namespace jrinternal;

QVariantList JRManualMatches(const QVariantMap &draft, const QVariantList &worklogs, const QString &accountId)
{
    qint64 startMs = 0;
    if (!parseJiraDate(draft.value(QStringLiteral("started")), startMs))
        return {};
    const LocalDayRange day = localDayRangeOf(startMs);
    const QString linkedId = plainText(draft.value(QStringLiteral("manual_worklog_id")));
    const qint64 postSeconds = JRPostSeconds(draft);
    const QString draftComment = plainText(draft.value(QStringLiteral("comment")));

    struct Candidate {
        int score;
        QString started;
        QVariantMap record;
    };
    std::vector<Candidate> candidates;
    static const QString reasons[] = {QStringLiteral("Same issue and day — verify coverage"),
        QStringLiteral("Same comment"), QStringLiteral("Same duration"), QStringLiteral("Same duration and comment")};
    for (const PreparedWorklog &worklog : preparedWorklogs(worklogs)) {
        if (!worklog.isRecord)
            continue;
        // The worklog already linked is not offered again.
        if (!linkedId.isEmpty() && worklog.id == linkedId)
            continue;
        if (!worklog.hasStart || !worklog.authoredBy(accountId) || worklog.id.isEmpty())
            continue;
        // Worklogs the program posted are never hand-made time.
        if (!worklog.marker.isNull() || worklog.hasAnyTag)
            continue;
        if (!day.contains(worklog.startedMs))
            continue;

        const bool sameDuration = worklog.hasSpent && worklog.spent == postSeconds;
        // Only the emptiness test trims: a comment with extra blank lines is a different comment.
        const bool sameComment
            = !worklog.text.trimmed().isEmpty() && worklog.text.compare(draftComment, Qt::CaseInsensitive) == 0;
        const int score = (sameDuration ? 2 : 0) + (sameComment ? 1 : 0);
        candidates.push_back({score, worklog.started,
            QVariantMap {{QStringLiteral("id"), worklog.id}, {QStringLiteral("started"), worklog.started},
                {QStringLiteral("seconds"), worklog.hasSpent ? worklog.spent : qint64(0)},
                {QStringLiteral("comment"), worklog.text}, {QStringLiteral("score"), score},
                {QStringLiteral("reason"), reasons[score]}}});
    }
    std::stable_sort(candidates.begin(), candidates.end(), [](const Candidate &a, const Candidate &b) {
        if (a.score != b.score)
            return a.score > b.score;
        return a.started < b.started;
    });
    QVariantList result;
    for (const Candidate &candidate : candidates)
        result.append(candidate.record);
    return result;
}
