#pragma once

#include <QString>
#include <QStringList>

namespace invoicetest
{

struct Row {
    QString name;
    QString share; // "18%", may be empty
    QString day; // "23 Mar", may be empty
    QString duration; // "h:mm:ss"
    QString amount; // "$180.00"
};

// An invoice as the tracker lays it out, drawn with QPdfWriter: a header, a table of rows over as many pages
// as `rowsPerPage` asks, page numbers, and a total row.
void writeInvoicePdf(const QString &path, const QList<Row> &rows, const QString &total, const QString &totalAmount,
    int rowsPerPage = 30);

} // namespace invoicetest
