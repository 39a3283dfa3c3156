#pragma once

#include <QDateTime>
#include <QString>

// Jira's own text forms of instants and durations.
namespace standin
{

// "yyyy-MM-ddTHH:mm:ss.SSS+HHMM" in `zone` (an IANA name; UTC when unknown): milliseconds always, the offset
// without a colon, never "Z".
QString jiraDateTime(const QDateTime &instant, const QString &zone);

// Accepts only "yyyy-MM-dd'T'HH:mm:ss.SSSZ" (e.g. "2026-03-02T09:00:00.000+0100"); invalid otherwise.
QDateTime parseJiraDateTime(const QString &text);

// "3h 20m", "1d 2h", "1w": Jira's default time tracking counts 8 hours a day and 5 days a week.
QString jiraDuration(qint64 seconds);

// The inverse for "1w 2d 3h 4m" (a bare number counts minutes); -1 when the text is not a duration.
qint64 parseJiraDuration(const QString &text);

} // namespace standin
