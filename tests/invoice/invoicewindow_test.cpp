#include "app/ui/invoicewindow.h"

#include "support/testenv.h"

#include <QApplication>
#include <QClipboard>
#include <QDateTime>
#include <QDropEvent>
#include <QMimeData>
#include <QPushButton>
#include <QSignalSpy>
#include <QUrl>

#include <gtest/gtest.h>

namespace
{

QString fixture(const QString &name)
{
    return testenv::dataPath(QStringLiteral("invoices/") + name);
}

QVariantMap session(const QString &description, const QDateTime &start, qint64 minutes)
{
    return {{QStringLiteral("description"), description}, {QStringLiteral("start_ms"), start.toMSecsSinceEpoch()},
        {QStringLiteral("end_ms"), start.addSecs(minutes * 60).toMSecsSinceEpoch()}};
}

bool read(InvoiceWindow &window, const std::function<void()> &start)
{
    QSignalSpy done(&window, &InvoiceWindow::invoiceRead);
    start();
    return done.wait(30000);
}

} // namespace

TEST(InvoiceWindow, ComparesTheInvoiceWithTheWeeksTrackedTime)
{
    InvoiceWindow window;
    const QDate monday(2026, 3, 23);
    window.setWeek(monday.addDays(2));
    ASSERT_EQ(window.weekStart(), monday); // "WeekStart" absent: weeks begin on Monday
    const QDateTime nine(monday, QTime(9, 0));
    window.setSessions({
        session(QStringLiteral("ED-12 Review release notes"), nine, 120),
        session(QStringLiteral("ED-12  review release notes"), nine.addSecs(3600), 90), // overlaps: 30 min more
        session(QStringLiteral("ED-9 Fix login time-out"), nine.addDays(3), 315),
        session(QStringLiteral("ED-9 Fix login time-out"), nine.addDays(7), 60), // the next week
        session(QStringLiteral("ED-7 Sprint planning"), nine.addDays(-7), 60), // the week before
    });

    ASSERT_TRUE(read(window, [&] { window.openInvoice(fixture(QStringLiteral("week.pdf"))); }));
    EXPECT_EQ(window.summaryText(), QStringLiteral("Total 12:30:00 (12h 30m) · $1,000.00 · 5 rows · 4 activities"));
    // ED-7, ED-9, ED-12, ED-101 in the invoice's order.
    EXPECT_EQ(window.trackedSeconds(), (QList<qint64> {0, 315 * 60, 150 * 60, 0}));
    EXPECT_EQ(window.invoicedSeconds(QStringLiteral("ED-12 Review release notes")), (135 + 150) * 60); // two rows
    EXPECT_EQ(window.invoicedSeconds(QStringLiteral("ED-9 Fix login time-out")), 315 * 60);
    EXPECT_EQ(window.copyText(),
        QStringLiteral("ED-7 Sprint planning\nED-9 Fix login time-out\nED-12 Review release notes\n"
                       "ED-101 Customer call about the 2.4 upgrade\n"));
    const QString snapshot = QStringLiteral(HOURLOOM_BINARY_DIR "/invoice-window.png");
    EXPECT_TRUE(window.writeSnapshot(snapshot));

    window.setWeek(monday.addDays(7));
    EXPECT_EQ(window.trackedSeconds(), (QList<qint64> {0, 60 * 60, 0, 0}));
}

TEST(InvoiceWindow, ReadsADroppedPDFAndShowsWhyAnInvoiceCannotBeRead)
{
    InvoiceWindow window;
    window.show();
    QMimeData text;
    text.setText(QStringLiteral("not a file"));
    EXPECT_EQ(InvoiceWindow::pdfFromMimeData(&text), QString());
    QMimeData files;
    files.setUrls({QUrl::fromLocalFile(QStringLiteral("/tmp/notes.txt")),
        QUrl::fromLocalFile(fixture(QStringLiteral("mismatch.pdf")))});
    ASSERT_EQ(InvoiceWindow::pdfFromMimeData(&files), fixture(QStringLiteral("mismatch.pdf")));

    ASSERT_TRUE(read(window, [&] {
        QDragEnterEvent enter(QPoint(10, 10), Qt::CopyAction, &files, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(&window, &enter); // a drop goes to the widget that accepted the drag
        EXPECT_TRUE(enter.isAccepted());
        QDropEvent drop(QPointF(10, 10), Qt::CopyAction, &files, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(&window, &drop);
    }));
    EXPECT_TRUE(window.summaryText().startsWith(QStringLiteral("The activity rows do not add up")));
    EXPECT_TRUE(window.trackedSeconds().isEmpty());
    EXPECT_EQ(window.copyText(), QString());

    // Only the latest of two readings is shown.
    QSignalSpy done(&window, &InvoiceWindow::invoiceRead);
    window.openInvoice(fixture(QStringLiteral("month-20-pages.pdf")));
    window.openInvoice(fixture(QStringLiteral("week.pdf")));
    ASSERT_TRUE(done.wait(30000));
    EXPECT_EQ(done.count(), 1);
    EXPECT_EQ(window.result().value(QStringLiteral("row_count")).toULongLong(), 5u);
    QApplication::clipboard()->clear();
    for (QPushButton *button : window.findChildren<QPushButton *>()) {
        if (button->text() == QStringLiteral("Copy Activities"))
            button->click();
    }
    EXPECT_EQ(QApplication::clipboard()->text(), window.copyText());
}
