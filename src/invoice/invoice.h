#pragma once

#include <QHash>
#include <QString>
#include <QVariantMap>

// Reads a weekly invoice: its activity rows, their total time and amount. Every failure is a result, never an
// exception: {"problem": message, "row_count": 0, "descriptions": []}. On success the result holds
// "total_seconds" (qint64), "total_amount" (double), "row_count" (the rows without the total row) and
// "descriptions" (the unique activity names, sorted as a file manager sorts names).
//
// The figures are refused unless the rows add up exactly to the total row: one misread row rejects the whole
// invoice rather than producing a plausible wrong total. Safe from any thread.
QVariantMap INVParsePDF(const QString &path);
QVariantMap INVParseText(const QString &text);

// Seconds of the first h:mm:ss duration in the text, or -1.
qint64 INVSeconds(const QString &text);
// "h:mm:ss" and "Xh Ym" (seconds dropped).
QString INVFormatDuration(qint64 seconds);
QString INVFormatHoursMinutes(qint64 seconds);

namespace invoice
{
// INVParsePDF's result, and the invoice's own time per activity (its rows of that name added up), for a
// comparison with tracked time. The map is empty when the result has a problem.
struct Reading {
    QVariantMap result;
    QHash<QString, qint64> secondsByDescription;
};
Reading readPDF(const QString &path);

// The two trailing clean-ups of a row's name, written out by hand because the patterns that describe them
// ("\s*\d{1,2}\s+[A-Z][a-z]{2}\s*$" and "\s*\d+\s*%\s*$") take quadratic time on a long run of blanks or
// digits. Exposed so that tests can hold them to the patterns.
QString removeTrailingDayMonth(const QString &name);
QString removeTrailingPercentage(const QString &name);
} // namespace invoice
