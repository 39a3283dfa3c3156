#include "invoicefixtures.h"

#include <QFont>
#include <QPageSize>
#include <QPainter>
#include <QPdfWriter>

using namespace Qt::StringLiterals;

namespace invoicetest
{

void writeInvoicePdf(
    const QString &path, const QList<Row> &rows, const QString &total, const QString &totalAmount, int rowsPerPage)
{
    QPdfWriter writer(path);
    writer.setPageSize(QPageSize(QPageSize::A4));
    writer.setResolution(72);
    writer.setTitle(u"Weekly invoice"_s);
    QPainter painter(&writer);
    QFont font(u"DejaVu Sans"_s);
    font.setPixelSize(9);
    painter.setFont(font);
    const int columns[] = {40, 300, 350, 410, 470, 520};
    const int pages = qMax(1, int((rows.size() + rowsPerPage - 1) / rowsPerPage));
    for (int page = 0; page < pages; ++page) {
        if (page > 0)
            writer.newPage();
        painter.drawText(40, 40, u"Invoice 2026-13"_s);
        painter.drawText(40, 55, u"Issued by: Ada Example, ada@example.com"_s);
        painter.drawText(40, 70, u"Date range: 23 Mar 2026 – 29 Mar 2026"_s);
        const QStringList titles
            = {u"Activity"_s, u"Project"_s, u"Start date"_s, u"Total hours"_s, u"Hourly rate"_s, u"Amount"_s};
        for (int column = 0; column < titles.size(); ++column)
            painter.drawText(columns[column], 100, titles[column]);
        int y = 120;
        for (qsizetype index = qsizetype(page) * rowsPerPage;
             index < rows.size() && index < qsizetype(page + 1) * rowsPerPage; ++index) {
            const Row &row = rows[index];
            const QStringList cells = {row.name, row.share, row.day, row.duration, u"$80.00"_s, row.amount};
            for (int column = 0; column < cells.size(); ++column)
                painter.drawText(columns[column], y, cells[column]);
            y += 18;
        }
        if (page == pages - 1) {
            painter.drawText(columns[0], y + 10, u"Total"_s);
            painter.drawText(columns[3], y + 10, total);
            painter.drawText(columns[5], y + 10, totalAmount);
        }
        painter.drawText(520, 820, u"%1 / %2"_s.arg(page + 1).arg(pages));
    }
    painter.end();
}

} // namespace invoicetest
