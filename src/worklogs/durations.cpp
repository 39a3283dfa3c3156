#include "worklogs/durations.h"

#include "records/draft.h"
#include "worklogs/values.h"

#include <QRegularExpression>

#include <algorithm>
#include <limits>

qint64 JRRoundedSeconds(qint64 seconds)
{
    if (seconds < 1)
        return 0;
    if (seconds > std::numeric_limits<qint64>::max() - 30)
        return (std::numeric_limits<qint64>::max() / 60) * 60;
    return ((seconds + 30) / 60) * 60;
}

qint64 JRPostSeconds(const QVariantMap &draft)
{
    const auto post = draft.constFind(DraftKey::kPostSeconds);
    if (post != draft.constEnd())
        return jrinternal::int64Value(*post);
    return jrinternal::int64Value(draft.value(DraftKey::kSeconds));
}

QString JRDurationText(qint64 seconds)
{
    const qint64 s = std::max<qint64>(seconds, 0);
    const qint64 m = s / 60;
    if (seconds < 3600)
        return QString::number(m) + u'm';
    const qint64 h = s / 3600;
    const qint64 r = m % 60;
    if (r == 0)
        return QString::number(h) + u'h';
    return QString::number(h) + QStringLiteral("h ") + QString::number(r) + u'm';
}

qint64 JRSecondsFromText(const QString &text)
{
    const QString trimmed = text.trimmed();
    if (trimmed.isEmpty())
        return -1;
    // One per thread: nothing is shared between callers on different threads.
    thread_local const QRegularExpression minutesOnly(QStringLiteral("\\A[0-9]{1,6}\\z"));
    thread_local const QRegularExpression hoursMinutes(
        QStringLiteral("\\A(?:([0-9]{1,6})\\s*h)?\\s*(?:([0-9]{1,6})\\s*m)?\\z"),
        QRegularExpression::CaseInsensitiveOption | QRegularExpression::UseUnicodePropertiesOption);
    if (minutesOnly.match(trimmed).hasMatch())
        return trimmed.toLongLong() * 60;
    const QRegularExpressionMatch match = hoursMinutes.match(trimmed);
    if (!match.hasMatch())
        return -1;
    const bool hasHours = match.capturedLength(1) > 0;
    const bool hasMinutes = match.capturedLength(2) > 0;
    if (!hasHours && !hasMinutes)
        return -1;
    qint64 result = 0;
    if (hasHours)
        result += match.captured(1).toLongLong() * 3600;
    if (hasMinutes)
        result += match.captured(2).toLongLong() * 60;
    return result;
}
