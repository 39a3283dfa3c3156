#include "worklogs/drafts.h"

#include "records/draft.h"
#include "records/exclusion.h"
#include "records/receipt.h"
#include "records/session.h"
#include "worklogs/durations.h"
#include "worklogs/engineinternal.h"
#include "worklogs/preferences.h"
#include "worklogs/text.h"

#include <QHash>

#include <algorithm>

using namespace jrinternal;

namespace
{

const QString &kIgnore = ExclusionKey::kIgnore;
const QString &kManual = ExclusionKey::kManual;

// A session shorter than a minute is short: ignored when the user asks for it, unless it is a fragment.
constexpr qint64 kShortSessionMs = 60'000;
// The longest session that is still a fragment: under one minute, so it rounds to nothing on its own.
constexpr qint64 kLongestFragmentMs = kShortSessionMs - 1;

struct Kept {
    QVariantMap session;
    QDateTime start;
    QString issue;
    QString combineKey;
};

// The seconds of a draft: tracked, already in Jira, and left to post.
struct Times {
    qint64 trackedMs = 0;
    bool fragment = false;
    qint64 seconds = 0;
    qint64 logged = 0;
    qint64 remaining = 0;
};

// One call of the draft builder: the preferences it runs under, the day it builds, and the sessions of that
// day with the size of each group they would be combined into.
struct DraftRun {
    bool ignoreShort = true;
    bool combineDaily = true;
    LocalDayRange day;
    std::vector<Kept> kept;
    QHash<QString, int> groupSizes;

    void keepSessionsOfDay(const QVariantList &sessions)
    {
        for (const QVariant &entry : sessions) {
            if (!isMap(entry))
                continue;
            Kept item;
            item.session = entry.toMap();
            bool ok = false;
            const qint64 startMs = int64Value(item.session.value(SessionKey::kStartMs), &ok);
            if (!ok || !day.contains(startMs))
                continue;
            item.start = QDateTime::fromMSecsSinceEpoch(startMs);
            item.issue = sessionIssue(item.session);
            item.combineKey = sessionCombineKey(item.session, item.issue, combineDaily);
            // An ignored session is never posted, so it cannot make a group's other pieces combinable.
            if (!item.combineKey.isNull() && exclusionKind(item.session) != kIgnore)
                ++groupSizes[item.combineKey];
            kept.push_back(std::move(item));
        }
    }

    // False when the session is too short to become a draft.
    bool trackedTimes(const Kept &item, Times &times) const
    {
        const QVariantMap &session = item.session;
        const qint64 d = saturatingSub(
            int64Value(session.value(SessionKey::kEndMs)), int64Value(session.value(SessionKey::kStartMs)));
        times.fragment
            = d >= 1 && d <= kLongestFragmentMs && !item.combineKey.isNull() && groupSizes.value(item.combineKey) > 1;
        if (d < kShortSessionMs && ignoreShort && !times.fragment)
            return false;
        // A fragment keeps its exact seconds so that its group's total is rounded once.
        times.trackedMs = std::max<qint64>(d, 0);
        const qint64 tracked = times.trackedMs / 1000;
        times.seconds = times.fragment ? tracked : JRRoundedSeconds(tracked);
        return true;
    }

    static void loggedTimes(const QVariantMap &session, const QVariantMap &exclusion, Times &times)
    {
        const QString kind = plainText(exclusion.value(ExclusionKey::kKind));
        qint64 manualCover = 0;
        if (kind == kManual) {
            manualCover = int64Value(exclusion.value(ExclusionKey::kSeconds));
            if (manualCover == 0)
                manualCover = times.seconds;
        }
        // Time in Jira is never negative; a negative value in a damaged record would inflate what is posted.
        const qint64 inJira
            = saturatingAdd(std::max<qint64>(int64Value(session.value(SessionKey::kJiraLoggedSeconds)), 0),
                std::max<qint64>(manualCover, 0));
        const qint64 capped = std::min(times.seconds, inJira);
        times.logged = (times.fragment && capped >= 1) ? times.seconds : capped;
        times.remaining = kind == kIgnore ? 0 : std::max<qint64>(times.seconds - times.logged, 0);
    }

    // The session's own comment, else its description; none when the issue's title says it all.
    static QString commentFor(const QVariantMap &session, bool custom, const QString &title, const QString &activity)
    {
        QString comment;
        if (session.contains(SessionKey::kComment))
            comment = plainText(session.value(SessionKey::kComment));
        else
            comment = plainText(session.value(SessionKey::kDescription));
        if (!custom && !title.isEmpty() && activity.isEmpty())
            comment = QStringLiteral("");
        return comment;
    }

    static QString statusFor(
        const QString &receiptState, const QVariantMap &exclusion, const Times &times, bool running)
    {
        if (receiptState == ReceiptKey::kPending)
            return QStringLiteral("Submission uncertain");
        if (plainText(exclusion.value(ExclusionKey::kKind)) == kIgnore)
            return JRExclusionStatus(exclusion);
        if (times.remaining > 0)
            return running ? QStringLiteral("Tracking / not finalized") : QStringLiteral("Not checked yet");
        return QStringLiteral("Complete");
    }

    // The draft of one kept session; empty when the session is too short.
    QVariantMap draftFor(const Kept &item) const
    {
        Times times;
        if (!trackedTimes(item, times))
            return {};
        const QVariantMap &session = item.session;
        const QVariantMap exclusion = mapValue(session.value(SessionKey::kJiraExclusion));
        loggedTimes(session, exclusion, times);

        const QString sourceKey = JRSourceKey(session);
        const QString activity = sessionActivity(session).isNull() ? QStringLiteral("")
                                                                   : textValue(session.value(SessionKey::kDescription));
        const bool custom = isYes(session.value(SessionKey::kCommentCustom));
        const QString title = textValue(session.value(SessionKey::kIssueTitle));
        const bool running = isYes(session.value(SessionKey::kSourceRunning));
        const QString receiptState = plainText(session.value(SessionKey::kJiraReceiptState));

        QVariantMap draft;
        draft.insert(DraftKey::kSourceKey, sourceKey);
        draft.insert(DraftKey::kMarkerSeed,
            QString(sourceKey + u'|' + QString::number(times.logged) + u'|'
                + plainText(session.value(SessionKey::kIssue))));
        draft.insert(DraftKey::kIssue, item.issue);
        draft.insert(DraftKey::kSeconds, times.seconds);
        draft.insert(DraftKey::kSourceMilliseconds, times.trackedMs);
        draft.insert(DraftKey::kLoggedSeconds, times.logged);
        draft.insert(DraftKey::kRemainingSeconds, times.remaining);
        draft.insert(DraftKey::kPostSeconds, times.remaining);
        draft.insert(DraftKey::kStarted, JRISO(item.start));
        draft.insert(DraftKey::kComment, commentFor(session, custom, title, activity));
        draft.insert(DraftKey::kCommentCustom, custom);
        draft.insert(DraftKey::kIssueTitle, title);
        draft.insert(DraftKey::kSession, session);
        draft.insert(DraftKey::kJiraExclusion, times.remaining == 0 ? exclusion : QVariantMap());
        draft.insert(DraftKey::kManualWorklogId, plainText(exclusion.value(ExclusionKey::kWorklogId)));
        draft.insert(DraftKey::kAssignment, plainText(session.value(SessionKey::kAssignment)));
        draft.insert(DraftKey::kInclude, false);
        draft.insert(DraftKey::kEligible, false);
        draft.insert(DraftKey::kExisting, qint64(0));
        draft.insert(DraftKey::kFragment, times.fragment);
        draft.insert(DraftKey::kActivity, activity);
        draft.insert(DraftKey::kSourceRunning, running);
        draft.insert(DraftKey::kJiraReceiptState, receiptState);
        draft.insert(DraftKey::kStatus, statusFor(receiptState, exclusion, times, running));
        return draft;
    }
};

// Sorting by the texts orders by start time within one offset, as the window shows them.
QVariantList sortedByStart(std::vector<std::pair<QString, QVariantMap>> drafts)
{
    std::stable_sort(drafts.begin(), drafts.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
    QVariantList result;
    result.reserve(qsizetype(drafts.size()));
    for (auto &entry : drafts)
        result.append(std::move(entry.second));
    return result;
}

} // namespace

QString JRSourceKey(const QVariantMap &session)
{
    const qint64 apiId = int64Value(session.value(SessionKey::kApiId));
    // The server id survives a re-install of the tracker; the local id is all an unsynced session has.
    const QString identity = apiId >= 1 ? QStringLiteral("api:") + QString::number(apiId)
                                        : QStringLiteral("local:") + plainText(session.value(SessionKey::kLocalId));
    return JRHash(plainText(session.value(SessionKey::kSourceAccount)) + u'|'
        + plainText(session.value(SessionKey::kProject)) + u'|' + identity + u'|'
        + plainText(session.value(SessionKey::kStartMs)));
}

QString JRExclusionStatus(const QVariantMap &exclusion)
{
    if (exclusion.isEmpty())
        return QStringLiteral("");
    if (plainText(exclusion.value(ExclusionKey::kKind)) == kManual)
        return QStringLiteral("Manually logged · ") + plainText(exclusion.value(ExclusionKey::kIssue))
            + QStringLiteral(" / worklog ") + plainText(exclusion.value(ExclusionKey::kWorklogId));
    return QStringLiteral("Ignored for Jira");
}

QString JRCombineKey(const QVariantMap &draft)
{
    return combineKey(draft, JRCombineDailyByIssue());
}

QStringList JRCombineKeys(const QVariantList &drafts)
{
    const bool combineDaily = JRCombineDailyByIssue();
    LocalDayCache days;
    QStringList keys;
    keys.reserve(drafts.size());
    for (const QVariant &draft : drafts)
        keys.append(combineKey(draft.toMap(), combineDaily, &days));
    return keys;
}

bool JRValid(const QVariantMap &draft)
{
    return valid(draft, JRIgnoreShortSessions());
}

QVariantList JRBuildDrafts(const QVariantList &sessions, const QDateTime &day)
{
    // Preferences are read once per call: a settings read per session would dominate a large day.
    DraftRun run;
    run.ignoreShort = JRIgnoreShortSessions();
    run.combineDaily = JRCombineDailyByIssue();
    run.day = localDayRange(localDay(day));
    if (!run.day.date.isValid())
        return {};

    run.keepSessionsOfDay(sessions);
    std::vector<std::pair<QString, QVariantMap>> drafts;
    drafts.reserve(run.kept.size());
    for (const Kept &item : run.kept) {
        const QVariantMap draft = run.draftFor(item);
        if (!draft.isEmpty())
            drafts.emplace_back(draft.value(DraftKey::kStarted).toString(), draft);
    }
    return sortedByStart(std::move(drafts));
}
