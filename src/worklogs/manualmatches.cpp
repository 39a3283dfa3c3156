#include "worklogs/manualmatches.h"

#include "worklogs/engineinternal.h"
#include "worklogs/marker.h"
#include "worklogs/preferences.h"

#include <algorithm>

using namespace jrinternal;

QVariantList JRManualMatches(const QVariantMap &draft, const QVariantList &worklogs, const QString &accountId)
{
    const QDateTime start = JRDate(draft.value(QStringLiteral("started")));
    if (!start.isValid())
        return {};
    const QDate day = localDay(start);
    const QString linkedId = plainText(draft.value(QStringLiteral("manual_worklog_id")));
    const qint64 postSeconds = JRPostSeconds(draft);
    const QString draftComment = plainText(draft.value(QStringLiteral("comment")));

    struct Candidate {
        int score;
        QString started;
        QVariantMap record;
    };
    std::vector<Candidate> candidates;
    for (const QVariant &entry : worklogs) {
        if (!isMap(entry))
            continue;
        const QVariantMap worklog = entry.toMap();
        const QString id = plainText(worklog.value(QStringLiteral("id")));
        if (!linkedId.isEmpty() && id == linkedId)
            continue;
        const QDateTime started = JRDate(worklog.value(QStringLiteral("started")));
        if (!started.isValid()
            || !isText(mapValue(worklog.value(QStringLiteral("author"))).value(QStringLiteral("accountId")), accountId))
            continue;
        if (id.isEmpty())
            continue;
        if (!JRLogMarker(worklog).isNull())
            continue;
        if (localDay(started) != day)
            continue;
        const QString text = JRText(worklog.value(QStringLiteral("comment")));
        if (text.contains(QStringLiteral("[Hourloom:")) || text.contains(QStringLiteral("[Stintwatch Companion:")))
            continue;

        bool spentOk = false;
        const qint64 spent = int64Value(worklog.value(QStringLiteral("timeSpentSeconds")), &spentOk);
        const bool sameDuration = spentOk && spent == postSeconds;
        // Only the emptiness test trims: a comment with extra blank lines is a different comment.
        const bool sameComment = !text.trimmed().isEmpty() && text.compare(draftComment, Qt::CaseInsensitive) == 0;
        const int score = (sameDuration ? 2 : 0) + (sameComment ? 1 : 0);
        static const QString reasons[]
            = {QStringLiteral("Same issue and day — verify coverage"), QStringLiteral("Same comment"),
                QStringLiteral("Same duration"), QStringLiteral("Same duration and comment")};
        const QString startedText = worklog.value(QStringLiteral("started")).toString();
        candidates.push_back({score, startedText,
            QVariantMap {{QStringLiteral("id"), id}, {QStringLiteral("started"), startedText},
                {QStringLiteral("seconds"), spentOk ? spent : qint64(0)}, {QStringLiteral("comment"), text},
                {QStringLiteral("score"), score}, {QStringLiteral("reason"), reasons[score]}}});
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
