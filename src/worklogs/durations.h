#pragma once

// Tracked time as the engine rounds it, posts it and shows it.

#include <QString>
#include <QVariantMap>

// Nearest whole minute, 30 s rounding up; 0 for anything below 1.
qint64 JRRoundedSeconds(qint64 seconds);
// "post_seconds" when present (even 0), else "seconds".
qint64 JRPostSeconds(const QVariantMap &draft);
QString JRDurationText(qint64 seconds);
// -1 when the text is not a duration ("90", "1h 30m", "45m", "2H").
qint64 JRSecondsFromText(const QString &text);
