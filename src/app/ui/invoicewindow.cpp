#include "app/ui/invoicewindow.h"

#include "invoice/invoice.h"
#include "platform/clock.h"
#include "records/invoice.h"
#include "records/session.h"
#include "summary/timesummary.h"

#include <QApplication>
#include <QClipboard>
#include <QDateTime>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFileDialog>
#include <QFileInfo>
#include <QFutureWatcher>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QKeySequence>
#include <QLabel>
#include <QLocale>
#include <QMimeData>
#include <QPixmap>
#include <QPointer>
#include <QPushButton>
#include <QShortcut>
#include <QTreeWidget>
#include <QUrl>
#include <QVBoxLayout>
#include <QtConcurrent>

#include <algorithm>

namespace
{

QString normalized(const QString &description)
{
    return description.simplified().toCaseFolded();
}

QString signedDuration(qint64 seconds)
{
    if (seconds == 0)
        return QStringLiteral("0:00:00");
    return (seconds > 0 ? QStringLiteral("+") : QStringLiteral("−")) + INVFormatDuration(qAbs(seconds));
}

} // namespace

InvoiceWindow::InvoiceWindow(QWidget *parent)
    : QWidget(parent, Qt::Window)
{
    setWindowTitle(QStringLiteral("Invoice"));
    setAcceptDrops(true);
    resize(640, 460);

    auto *layout = new QVBoxLayout(this);
    auto *top = new QHBoxLayout;
    m_file = new QLabel(QStringLiteral("Drop an invoice PDF here, or choose one."), this);
    m_file->setTextInteractionFlags(Qt::TextSelectableByMouse);
    auto *choose = new QPushButton(QStringLiteral("Choose PDF…"), this);
    choose->setShortcut(QKeySequence::Open);
    choose->setToolTip(QStringLiteral("Read an invoice PDF (%1)")
                           .arg(QKeySequence(QKeySequence::Open).toString(QKeySequence::NativeText)));
    connect(choose, &QPushButton::clicked, this, &InvoiceWindow::chooseInvoice);
    top->addWidget(m_file, 1);
    top->addWidget(choose);
    layout->addLayout(top);

    m_summary = new QLabel(this);
    m_summary->setTextInteractionFlags(Qt::TextSelectableByMouse);
    m_summary->setWordWrap(true);
    QFont bold = m_summary->font();
    bold.setBold(true);
    m_summary->setFont(bold);
    layout->addWidget(m_summary);

    auto *weekRow = new QHBoxLayout;
    auto *previous = new QPushButton(QStringLiteral("◀"), this);
    auto *next = new QPushButton(QStringLiteral("▶"), this);
    previous->setToolTip(QStringLiteral("Previous week"));
    next->setToolTip(QStringLiteral("Next week"));
    previous->setAccessibleName(QStringLiteral("Previous week"));
    next->setAccessibleName(QStringLiteral("Next week"));
    previous->setFixedWidth(32);
    next->setFixedWidth(32);
    connect(previous, &QPushButton::clicked, this, [this] { setWeek(m_weekStart.addDays(-7)); });
    connect(next, &QPushButton::clicked, this, [this] { setWeek(m_weekStart.addDays(7)); });
    m_week = new QLabel(this);
    weekRow->addWidget(previous);
    weekRow->addWidget(m_week, 1);
    weekRow->addWidget(next);
    layout->addLayout(weekRow);

    m_table = new QTreeWidget(this);
    m_table->setRootIsDecorated(false);
    m_table->setAlternatingRowColors(true);
    m_table->setSelectionMode(QAbstractItemView::ExtendedSelection);
    m_table->setHeaderLabels({QStringLiteral("Activity on the invoice"), QStringLiteral("Invoiced"),
        QStringLiteral("Tracked that week"), QStringLiteral("Difference")});
    m_table->header()->setSectionResizeMode(0, QHeaderView::Stretch);
    for (int column = 1; column < 4; ++column)
        m_table->header()->setSectionResizeMode(column, QHeaderView::ResizeToContents);
    m_table->header()->setStretchLastSection(false);
    layout->addWidget(m_table, 1);

    m_comparison = new QLabel(this);
    m_comparison->setWordWrap(true);
    m_comparison->setTextInteractionFlags(Qt::TextSelectableByMouse);
    layout->addWidget(m_comparison);

    auto *bottom = new QHBoxLayout;
    bottom->addStretch(1);
    m_copy = new QPushButton(QStringLiteral("Copy Activities"), this);
    m_copy->setEnabled(false);
    connect(m_copy, &QPushButton::clicked, this, &InvoiceWindow::copyActivities);
    auto *copyShortcut = new QShortcut(QKeySequence::Copy, this);
    connect(copyShortcut, &QShortcut::activated, this, [this] {
        if (m_copy->isEnabled())
            copyActivities();
    });
    auto *close = new QPushButton(QStringLiteral("Close"), this);
    connect(close, &QPushButton::clicked, this, &QWidget::close);
    auto *escape = new QShortcut(QKeySequence(Qt::Key_Escape), this);
    connect(escape, &QShortcut::activated, this, &QWidget::close);
    bottom->addWidget(m_copy);
    bottom->addWidget(close);
    layout->addLayout(bottom);

    setWeek(QDate::currentDate());
}

InvoiceWindow::~InvoiceWindow() = default;

void InvoiceWindow::openInvoice(const QString &path)
{
    show();
    raise();
    activateWindow();
    m_path = path;
    m_reading = true;
    m_result.clear();
    m_invoiced.clear();
    m_file->setText(QFileInfo(path).fileName());
    m_file->setToolTip(path);
    m_summary->setText(QStringLiteral("Reading the invoice…"));
    m_table->clear();
    m_comparison->clear();
    m_copy->setEnabled(false);
    // A thousand-page document takes a while; the window stays responsive and only the latest reading counts.
    const quint64 generation = ++m_generation;
    auto *watcher = new QFutureWatcher<invoice::Reading>(this);
    connect(watcher, &QFutureWatcher<invoice::Reading>::finished, this, [this, watcher, generation, path] {
        watcher->deleteLater();
        if (generation == m_generation)
            showResult(path, watcher->result());
    });
    watcher->setFuture(QtConcurrent::run([path] { return invoice::readPDF(path); }));
}

void InvoiceWindow::chooseInvoice()
{
    show();
    raise();
    const QString start = m_path.isEmpty() ? QString() : QFileInfo(m_path).absolutePath();
    QFileDialog dialog(this, QStringLiteral("Read Invoice"), start, QStringLiteral("PDF documents (*.pdf *.PDF)"));
    dialog.setFileMode(QFileDialog::ExistingFile);
    // Qt's own dialog: the platform's have no place for a line of explanation.
    dialog.setOption(QFileDialog::DontUseNativeDialog);
    auto *message = new QLabel(QStringLiteral("Choose a Stintwatch invoice PDF."), &dialog);
    if (auto *grid = qobject_cast<QGridLayout *>(dialog.layout()))
        grid->addWidget(message, grid->rowCount(), 0, 1, grid->columnCount());
    if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty())
        return;
    openInvoice(dialog.selectedFiles().constFirst());
}

void InvoiceWindow::setSessions(const QVariantList &sessions)
{
    m_sessions = sessions;
    refreshTracked();
}

void InvoiceWindow::setWeek(const QDate &day)
{
    const QDateTime noon(day, QTime(12, 0));
    m_weekStart = TimeSummary::summaryStart(noon, 1).date();
    const QLocale locale;
    m_week->setText(QStringLiteral("Tracked time from the week of %1 to %2")
                        .arg(locale.toString(m_weekStart, QLocale::ShortFormat),
                            locale.toString(m_weekStart.addDays(6), QLocale::ShortFormat)));
    refreshTracked();
}

QString InvoiceWindow::pdfFromMimeData(const QMimeData *data)
{
    if (!data || !data->hasUrls())
        return {};
    for (const QUrl &url : data->urls()) {
        if (url.isLocalFile() && url.toLocalFile().endsWith(QStringLiteral(".pdf"), Qt::CaseInsensitive))
            return url.toLocalFile();
    }
    return {};
}

QString InvoiceWindow::summaryText() const
{
    return m_summary->text();
}

QList<qint64> InvoiceWindow::trackedSeconds() const
{
    return m_tracked;
}

QString InvoiceWindow::copyText() const
{
    const QStringList descriptions = m_result.value(InvoiceKey::kDescriptions).toStringList();
    return descriptions.isEmpty() ? QString() : descriptions.join(QLatin1Char('\n')) + QLatin1Char('\n');
}

bool InvoiceWindow::writeSnapshot(const QString &path) const
{
    auto *self = const_cast<InvoiceWindow *>(this);
    self->ensurePolished();
    if (QLayout *box = self->layout())
        box->activate(); // labels that changed since the last event loop pass get their height first
    return self->grab().save(path, "PNG");
}

void InvoiceWindow::dragEnterEvent(QDragEnterEvent *event)
{
    if (!pdfFromMimeData(event->mimeData()).isEmpty())
        event->acceptProposedAction();
}

void InvoiceWindow::dropEvent(QDropEvent *event)
{
    const QString path = pdfFromMimeData(event->mimeData());
    if (path.isEmpty())
        return;
    event->acceptProposedAction();
    openInvoice(path);
}

void InvoiceWindow::showResult(const QString &path, const invoice::Reading &reading)
{
    const QVariantMap &result = reading.result;
    m_reading = false;
    m_result = result;
    m_invoiced = reading.secondsByDescription;
    m_path = path;
    if (result.contains(InvoiceKey::kProblem)) {
        m_summary->setText(result.value(InvoiceKey::kProblem).toString());
        m_copy->setEnabled(false);
    } else {
        const qint64 seconds = result.value(InvoiceKey::kTotalSeconds).toLongLong();
        const qulonglong rows = result.value(InvoiceKey::kRowCount).toULongLong();
        const qsizetype unique = result.value(InvoiceKey::kDescriptions).toStringList().size();
        const auto amount
            = Decimal::fromText(QString::number(result.value(InvoiceKey::kTotalAmount).toDouble(), 'f', 2));
        m_summary->setText(QStringLiteral("Total %1 (%2) · %3 · %4 %5 · %6 %7")
                               .arg(INVFormatDuration(seconds), INVFormatHoursMinutes(seconds),
                                   amount ? TimeSummary::money(*amount, QStringLiteral("USD")) : QString())
                               .arg(rows)
                               .arg(rows == 1 ? QStringLiteral("row") : QStringLiteral("rows"))
                               .arg(unique)
                               .arg(unique == 1 ? QStringLiteral("activity") : QStringLiteral("activities")));
        m_copy->setEnabled(unique > 0);
    }
    refreshTracked();
    Q_EMIT invoiceRead();
}

void InvoiceWindow::refreshTracked()
{
    m_tracked.clear();
    m_table->clear();
    m_comparison->clear();
    const QStringList descriptions = m_result.value(InvoiceKey::kDescriptions).toStringList();
    if (descriptions.isEmpty())
        return;

    // Each activity's sessions within the week, overlapping ones counted once, running ones up to now.
    const qint64 weekStartMs = QDateTime(m_weekStart, QTime(0, 0)).toMSecsSinceEpoch();
    const qint64 weekEndMs = QDateTime(m_weekStart.addDays(7), QTime(0, 0)).toMSecsSinceEpoch();
    const qint64 nowMs = Clock::shared().wallMs();
    QHash<QString, QList<QPair<qint64, qint64>>> spans;
    for (const QVariant &value : std::as_const(m_sessions)) {
        const QVariantMap session = value.toMap();
        const qint64 start = session.value(SessionKey::kStartMs).toLongLong();
        qint64 end = session.value(SessionKey::kEndMs).toLongLong();
        if (end < start)
            end = nowMs;
        const qint64 from = std::max(start, weekStartMs);
        const qint64 to = std::min(end, weekEndMs);
        if (to > from)
            spans[normalized(session.value(SessionKey::kDescription).toString())].append({from, to});
    }
    auto covered = [](QList<QPair<qint64, qint64>> list) {
        std::sort(list.begin(), list.end());
        qint64 total = 0;
        qint64 a = 0;
        qint64 b = -1;
        for (const auto &[from, to] : list) {
            if (b >= a && from <= b) {
                b = std::max(b, to);
                continue;
            }
            if (b > a)
                total += b - a;
            a = from;
            b = to;
        }
        if (b > a)
            total += b - a;
        return total / 1000;
    };

    qint64 trackedTotal = 0;
    int untracked = 0;
    for (const QString &description : descriptions) {
        const qint64 seconds = covered(spans.value(normalized(description)));
        m_tracked.append(seconds);
        trackedTotal += seconds;
        if (seconds == 0)
            ++untracked;
        const qint64 invoiced = m_invoiced.value(description);
        auto *item = new QTreeWidgetItem(m_table,
            {description, INVFormatDuration(invoiced), seconds ? INVFormatDuration(seconds) : QStringLiteral("—"),
                signedDuration(seconds - invoiced)});
        for (int column = 1; column < 4; ++column)
            item->setTextAlignment(column, Qt::AlignRight | Qt::AlignVCenter);
        item->setToolTip(0, description);
    }
    const qint64 invoiced = m_result.value(InvoiceKey::kTotalSeconds).toLongLong();
    const qint64 difference = trackedTotal - invoiced;
    QString text = QStringLiteral("Tracked %1 · invoiced %2 · difference %3 (%4)")
                       .arg(INVFormatDuration(trackedTotal), INVFormatDuration(invoiced), signedDuration(difference),
                           difference == 0      ? QStringLiteral("they match")
                               : difference > 0 ? QStringLiteral("more tracked than invoiced")
                                                : QStringLiteral("less tracked than invoiced"));
    if (untracked > 0)
        text += QStringLiteral("\n%1 of %2 activities have no tracked time that week.")
                    .arg(untracked)
                    .arg(descriptions.size());
    m_comparison->setText(text);
}

void InvoiceWindow::copyActivities()
{
    QApplication::clipboard()->setText(copyText());
}
