#pragma once

#include "invoice/invoice.h"

#include <QDate>
#include <QHash>
#include <QVariantList>
#include <QVariantMap>
#include <QWidget>

class QLabel;
class QMimeData;
class QPushButton;
class QTreeWidget;

// The invoice window: reads an invoice PDF (chosen, dropped on it or handed over by the shell) and shows its
// total, amount, rows and activities beside the time tracked for the same activities in a week of history,
// with the difference, so a user sees at a glance whether the invoice matches what was tracked.
//
// The shell owns one window and keeps its sessions current with setSessions(); "Read Invoice…" calls
// chooseInvoice(), a PDF opened with the program or dropped elsewhere calls openInvoice(path).
class InvoiceWindow : public QWidget
{
    Q_OBJECT

public:
    explicit InvoiceWindow(QWidget *parent = nullptr);
    ~InvoiceWindow() override;

    // Shows and raises the window and reads the PDF at `path` in the background.
    void openInvoice(const QString &path);
    // Shows the window and asks for a PDF with the file dialog.
    void chooseInvoice();
    // Session records ("description", "start_ms", "end_ms"); the tracked column is recomputed.
    void setSessions(const QVariantList &sessions);
    // The week the tracked time is taken from (any day of it; the configured week start applies).
    void setWeek(const QDate &day);
    QDate weekStart() const { return m_weekStart; }

    // The first local PDF file among dropped or pasted data, or a null text.
    static QString pdfFromMimeData(const QMimeData *data);

    // What the window shows, for the shell and tests.
    bool isReading() const { return m_reading; }
    QVariantMap result() const { return m_result; }
    QString summaryText() const;
    // Seconds tracked in the week per activity of the invoice, in the invoice's order.
    QList<qint64> trackedSeconds() const;
    // The invoice's own seconds for an activity (its rows of that name added up).
    qint64 invoicedSeconds(const QString &description) const { return m_invoiced.value(description); }
    // The activities, one per line, as the copy button puts them on the clipboard.
    QString copyText() const;
    bool writeSnapshot(const QString &path) const;

Q_SIGNALS:
    void invoiceRead(); // a reading ended, with a result or a problem

protected:
    void dragEnterEvent(QDragEnterEvent *event) override;
    void dropEvent(QDropEvent *event) override;

private:
    void showResult(const QString &path, const invoice::Reading &reading);
    void refreshTracked();
    void copyActivities();

    QLabel *m_file = nullptr;
    QLabel *m_summary = nullptr;
    QLabel *m_week = nullptr;
    QLabel *m_comparison = nullptr;
    QTreeWidget *m_table = nullptr;
    QPushButton *m_copy = nullptr;

    QString m_path;
    QVariantMap m_result;
    QVariantList m_sessions;
    QDate m_weekStart;
    QList<qint64> m_tracked;
    QHash<QString, qint64> m_invoiced; // the invoice's own time per activity
    bool m_reading = false;
    quint64 m_generation = 0;
};
