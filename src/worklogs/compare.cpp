#include "worklogs/compare.h"

#include "records/draft.h"
#include "records/receipt.h"
#include "records/worklog.h"
#include "worklogs/drafts.h"
#include "worklogs/durations.h"
#include "worklogs/engineinternal.h"
#include "worklogs/marker.h"
#include "worklogs/preferences.h"
#include "worklogs/preparedworklogs.h"
#include "worklogs/text.h"

#include <QSet>

#include <algorithm>
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

// The source keys a draft stands for: its group's, else its own.
QSet<QString> sourceKeysOf(const QVariantMap &draft)
{
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
    return keys;
}

// The comments a worklog posted for this draft would carry, by the way it was marked. Built lazily: most
// worklogs on an issue carry no marker of this draft.
class ExpectedComments
{
public:
    ExpectedComments(const QVariantMap &draft, const QString &marker, const QString &tag, const QString &legacyTag)
        : m_draft(draft)
        , m_marker(marker)
        , m_tag(tag)
        , m_legacyTag(legacyTag)
    {
    }

    bool matchesProperty(const QString &text) { return build().property == text; }
    bool matchesTag(const QString &text) { return text == build().tag || text == m_texts.tagWithoutTitle; }
    bool matchesLegacyTag(const QString &text) { return text == build().legacy || text == m_texts.legacyWithoutTitle; }

private:
    struct Texts {
        QString property, tag, tagWithoutTitle, legacy, legacyWithoutTitle;
    };

    const Texts &build()
    {
        if (m_built)
            return m_texts;
        m_built = true;
        QVariantMap withoutTitle = m_draft;
        withoutTitle.remove(DraftKey::kIssueTitle);
        const QString &comment = WorklogKey::kComment;
        m_texts.property = JRText(JRPayload(m_draft, m_marker).value(comment));
        if (!m_tag.isNull()) {
            m_texts.tag = JRText(JRPayloadWithTag(m_draft, m_tag).value(comment));
            m_texts.tagWithoutTitle = JRText(JRPayloadWithTag(withoutTitle, m_tag).value(comment));
            m_texts.legacy = JRText(JRPayloadWithTag(m_draft, m_legacyTag).value(comment));
            m_texts.legacyWithoutTitle = JRText(JRPayloadWithTag(withoutTitle, m_legacyTag).value(comment));
        }
        return m_texts;
    }

    const QVariantMap &m_draft;
    const QString &m_marker;
    const QString &m_tag;
    const QString &m_legacyTag;
    bool m_built = false;
    Texts m_texts;
};

// What the user's worklogs on the draft's issue say about it.
struct Findings {
    bool hit = false; // a worklog carries the draft's marker
    bool match = false; // the last such worklog holds exactly what the draft would post
    bool combined = false; // a combined worklog covers one of the draft's sessions
    qint64 existing = 0; // seconds on the draft's day
    qint64 manual = 0; // of which in unmarked worklogs
};

Findings examine(const QVariantMap &draft, const QVariantList &worklogs, const QString &accountId,
    const QString &marker, qint64 startMs)
{
    const LocalDayRange day = localDayRangeOf(startMs);
    const qint64 postSeconds = JRPostSeconds(draft);
    const QSet<QString> keys = sourceKeysOf(draft);
    // An empty marker would make "[Hourloom:]" look like this draft's tag.
    const QString tag = marker.isEmpty() ? QString() : JRMarkerTag(marker);
    const QString legacyTag = marker.isEmpty() ? QString() : JRLegacyMarkerTag(marker);
    ExpectedComments expected(draft, marker, tag, legacyTag);

    Findings found;
    for (const PreparedWorklog &worklog : preparedWorklogs(worklogs)) {
        if (!worklog.isRecord || !worklog.authoredBy(accountId))
            continue;
        if (!found.combined && !keys.isEmpty())
            found.combined = std::any_of(worklog.combinedSources.cbegin(), worklog.combinedSources.cend(),
                [&keys](const QString &key) { return keys.contains(key); });

        const bool byProperty = !worklog.marker.isNull() && !marker.isEmpty() && worklog.marker == marker;
        bool byTag = false, byLegacyTag = false;
        if (!byProperty && !tag.isNull() && worklog.hasAnyTag) {
            byTag = worklog.text.contains(tag);
            byLegacyTag = !byTag && worklog.text.contains(legacyTag);
        }
        if (byProperty || byTag || byLegacyTag) {
            found.hit = true;
            // The last marked worklog decides.
            const bool timesAgree = worklog.hasStart && std::llabs(worklog.startedMs - startMs) < kSameStartMs
                && worklog.hasSpent && worklog.spent == postSeconds;
            if (byProperty)
                found.match = timesAgree && expected.matchesProperty(worklog.text);
            else if (byTag)
                found.match = timesAgree && expected.matchesTag(worklog.text);
            else
                found.match = timesAgree && expected.matchesLegacyTag(worklog.text);
        }

        if (worklog.hasStart && day.contains(worklog.startedMs)) {
            // Negative time in a damaged worklog must not hide real time on the day.
            const qint64 seconds = worklog.hasSpent ? std::max<qint64>(worklog.spent, 0) : 0;
            found.existing = saturatingAdd(found.existing, seconds);
            if (worklog.marker.isNull() && !worklog.hasAnyTag)
                found.manual = saturatingAdd(found.manual, seconds);
        }
    }
    return found;
}

QString statusOf(const Findings &found, const QVariantMap &receipt)
{
    if (found.hit)
        return found.match ? QStringLiteral("Already posted") : QStringLiteral("Posted entry differs");
    if (found.combined)
        return QStringLiteral("Posted in a combined worklog");
    if (!receipt.isEmpty())
        return plainText(receipt.value(ReceiptKey::kState)) == ReceiptKey::kPosted
            ? QStringLiteral("Previously posted — review changes")
            : QStringLiteral("Uncertain submission — review in Jira");
    if (found.manual > 0)
        return QStringLiteral("Existing time — review before including");
    return QStringLiteral("Ready");
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
    const Findings found = examine(draft, worklogs, accountId, marker, startMs);
    // A receipt means an earlier attempt: never eligible without the user's review.
    const bool eligible = receipt.isEmpty() && !found.hit && !found.combined;
    return result(statusOf(found, receipt), eligible, found.existing);
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
