#pragma once

// The keys of an invoice reading (`INVParsePDF`, `INVParseText`).
//
// When you add a key, also change both results in invoice/invoice.cpp (the failure and the success).

#include <QString>

namespace InvoiceKey
{

// Why the invoice could not be read; present only on failure.
inline const QString kProblem = QStringLiteral("problem");
// The total row's time (qint64 seconds) and amount (double).
inline const QString kTotalSeconds = QStringLiteral("total_seconds");
inline const QString kTotalAmount = QStringLiteral("total_amount");
// The activity rows without the total row.
inline const QString kRowCount = QStringLiteral("row_count");
// The unique activity names, sorted as a file manager sorts names.
inline const QString kDescriptions = QStringLiteral("descriptions");

} // namespace InvoiceKey
