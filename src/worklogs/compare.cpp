#include "worklogs/compare.h"

#include "worklogs/drafts.h"
#include "worklogs/engineinternal.h"
#include "worklogs/marker.h"
#include "worklogs/preferences.h"

#include <QSet>

#include <cstdlib>

using namespace jrinternal;

namespace
{

QVariantMap result(const QString &status, bool eligible, qint64 existing)
{
    return QVariantMap {{QStringLiteral("status"), status}, {QStringLiteral("eligible"), eligible},
        {QStringLiteral("existing"), existing}};
}

bool authoredBy(const QVariantMap &worklog, const QString &accountId)
{
    return isText(mapValue(worklog.value(QStringLiteral("author"))).value(QStringLiteral("accountId")), accountId);
}

} // namespace

QVariantMap JRCompare(const QVariantMap &draft, const QVariantList &worklogs, const QString &accountId,
    const QString &marker, const QVariantMap &receipt)
{
    const QVariantMap exclusion = mapValue(draft.value(QStringLiteral("jira_exclusion")));
    if (!exclusion.isEmpty())
        return result(JRExclusionStatus(exclusion), false, 0);
    const bool ignoreShort = JRIgnoreShortSessions();
    if (!valid(draft, ignoreShort)) {
        return result(ignoreShort ? QStringLiteral("Assign issue / at least 1m, at most 24h")
                                  : QStringLiteral("Assign issue / rounds to 0m or over 24h"),
            false, 0);
    }

    const QDateTime start = JRDate(draft.value(QStringLiteral("started")));
    const qint64 startMs = start.toMSecsSinceEpoch();
    const QDate day = localDay(start);
    const qint64 postSeconds = JRPostSeconds(draft);

    QSet<QString> keys;
    const QVariantList sourceKeys = listValue(draft.value(QStringLiteral("source_keys")));
    if (!sourceKeys.isEmpty()) {
        for (const QVariant &key : sourceKeys)
            keys.insert(plainText(key));
    } else {
        const QString key = plainText(draft.value(QStringLiteral("source_key")));
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
        withoutTitle.remove(QStringLiteral("issue_title"));
        const QString comment = QStringLiteral("comment");
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
    for (const QVariant &entry : worklogs) {
        if (!isMap(entry))
            continue;
        const QVariantMap worklog = entry.toMap();
        if (!authoredBy(worklog, accountId))
            continue;

        if (!combined && !keys.isEmpty()) {
            const QVariantMap sources = JRLogSources(worklog);
            if (sources.size() >= 2) {
                for (auto it = sources.constBegin(); it != sources.constEnd() && !combined; ++it)
                    combined = keys.contains(it.key());
            }
        }

        const QString text = JRText(worklog.value(QStringLiteral("comment")));
        const QString logMarker = JRLogMarker(worklog);
        const bool byProperty = !logMarker.isNull() && !marker.isEmpty() && logMarker == marker;
        bool byTag = false, byLegacyTag = false;
        if (!byProperty && !tag.isNull()) {
            byTag = text.contains(tag);
            byLegacyTag = !byTag && text.contains(legacyTag);
        }

        const QVariant spentValue = worklog.value(QStringLiteral("timeSpentSeconds"));
        bool spentOk = false;
        const qint64 spent = int64Value(spentValue, &spentOk);
        const QDateTime started = JRDate(worklog.value(QStringLiteral("started")));

        if (byProperty || byTag || byLegacyTag) {
            hit = true;
            buildComments();
            // The last marked worklog decides.
            const bool timesAgree = started.isValid() && std::llabs(started.toMSecsSinceEpoch() - startMs) < 1000
                && spentOk && spent == postSeconds;
            if (byProperty)
                match = timesAgree && text == propertyComment;
            else if (byTag)
                match = timesAgree && (text == tagComment || text == tagCommentWithoutTitle);
            else
                match = timesAgree && (text == legacyComment || text == legacyCommentWithoutTitle);
        }

        if (started.isValid() && localDay(started) == day) {
            // Negative time in a damaged worklog must not hide real time on the day.
            const qint64 seconds = spentOk ? std::max<qint64>(spent, 0) : 0;
            existing = saturatingAdd(existing, seconds);
            if (logMarker.isNull() && !text.contains(QStringLiteral("[Hourloom:"))
                && !text.contains(QStringLiteral("[Stintwatch Companion:")))
                manual = saturatingAdd(manual, seconds);
        }
    }

    QString status;
    if (hit)
        status = match ? QStringLiteral("Already posted") : QStringLiteral("Posted entry differs");
    else if (combined)
        status = QStringLiteral("Posted in a combined worklog");
    else if (!receipt.isEmpty())
        status = plainText(receipt.value(QStringLiteral("state"))) == u"posted"
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
        = isYes(draft.value(QStringLiteral("source_running"))) ? QStringLiteral("running") : QStringLiteral("stopped");
    return JRHash(plainText(draft.value(QStringLiteral("source_key"))) + u'|'
        + plainText(draft.value(QStringLiteral("marker_seed"))) + u'|' + plainText(draft.value(QStringLiteral("issue")))
        + u'|' + QString::number(JRPostSeconds(draft)) + u'|' + plainText(draft.value(QStringLiteral("started"))) + u'|'
        + rowComment(draft) + u'|' + exclusionKind(draft) + u'|' + running);
}
