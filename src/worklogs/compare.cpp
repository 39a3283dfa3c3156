#include "worklogs/compare.h"

#include "records/draft.h"
#include "records/receipt.h"
#include "records/worklog.h"
#include "worklogs/drafts.h"
#include "worklogs/engineinternal.h"
#include "worklogs/marker.h"
#include "worklogs/preferences.h"
#include "worklogs/preparedworklogs.h"

#include <QSet>

#include <cstdlib>

using namespace jrinternal;

namespace
{

// Jira keeps seconds; the draft's start has milliseconds. Starts this close are the same start.
constexpr qint64 kSameStartMs = 1000;

QVariantMap result(const QString &status, bool eligible, qint64 existing)
{
    return QVariantMap {{DraftKey::kStatus, status}, {DraftKey::kEligible, eligible}, {DraftKey::kExisting, existing}};
}

} // namespace

QVariantMap JRCompare(const QVariantMap &draft, const QVariantList &worklogs, const QString &accountId,
    const QString &marker, const QVariantMap &receipt)
{
    const QVariantMap exclusion = mapValue(draft.value(DraftKey::kJiraExclusion));
    if (!exclusion.isEmpty())
        return result(JRExclusionStatus(exclusion), false, 0);
    const bool ignoreShort = JRIgnoreShortSessions();
    if (!valid(draft, ignoreShort)) {
        return result(ignoreShort ? QStringLiteral("Assign issue / at least 1m, at most 24h")
                                  : QStringLiteral("Assign issue / rounds to 0m or over 24h"),
            false, 0);
    }

    qint64 startMs = 0;
    parseJiraDate(draft.value(DraftKey::kStarted), startMs); // valid drafts always have a start
    const LocalDayRange day = localDayRangeOf(startMs);
    const qint64 postSeconds = JRPostSeconds(draft);

    QSet<QString> keys;
    const QVariantList sourceKeys = listValue(draft.value(DraftKey::kSourceKeys));
    if (!sourceKeys.isEmpty()) {
        for (const QVariant &key : sourceKeys)
            keys.insert(plainText(key));
    } else {
        const QString key = plainText(draft.value(DraftKey::kSourceKey));
        if (!key.isEmpty())
            keys.insert(key);
    }

    // An empty marker would make "[Hourloom:]" look like this draft's tag.
    const QString tag = marker.isEmpty() ? QString() : JRMarkerTag(marker);
    const QString legacyTag = marker.isEmpty() ? QString() : JRLegacyMarkerTag(marker);
    // Built lazily: most worklogs on an issue carry no marker of this draft.
    QString propertyComment, tagComment, tagCommentWithoutTitle, legacyComment, legacyCommentWithoutTitle;
    bool commentsBuilt = false;
    const auto buildComments = [&] {
        if (commentsBuilt)
            return;
        commentsBuilt = true;
        QVariantMap withoutTitle = draft;
        withoutTitle.remove(DraftKey::kIssueTitle);
        const QString &comment = WorklogKey::kComment;
        propertyComment = JRText(JRPayload(draft, marker).value(comment));
        if (!tag.isNull()) {
            tagComment = JRText(JRPayloadWithTag(draft, tag).value(comment));
            tagCommentWithoutTitle = JRText(JRPayloadWithTag(withoutTitle, tag).value(comment));
            legacyComment = JRText(JRPayloadWithTag(draft, legacyTag).value(comment));
            legacyCommentWithoutTitle = JRText(JRPayloadWithTag(withoutTitle, legacyTag).value(comment));
        }
    };

    bool hit = false, match = false, combined = false;
    qint64 existing = 0, manual = 0;
    for (const PreparedWorklog &worklog : preparedWorklogs(worklogs)) {
        if (!worklog.isRecord || !worklog.authoredBy(accountId))
            continue;

        if (!combined && !keys.isEmpty()) {
            for (const QString &key : worklog.combinedSources) {
                if (keys.contains(key)) {
                    combined = true;
                    break;
                }
            }
        }

        const bool byProperty = !worklog.marker.isNull() && !marker.isEmpty() && worklog.marker == marker;
        bool byTag = false, byLegacyTag = false;
        if (!byProperty && !tag.isNull() && worklog.hasAnyTag) {
            byTag = worklog.text.contains(tag);
            byLegacyTag = !byTag && worklog.text.contains(legacyTag);
        }

        if (byProperty || byTag || byLegacyTag) {
            hit = true;
            buildComments();
            // The last marked worklog decides.
            const bool timesAgree = worklog.hasStart && std::llabs(worklog.startedMs - startMs) < kSameStartMs
                && worklog.hasSpent && worklog.spent == postSeconds;
            const QString &text = worklog.text;
            if (byProperty)
                match = timesAgree && text == propertyComment;
            else if (byTag)
                match = timesAgree && (text == tagComment || text == tagCommentWithoutTitle);
            else
                match = timesAgree && (text == legacyComment || text == legacyCommentWithoutTitle);
        }

        if (worklog.hasStart && day.contains(worklog.startedMs)) {
            // Negative time in a damaged worklog must not hide real time on the day.
            const qint64 seconds = worklog.hasSpent ? std::max<qint64>(worklog.spent, 0) : 0;
            existing = saturatingAdd(existing, seconds);
            if (worklog.marker.isNull() && !worklog.hasAnyTag)
                manual = saturatingAdd(manual, seconds);
        }
    }

    QString status;
    if (hit)
        status = match ? QStringLiteral("Already posted") : QStringLiteral("Posted entry differs");
    else if (combined)
        status = QStringLiteral("Posted in a combined worklog");
    else if (!receipt.isEmpty())
        status = plainText(receipt.value(ReceiptKey::kState)) == ReceiptKey::kPosted
            ? QStringLiteral("Previously posted — review changes")
            : QStringLiteral("Uncertain submission — review in Jira");
    else if (manual > 0)
        status = QStringLiteral("Existing time — review before including");
    else
        status = QStringLiteral("Ready");

    // A receipt means an earlier attempt: never eligible without the user's review.
    const bool eligible = receipt.isEmpty() && !hit && !combined;
    return result(status, eligible, existing);
}

QString JRComparisonFingerprint(const QVariantMap &draft)
{
    const QString running
        = isYes(draft.value(DraftKey::kSourceRunning)) ? QStringLiteral("running") : QStringLiteral("stopped");
    return JRHash(plainText(draft.value(DraftKey::kSourceKey)) + u'|' + plainText(draft.value(DraftKey::kMarkerSeed))
        + u'|' + plainText(draft.value(DraftKey::kIssue)) + u'|' + QString::number(JRPostSeconds(draft)) + u'|'
        + plainText(draft.value(DraftKey::kStarted)) + u'|' + rowComment(draft) + u'|' + exclusionKind(draft) + u'|'
        + running);
}
