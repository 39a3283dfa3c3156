#include "worklogs/drafts.h"

#include "worklogs/engineinternal.h"
#include "worklogs/preferences.h"

#include <QHash>

#include <algorithm>

using namespace jrinternal;

namespace
{

const QString kIgnore = QStringLiteral("ignore");
const QString kManual = QStringLiteral("manual");

struct Kept {
    QVariantMap session;
    QDateTime start;
    QString issue;
    QString combineKey;
};

} // namespace

QString JRSourceKey(const QVariantMap &session)
{
    const qint64 apiId = int64Value(session.value(QStringLiteral("api_id")));
    // The server id survives a re-install of the tracker; the local id is all an unsynced session has.
    const QString identity = apiId >= 1
        ? QStringLiteral("api:") + QString::number(apiId)
        : QStringLiteral("local:") + plainText(session.value(QStringLiteral("local_id")));
    return JRHash(plainText(session.value(QStringLiteral("source_account"))) + u'|'
        + plainText(session.value(QStringLiteral("project"))) + u'|' + identity + u'|'
        + plainText(session.value(QStringLiteral("start_ms"))));
}

QString JRExclusionStatus(const QVariantMap &exclusion)
{
    if (exclusion.isEmpty())
        return QStringLiteral("");
    if (plainText(exclusion.value(QStringLiteral("kind"))) == kManual)
        return QStringLiteral("Manually logged · ") + plainText(exclusion.value(QStringLiteral("issue")))
            + QStringLiteral(" / worklog ") + plainText(exclusion.value(QStringLiteral("worklog_id")));
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
        const qint64 startMs = int64Value(item.session.value(QStringLiteral("start_ms")), &ok);
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
            int64Value(session.value(QStringLiteral("end_ms"))), int64Value(session.value(QStringLiteral("start_ms"))));
        const bool fragment
            = d >= 1 && d <= 59999 && !item.combineKey.isNull() && groupSizes.value(item.combineKey) > 1;
        if (d < 60000 && ignoreShort && !fragment)
            continue;

        // A fragment keeps its exact seconds so that its group's total is rounded once.
        const qint64 tracked = std::max<qint64>(d, 0) / 1000;
        const qint64 seconds = fragment ? tracked : JRRoundedSeconds(tracked);

        const QVariantMap exclusion = mapValue(session.value(QStringLiteral("jira_exclusion")));
        const QString kind = plainText(exclusion.value(QStringLiteral("kind")));
        qint64 manualCover = 0;
        if (kind == kManual) {
            manualCover = int64Value(exclusion.value(QStringLiteral("seconds")));
            if (manualCover == 0)
                manualCover = seconds;
        }
        // Time in Jira is never negative; a negative value in a damaged record would inflate what is posted.
        const qint64 inJira
            = saturatingAdd(std::max<qint64>(int64Value(session.value(QStringLiteral("jira_logged_seconds"))), 0),
                std::max<qint64>(manualCover, 0));
        const qint64 capped = std::min(seconds, inJira);
        const qint64 logged = (fragment && capped >= 1) ? seconds : capped;
        const qint64 remaining = kind == kIgnore ? 0 : std::max<qint64>(seconds - logged, 0);

        const QString sourceKey = JRSourceKey(session);
        const QString activity = sessionActivity(session).isNull()
            ? QStringLiteral("")
            : textValue(session.value(QStringLiteral("description")));
        const bool custom = isYes(session.value(QStringLiteral("comment_custom")));
        const QString title = textValue(session.value(QStringLiteral("issue_title")));
        QString comment;
        if (session.contains(QStringLiteral("comment")))
            comment = plainText(session.value(QStringLiteral("comment")));
        else
            comment = plainText(session.value(QStringLiteral("description")));
        if (!custom && !title.isEmpty() && activity.isEmpty())
            comment = QStringLiteral("");

        const bool running = isYes(session.value(QStringLiteral("source_running")));
        const QString receiptState = plainText(session.value(QStringLiteral("jira_receipt_state")));
        QString status;
        if (receiptState == u"pending")
            status = QStringLiteral("Submission uncertain");
        else if (kind == kIgnore)
            status = JRExclusionStatus(exclusion);
        else if (remaining > 0)
            status = running ? QStringLiteral("Tracking / not finalized") : QStringLiteral("Not checked yet");
        else
            status = QStringLiteral("Complete");

        QVariantMap draft;
        draft.insert(QStringLiteral("source_key"), sourceKey);
        draft.insert(QStringLiteral("marker_seed"),
            QString(
                sourceKey + u'|' + QString::number(logged) + u'|' + plainText(session.value(QStringLiteral("issue")))));
        draft.insert(QStringLiteral("issue"), item.issue);
        draft.insert(QStringLiteral("seconds"), seconds);
        draft.insert(QStringLiteral("source_milliseconds"), std::max<qint64>(d, 0));
        draft.insert(QStringLiteral("logged_seconds"), logged);
        draft.insert(QStringLiteral("remaining_seconds"), remaining);
        draft.insert(QStringLiteral("post_seconds"), remaining);
        draft.insert(QStringLiteral("started"), JRISO(item.start));
        draft.insert(QStringLiteral("comment"), comment);
        draft.insert(QStringLiteral("comment_custom"), custom);
        draft.insert(QStringLiteral("issue_title"), title);
        draft.insert(QStringLiteral("session"), session);
        draft.insert(QStringLiteral("jira_exclusion"), remaining == 0 ? exclusion : QVariantMap());
        draft.insert(QStringLiteral("manual_worklog_id"), plainText(exclusion.value(QStringLiteral("worklog_id"))));
        draft.insert(QStringLiteral("assignment"), plainText(session.value(QStringLiteral("assignment"))));
        draft.insert(QStringLiteral("include"), false);
        draft.insert(QStringLiteral("eligible"), false);
        draft.insert(QStringLiteral("existing"), qint64(0));
        draft.insert(QStringLiteral("fragment"), fragment);
        draft.insert(QStringLiteral("activity"), activity);
        draft.insert(QStringLiteral("source_running"), running);
        draft.insert(QStringLiteral("jira_receipt_state"), receiptState);
        draft.insert(QStringLiteral("status"), status);
        drafts.emplace_back(draft.value(QStringLiteral("started")).toString(), draft);
    }

    // Sorting by the texts orders by start time within one offset, as the window shows them.
    std::stable_sort(drafts.begin(), drafts.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
    QVariantList result;
    result.reserve(qsizetype(drafts.size()));
    for (auto &entry : drafts)
        result.append(std::move(entry.second));
    return result;
}
