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

using namespace Qt::StringLiterals;

namespace
{

QString fixture(const QString &name)
{
    return testenv::dataPath(u"invoices/"_s + name);
}

QVariantMap session(const QString &description, const QDateTime &start, qint64 minutes)
{
    return {{u"description"_s, description}, {u"start_ms"_s, start.toMSecsSinceEpoch()},
        {u"end_ms"_s, start.addSecs(minutes * 60).toMSecsSinceEpoch()}};
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
        session(u"ED-12 Review release notes"_s, nine, 120),
        session(u"ED-12  review release notes"_s, nine.addSecs(3600), 90), // overlaps: 30 min more
        session(u"ED-9 Fix login time-out"_s, nine.addDays(3), 315),
        session(u"ED-9 Fix login time-out"_s, nine.addDays(3).addSecs(3600), 30), // inside the one before
        session(u"ED-9 Fix login time-out"_s, nine.addDays(7), 60), // the next week
        session(u"ED-7 Sprint planning"_s, nine.addDays(-7), 60), // the week before
    });

    ASSERT_TRUE(read(window, [&] { window.openInvoice(fixture(u"week.pdf"_s)); }));
    EXPECT_EQ(window.summaryText(), u"Total 12:30:00 (12h 30m) · $1,000.00 · 5 rows · 4 activities"_s);
    // ED-7, ED-9, ED-12, ED-101 in the invoice's order.
    EXPECT_EQ(window.trackedSeconds(), (QList<qint64> {0, 315 * 60, 150 * 60, 0}));
    EXPECT_EQ(window.invoicedSeconds(u"ED-12 Review release notes"_s), (135 + 150) * 60); // two rows
    EXPECT_EQ(window.invoicedSeconds(u"ED-9 Fix login time-out"_s), 315 * 60);
    EXPECT_EQ(window.copyText(),
        u"ED-7 Sprint planning\nED-9 Fix login time-out\nED-12 Review release notes\n"
        "ED-101 Customer call about the 2.4 upgrade\n"_s);
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
    text.setText(u"not a file"_s);
    EXPECT_EQ(InvoiceWindow::pdfFromMimeData(&text), QString());
    QMimeData files;
    files.setUrls({QUrl::fromLocalFile(u"/tmp/notes.txt"_s), QUrl::fromLocalFile(fixture(u"mismatch.pdf"_s))});
    ASSERT_EQ(InvoiceWindow::pdfFromMimeData(&files), fixture(u"mismatch.pdf"_s));

    ASSERT_TRUE(read(window, [&] {
        QDragEnterEvent enter(QPoint(10, 10), Qt::CopyAction, &files, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(&window, &enter); // a drop goes to the widget that accepted the drag
        EXPECT_TRUE(enter.isAccepted());
        QDropEvent drop(QPointF(10, 10), Qt::CopyAction, &files, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(&window, &drop);
    }));
    EXPECT_TRUE(window.summaryText().startsWith(u"The activity rows do not add up"_s));
    EXPECT_TRUE(window.trackedSeconds().isEmpty());
    EXPECT_EQ(window.copyText(), QString());

    // Only the latest of two readings is shown.
    QSignalSpy done(&window, &InvoiceWindow::invoiceRead);
    // The small one, read first, must not show.
    window.openInvoice(fixture(u"week.pdf"_s));
    window.openInvoice(fixture(u"month-20-pages.pdf"_s));
    ASSERT_TRUE(done.wait(30000));
    EXPECT_EQ(done.count(), 1);
    EXPECT_EQ(window.result().value(u"row_count"_s).toULongLong(), 600u);
    QApplication::clipboard()->clear();
    for (QPushButton *button : window.findChildren<QPushButton *>()) {
        if (button->text() == u"Copy Activities"_s)
            button->click();
    }
    EXPECT_EQ(QApplication::clipboard()->text(), window.copyText());
}
