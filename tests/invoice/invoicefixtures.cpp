#include "invoicefixtures.h"

#include <QFont>
#include <QPageSize>
#include <QPainter>
#include <QPdfWriter>

namespace invoicetest
{

void writeInvoicePdf(
    const QString &path, const QList<Row> &rows, const QString &total, const QString &totalAmount, int rowsPerPage)
{
    QPdfWriter writer(path);
    writer.setPageSize(QPageSize(QPageSize::A4));
    writer.setResolution(72);
    writer.setTitle(QStringLiteral("Weekly invoice"));
    QPainter painter(&writer);
    QFont font(QStringLiteral("DejaVu Sans"));
    font.setPixelSize(9);
    painter.setFont(font);
    const int columns[] = {40, 300, 350, 410, 470, 520};
    const int pages = qMax(1, int((rows.size() + rowsPerPage - 1) / rowsPerPage));
    for (int page = 0; page < pages; ++page) {
        if (page > 0)
            writer.newPage();
        painter.drawText(40, 40, QStringLiteral("Invoice 2026-13"));
        painter.drawText(40, 55, QStringLiteral("Issued by: Ada Example, ada@example.com"));
        painter.drawText(40, 70, QStringLiteral("Date range: 23 Mar 2026 – 29 Mar 2026"));
        const QStringList titles = {QStringLiteral("Activity"), QStringLiteral("Project"), QStringLiteral("Start date"),
            QStringLiteral("Total hours"), QStringLiteral("Hourly rate"), QStringLiteral("Amount")};
        for (int column = 0; column < titles.size(); ++column)
            painter.drawText(columns[column], 100, titles[column]);
        int y = 120;
        for (qsizetype index = qsizetype(page) * rowsPerPage;
             index < rows.size() && index < qsizetype(page + 1) * rowsPerPage; ++index) {
            const Row &row = rows[index];
            const QStringList cells
                = {row.name, row.share, row.day, row.duration, QStringLiteral("$80.00"), row.amount};
            for (int column = 0; column < cells.size(); ++column)
                painter.drawText(columns[column], y, cells[column]);
            y += 18;
        }
        if (page == pages - 1) {
            painter.drawText(columns[0], y + 10, QStringLiteral("Total"));
            painter.drawText(columns[3], y + 10, total);
            painter.drawText(columns[5], y + 10, totalAmount);
        }
        painter.drawText(520, 820, QStringLiteral("%1 / %2").arg(page + 1).arg(pages));
    }
    painter.end();
}

} // namespace invoicetest
