#pragma once

#include "app/trayicons.h"

#include <QObject>
#include <QRect>
#include <QString>

class QAction;
class QMainWindow;
class QMenu;
class QSystemTrayIcon;

// The status item in the tray and its menu, plus the menu bar that the Worklogs window carries (Linux
// desktops have no global application menu). It only shows what it is given and reports what the user
// chose; the application delegate decides both.
class MenuBarController : public QObject
{
    Q_OBJECT

public:
    explicit MenuBarController(QObject *parent = nullptr);
    ~MenuBarController() override;

    // Status row, task row (shown only while tracking) and the image.
    void updateTracking(bool tracking, const QString &status, const QString &task);
    void setTaskTooltip(const QString &tooltip);
    // The text after "Hourloom · " in the tool tip; empty shows the name alone.
    void setTitle(const QString &title);
    void setNeedsAttention(bool attention);
    void setSessionCount(const QString &text);
    // The alternate row is shown, as a second row, when the work summary is switched on.
    void setWeeklySummary(const QString &summary, const QString &alternate);
    void setAlternateVisible(bool visible);
    void setStartAtLogin(bool enabled);

    bool menuOpen() const { return m_menuOpen; }
    // Where the tray shows the icon, or an empty rectangle when the tray does not say.
    QRect anchorRect() const;
    QSystemTrayIcon *trayIcon() const { return m_tray; }
    QMenu *statusMenu() const { return m_menu; }

    // Builds the application, File, Edit and View menus on the window's menu bar.
    void installMainMenu(QMainWindow *window, QMenu *columns);

    // Texts shown, for tests and the smoke run.
    QString statusText() const;
    QString taskText() const;
    bool taskVisible() const;
    QString summaryText() const;
    QString alternateText() const;
    bool alternateVisible() const;
    QString toolTip() const;
    TrayState state() const { return m_state; }

signals:
    void worklogsRequested();
    void settingsRequested();
    void invoiceRequested();
    void aboutRequested();
    void quitRequested();
    void checkJiraRequested();
    void exportHistoryRequested();
    void exportDiagnosticsRequested();
    void chooseFolderRequested();
    void startAtLoginChanged(bool enabled);
    void menuVisibilityChanged(bool open);

private:
    void refreshIcon();
    void refreshToolTip();

    QSystemTrayIcon *m_tray = nullptr;
    QMenu *m_menu = nullptr;
    QAction *m_status = nullptr;
    QAction *m_task = nullptr;
    QAction *m_summary = nullptr;
    QAction *m_alternate = nullptr;
    QAction *m_startAtLogin = nullptr;
    QString m_title;
    QString m_statusText;
    QString m_taskText;
    QString m_sessionCount;
    TrayState m_state = TrayState::Idle;
    bool m_tracking = false;
    bool m_attention = false;
    bool m_menuOpen = false;
};
