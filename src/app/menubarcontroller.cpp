#include "app/menubarcontroller.h"

#include <QAction>
#include <QApplication>
#include <QKeySequence>
#include <QMainWindow>
#include <QMenu>
#include <QMenuBar>
#include <QSystemTrayIcon>
#include <QWidget>

namespace
{

const QString kSummaryTip = QStringLiteral(
    "Selected week or month, based on retained intervals and the current hourly rate. Includes observed active "
    "time; not an invoice total. History may be incomplete.");
const QString kAlternateTip
    = QStringLiteral("Captured time and estimated earnings at the current hourly rate. History may be incomplete. ");

// The edit commands act on whatever has the keyboard focus, as they would in any text field or list.
void sendToFocus(const char *slot)
{
    if (QWidget *focus = QApplication::focusWidget())
        QMetaObject::invokeMethod(focus, slot);
}

QAction *infoRow(QMenu *menu, const QString &text)
{
    QAction *row = menu->addAction(text);
    row->setEnabled(false);
    return row;
}

} // namespace

MenuBarController::MenuBarController(QObject *parent)
    : QObject(parent)
    , m_menu(new QMenu)
{
    m_statusText = QStringLiteral("Reading Stintwatch…");
    m_status = infoRow(m_menu, m_statusText);
    m_task = infoRow(m_menu, QString());
    m_task->setVisible(false);
    m_summary = infoRow(m_menu, QStringLiteral("This week · calculating…"));
    m_summary->setToolTip(kSummaryTip);
    m_alternate = infoRow(m_menu, QString());
    m_alternate->setToolTip(kAlternateTip);
    m_alternate->setVisible(false);
    m_menu->addSeparator();
    connect(m_menu->addAction(tr("Worklogs…")), &QAction::triggered, this, &MenuBarController::worklogsRequested);
    // The tray cannot take a dropped file on every desktop, so the invoice reader is offered here as well.
    connect(m_menu->addAction(tr("Read Invoice…")), &QAction::triggered, this, &MenuBarController::invoiceRequested);
    m_menu->addSeparator();
    QAction *settings = m_menu->addAction(tr("Settings…"));
    settings->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Comma));
    connect(settings, &QAction::triggered, this, &MenuBarController::settingsRequested);
    QAction *quit = m_menu->addAction(tr("Quit Hourloom"));
    quit->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Q));
    connect(quit, &QAction::triggered, this, &MenuBarController::quitRequested);
    m_menu->setToolTipsVisible(true);
    connect(m_menu, &QMenu::aboutToShow, this, [this] {
        m_menuOpen = true;
        emit menuVisibilityChanged(true);
    });
    connect(m_menu, &QMenu::aboutToHide, this, [this] {
        m_menuOpen = false;
        emit menuVisibilityChanged(false);
    });

    m_tray = new QSystemTrayIcon(this);
    m_tray->setContextMenu(m_menu);
    connect(m_tray, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason == QSystemTrayIcon::Trigger || reason == QSystemTrayIcon::DoubleClick)
            emit worklogsRequested();
    });
    refreshIcon();
    refreshToolTip();
}

MenuBarController::~MenuBarController()
{
    delete m_menu;
}

void MenuBarController::updateTracking(bool tracking, const QString &status, const QString &task)
{
    m_tracking = tracking;
    m_statusText = status;
    m_taskText = task;
    m_status->setText(status);
    m_task->setText(task);
    m_task->setVisible(tracking);
    refreshIcon();
    refreshToolTip();
}

void MenuBarController::setTaskTooltip(const QString &tooltip)
{
    m_task->setToolTip(tooltip);
}

void MenuBarController::setTitle(const QString &title)
{
    m_title = title;
    m_status->setToolTip(title.isEmpty() ? QString() : QStringLiteral("Hourloom · ") + title);
    refreshToolTip();
}

void MenuBarController::setNeedsAttention(bool attention)
{
    m_attention = attention;
    refreshIcon();
}

void MenuBarController::setSessionCount(const QString &text)
{
    m_sessionCount = text;
    refreshToolTip();
}

void MenuBarController::setWeeklySummary(const QString &summary, const QString &alternate)
{
    m_summary->setText(summary);
    m_alternate->setText(alternate);
}

void MenuBarController::setAlternateVisible(bool visible)
{
    m_alternate->setVisible(visible);
}

void MenuBarController::setStartAtLogin(bool enabled)
{
    if (m_startAtLogin)
        m_startAtLogin->setChecked(enabled);
}

QRect MenuBarController::anchorRect() const
{
    return m_tray->geometry();
}

void MenuBarController::installMainMenu(QMainWindow *window, QMenu *columns)
{
    QMenuBar *bar = window->menuBar();
    bar->clear();

    QMenu *app = bar->addMenu(tr("&Hourloom"));
    connect(app->addAction(tr("About Hourloom")), &QAction::triggered, this, &MenuBarController::aboutRequested);
    QAction *settings = app->addAction(tr("Settings…"));
    settings->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Comma));
    connect(settings, &QAction::triggered, this, &MenuBarController::settingsRequested);
    app->addSeparator();
    connect(app->addAction(tr("Choose Stintwatch Folder…")), &QAction::triggered, this,
        &MenuBarController::chooseFolderRequested);
    connect(app->addAction(tr("Export Diagnostics…")), &QAction::triggered, this,
        &MenuBarController::exportDiagnosticsRequested);
    m_startAtLogin = app->addAction(tr("Start at Login"));
    m_startAtLogin->setCheckable(true);
    connect(m_startAtLogin, &QAction::toggled, this, &MenuBarController::startAtLoginChanged);
    app->addSeparator();
    QAction *quit = app->addAction(tr("Quit Hourloom"));
    quit->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Q));
    connect(quit, &QAction::triggered, this, &MenuBarController::quitRequested);

    QMenu *file = bar->addMenu(tr("&File"));
    connect(file->addAction(tr("Read Invoice…")), &QAction::triggered, this, &MenuBarController::invoiceRequested);
    QAction *exportHistory = file->addAction(tr("Export History…"));
    exportHistory->setShortcut(QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_E));
    connect(exportHistory, &QAction::triggered, this, &MenuBarController::exportHistoryRequested);
    QAction *close = file->addAction(tr("Close Window"));
    close->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_W));
    connect(close, &QAction::triggered, window, [window] {
        if (QWidget *active = QApplication::activeWindow())
            active->close();
        else
            window->close();
    });

    QMenu *edit = bar->addMenu(tr("&Edit"));
    const struct {
        const char *text;
        QKeySequence::StandardKey key;
        const char *slot;
    } editItems[] = {{"Cut", QKeySequence::Cut, "cut"}, {"Copy", QKeySequence::Copy, "copy"},
        {"Paste", QKeySequence::Paste, "paste"}, {"Select All", QKeySequence::SelectAll, "selectAll"}};
    for (const auto &item : editItems) {
        QAction *action = edit->addAction(tr(item.text));
        action->setShortcut(item.key);
        // The focused widget handles its own keys; the menu item serves the mouse.
        action->setShortcutContext(Qt::WidgetShortcut);
        const char *slot = item.slot;
        connect(action, &QAction::triggered, this, [slot] { sendToFocus(slot); });
    }

    QMenu *view = bar->addMenu(tr("&View"));
    QAction *check = view->addAction(tr("Check Jira Again"));
    check->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_R));
    connect(check, &QAction::triggered, this, &MenuBarController::checkJiraRequested);
    if (columns) {
        view->addSeparator();
        view->addMenu(columns);
    }
}

QString MenuBarController::statusText() const
{
    return m_status->text();
}
QString MenuBarController::taskText() const
{
    return m_task->text();
}
bool MenuBarController::taskVisible() const
{
    return m_task->isVisible();
}
QString MenuBarController::summaryText() const
{
    return m_summary->text();
}
QString MenuBarController::alternateText() const
{
    return m_alternate->text();
}
bool MenuBarController::alternateVisible() const
{
    return m_alternate->isVisible();
}
QString MenuBarController::toolTip() const
{
    return m_tray->toolTip();
}

void MenuBarController::refreshIcon()
{
    const TrayState state
        = m_attention ? TrayState::NeedsAttention : (m_tracking ? TrayState::Tracking : TrayState::Idle);
    if (state == m_state && !m_tray->icon().isNull())
        return;
    m_state = state;
    m_tray->setIcon(JTMenuIcon(state, JTPrefersSymbolic()));
}

void MenuBarController::refreshToolTip()
{
    QString tip = m_title.isEmpty() ? QStringLiteral("Hourloom") : QStringLiteral("Hourloom · ") + m_title;
    tip += QLatin1Char('\n') + m_statusText;
    if (!m_sessionCount.isEmpty())
        tip += QLatin1Char('\n') + m_sessionCount;
    m_tray->setToolTip(tip);
}
