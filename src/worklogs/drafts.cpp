#include "worklogs/drafts.h"

#include "records/draft.h"
#include "records/exclusion.h"
#include "records/receipt.h"
#include "records/session.h"
#include "worklogs/engineinternal.h"
#include "worklogs/preferences.h"

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

bool JRValid(const QVariantMap &draft)
{
    return valid(draft, JRIgnoreShortSessions());
}

QVariantList JRBuildDrafts(const QVariantList &sessions, const QDateTime &day)
{
    // Preferences are read once per call: a settings read per session would dominate a large day.
    const bool ignoreShort = JRIgnoreShortSessions();
    const bool combineDaily = JRCombineDailyByIssue();
    const LocalDayRange wanted = localDayRange(localDay(day));
    if (!wanted.date.isValid())
        return {};

    std::vector<Kept> kept;
    QHash<QString, int> groupSizes;
    for (const QVariant &entry : sessions) {
        if (!isMap(entry))
            continue;
        Kept item;
        item.session = entry.toMap();
        bool ok = false;
        const qint64 startMs = int64Value(item.session.value(SessionKey::kStartMs), &ok);
        if (!ok)
            continue;
        if (!wanted.contains(startMs))
            continue;
        item.start = QDateTime::fromMSecsSinceEpoch(startMs);
        item.issue = sessionIssue(item.session);
        item.combineKey = sessionCombineKey(item.session, item.issue, combineDaily);
        // An ignored session is never posted, so it cannot make a group's other pieces combinable.
        if (!item.combineKey.isNull() && exclusionKind(item.session) != kIgnore)
            ++groupSizes[item.combineKey];
        kept.push_back(std::move(item));
    }

    std::vector<std::pair<QString, QVariantMap>> drafts;
    drafts.reserve(kept.size());
    for (const Kept &item : kept) {
        const QVariantMap &session = item.session;
        const qint64 d = saturatingSub(
            int64Value(session.value(SessionKey::kEndMs)), int64Value(session.value(SessionKey::kStartMs)));
        const bool fragment
            = d >= 1 && d <= kLongestFragmentMs && !item.combineKey.isNull() && groupSizes.value(item.combineKey) > 1;
        if (d < kShortSessionMs && ignoreShort && !fragment)
            continue;

        // A fragment keeps its exact seconds so that its group's total is rounded once.
        const qint64 tracked = std::max<qint64>(d, 0) / 1000;
        const qint64 seconds = fragment ? tracked : JRRoundedSeconds(tracked);

        const QVariantMap exclusion = mapValue(session.value(SessionKey::kJiraExclusion));
        const QString kind = plainText(exclusion.value(ExclusionKey::kKind));
        qint64 manualCover = 0;
        if (kind == kManual) {
            manualCover = int64Value(exclusion.value(ExclusionKey::kSeconds));
            if (manualCover == 0)
                manualCover = seconds;
        }
        // Time in Jira is never negative; a negative value in a damaged record would inflate what is posted.
        const qint64 inJira
            = saturatingAdd(std::max<qint64>(int64Value(session.value(SessionKey::kJiraLoggedSeconds)), 0),
                std::max<qint64>(manualCover, 0));
        const qint64 capped = std::min(seconds, inJira);
        const qint64 logged = (fragment && capped >= 1) ? seconds : capped;
        const qint64 remaining = kind == kIgnore ? 0 : std::max<qint64>(seconds - logged, 0);

        const QString sourceKey = JRSourceKey(session);
        const QString activity = sessionActivity(session).isNull() ? QStringLiteral("")
                                                                   : textValue(session.value(SessionKey::kDescription));
        const bool custom = isYes(session.value(SessionKey::kCommentCustom));
        const QString title = textValue(session.value(SessionKey::kIssueTitle));
        QString comment;
        if (session.contains(SessionKey::kComment))
            comment = plainText(session.value(SessionKey::kComment));
        else
            comment = plainText(session.value(SessionKey::kDescription));
        if (!custom && !title.isEmpty() && activity.isEmpty())
            comment = QStringLiteral("");

        const bool running = isYes(session.value(SessionKey::kSourceRunning));
        const QString receiptState = plainText(session.value(SessionKey::kJiraReceiptState));
        QString status;
        if (receiptState == ReceiptKey::kPending)
            status = QStringLiteral("Submission uncertain");
        else if (kind == kIgnore)
            status = JRExclusionStatus(exclusion);
        else if (remaining > 0)
            status = running ? QStringLiteral("Tracking / not finalized") : QStringLiteral("Not checked yet");
        else
            status = QStringLiteral("Complete");

        QVariantMap draft;
        draft.insert(DraftKey::kSourceKey, sourceKey);
        draft.insert(DraftKey::kMarkerSeed,
            QString(sourceKey + u'|' + QString::number(logged) + u'|' + plainText(session.value(SessionKey::kIssue))));
        draft.insert(DraftKey::kIssue, item.issue);
        draft.insert(DraftKey::kSeconds, seconds);
        draft.insert(DraftKey::kSourceMilliseconds, std::max<qint64>(d, 0));
        draft.insert(DraftKey::kLoggedSeconds, logged);
        draft.insert(DraftKey::kRemainingSeconds, remaining);
        draft.insert(DraftKey::kPostSeconds, remaining);
        draft.insert(DraftKey::kStarted, JRISO(item.start));
        draft.insert(DraftKey::kComment, comment);
        draft.insert(DraftKey::kCommentCustom, custom);
        draft.insert(DraftKey::kIssueTitle, title);
        draft.insert(DraftKey::kSession, session);
        draft.insert(DraftKey::kJiraExclusion, remaining == 0 ? exclusion : QVariantMap());
        draft.insert(DraftKey::kManualWorklogId, plainText(exclusion.value(ExclusionKey::kWorklogId)));
        draft.insert(DraftKey::kAssignment, plainText(session.value(SessionKey::kAssignment)));
        draft.insert(DraftKey::kInclude, false);
        draft.insert(DraftKey::kEligible, false);
        draft.insert(DraftKey::kExisting, qint64(0));
        draft.insert(DraftKey::kFragment, fragment);
        draft.insert(DraftKey::kActivity, activity);
        draft.insert(DraftKey::kSourceRunning, running);
        draft.insert(DraftKey::kJiraReceiptState, receiptState);
        draft.insert(DraftKey::kStatus, status);
        drafts.emplace_back(draft.value(DraftKey::kStarted).toString(), draft);
    }

    // Sorting by the texts orders by start time within one offset, as the window shows them.
    std::stable_sort(drafts.begin(), drafts.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
    QVariantList result;
    result.reserve(qsizetype(drafts.size()));
    for (auto &entry : drafts)
        result.append(std::move(entry.second));
    return result;
}
