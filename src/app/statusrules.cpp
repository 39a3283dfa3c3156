#include "app/statusrules.h"

#include "records/session.h"
#include "source/logparser.h"
#include "worklogs/durations.h"
#include "worklogs/preferences.h"
#include "worklogs/text.h"

#include <algorithm>

QString HLIssueOf(const QString &description)
{
    const std::string issue = tracker::issue(description.toStdString());
    return issue.empty() ? SessionKey::kUnassigned : QString::fromStdString(issue);
}

StatusOutput HLStatusFor(const StatusInput &input)
{
    StatusOutput out;
    if (!input.hasMonitor) {
        out.status = QStringLiteral("Choose the Stintwatch folder");
        out.needsAttention = true;
        return out;
    }

    const bool tracking = input.lastKind == 1 && input.liveObserved;
    if (!input.stintwatchRunning) {
        out.status = QStringLiteral("Stintwatch is not running");
    } else if (!input.error.isEmpty()) {
        out.status = QStringLiteral("Monitoring needs attention");
        out.needsAttention = true;
    } else if (tracking) {
        const qint64 elapsed
            = input.started.isValid() ? std::max<qint64>(0, input.started.secsTo(input.now)) : qint64(0);
        out.status = QStringLiteral("Tracking · ") + JRDurationText(elapsed);
    } else if (input.lastKind == 2) {
        out.status = QStringLiteral("Stopped — last reported by Stintwatch");
    } else if (input.lastKind == 1) {
        out.status = QStringLiteral("Last reported: tracking · confirming it is still running");
    } else {
        out.status = QStringLiteral("Waiting for Stintwatch activity");
    }

    const QString issue = HLIssueOf(input.currentDescription);
    out.task = input.currentDescription.isEmpty()
        ? QStringLiteral("Start a Stintwatch task to observe its description.")
        : QStringLiteral("%1: %2").arg(issue, input.currentDescription);
    // The live state only counts while the tracker runs: a stale log must not keep the item "tracking".
    out.tracking = tracking && input.stintwatchRunning;
    out.taskVisible = out.tracking;
    if (out.tracking)
        out.title = issue == SessionKey::kUnassigned ? QStringLiteral("Tracking") : QStringLiteral("Tracking ") + issue;

    if (input.hideShortSessions && input.shortSessionCount > 0)
        out.sessionCount = QStringLiteral("%1 of %2 sessions · %3 under a minute hidden")
                               .arg(input.sessionCount - input.shortSessionCount)
                               .arg(input.sessionCount)
                               .arg(input.shortSessionCount);
    else
        out.sessionCount = QStringLiteral("%1 captured sessions").arg(input.sessionCount);

    out.intervalMs = out.tracking && input.menuOpen ? kLiveStatusIntervalMs : kStatusIntervalMs;
    return out;
}

QVariantList HLSessionsMarkingRunning(const QVariantList &rows, qint64 project, const QDateTime &now)
{
    const qint64 nowMs = now.toMSecsSinceEpoch();
    QVariantList marked = rows;
    for (QVariant &row : marked) {
        QVariantMap session = row.toMap();
        const qint64 start = session.value(SessionKey::kStartMs).toLongLong();
        const qint64 end = session.value(SessionKey::kEndMs).toLongLong();
        if (end >= start || start > nowMs || session.value(SessionKey::kProject).toLongLong() != project)
            continue;
        session.insert(SessionKey::kEndMs, nowMs);
        row = session;
    }
    return marked;
}

qsizetype HLShortSessionCount(const QVariantList &rows)
{
    return std::count_if(rows.cbegin(), rows.cend(), [](const QVariant &row) {
        const QVariantMap session = row.toMap();
        const qint64 start = session.value(SessionKey::kStartMs).toLongLong();
        const qint64 end = session.value(SessionKey::kEndMs).toLongLong();
        return end >= start && end - start < 60'000;
    });
}
