#include "app/demosnapshots.h"

#include "app/appdelegate.h"
#include "app/menubarcontroller.h"
#include "app/ui/jirareviewwindowcontroller.h"

#include <QApplication>
#include <QDir>
#include <QGuiApplication>
#include <QMainWindow>
#include <QMenu>
#include <QPixmap>
#include <QScreen>
#include <QSystemTrayIcon>
#include <QTimer>
#include <QWindow>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <memory>

namespace
{

constexpr int kSettleMs = 5000; // the demo's tracker starts its session and the panel repaints
constexpr int kGiveUpMs = 30000;

void save(const QPixmap &pixmap, const QString &path)
{
    if (pixmap.isNull() || !pixmap.save(path, "PNG"))
        std::fprintf(stderr, "Could not write %s\n", qPrintable(path));
    else
        std::printf("wrote %s\n", qPrintable(path));
    std::fflush(stdout);
}

// The part of the screen from the tray icon down to the bottom of the menu, with a margin.
QPixmap grabAround(const QRect &area)
{
    QScreen *screen = QGuiApplication::primaryScreen();
    const QRect bounded = area.adjusted(-24, -8, 24, 24).intersected(screen->geometry());
    return screen->grabWindow(0, bounded.x(), bounded.y(), bounded.width(), bounded.height());
}

} // namespace

void HLTakeDemoSnapshots(AppDelegate &delegate, const QString &folder)
{
    QDir().mkpath(folder);
    auto *poll = new QTimer(&delegate);
    auto waited = std::make_shared<int>(0);
    QObject::connect(poll, &QTimer::timeout, &delegate, [&delegate, folder, poll, waited] {
        *waited += 250;
        MenuBarController *menuBar = delegate.menuBar();
        const bool docked = menuBar && menuBar->anchorRect().isValid();
        if (!docked && *waited < kGiveUpMs)
            return;
        poll->deleteLater();
        if (!docked)
            std::fputs("No tray icon appeared; the pictures show the screen without it.\n", stderr);
        QTimer::singleShot(kSettleMs, &delegate, [&delegate, folder, menuBar] {
            const QRect icon = menuBar->anchorRect();
            QScreen *screen = QGuiApplication::primaryScreen();
            save(screen->grabWindow(0), folder + QStringLiteral("/desktop-tray.png"));
            QMenu *menu = menuBar->statusMenu();
            // Where a click on the icon opens it: below the panel, right-aligned to the icon.
            const QSize size = menu->sizeHint();
            const QPoint at(std::max(0, icon.right() - size.width()), icon.isValid() ? icon.bottom() + 2 : 30);
            menu->popup(at);
            QTimer::singleShot(800, &delegate, [&delegate, folder, menu, icon] {
                save(grabAround(menu->geometry().united(icon.isValid() ? icon : menu->geometry())),
                    folder + QStringLiteral("/tray-menu.png"));
                menu->hide();
                delegate.jira();
                QTimer::singleShot(1500, &delegate, [&delegate, folder] {
                    QMainWindow *window = delegate.reviewController()->window();
                    save(window->grab(), folder + QStringLiteral("/worklogs-window.png"));
                    save(QGuiApplication::primaryScreen()->grabWindow(0), folder + QStringLiteral("/desktop.png"));
                    QCoreApplication::quit();
                });
            });
        });
    });
    poll->start(250);
}

void HLReportTrayShown(AppDelegate &delegate)
{
    auto *poll = new QTimer(&delegate);
    poll->setTimerType(Qt::PreciseTimer);
    QObject::connect(poll, &QTimer::timeout, &delegate, [&delegate, poll] {
        if (!delegate.menuBar() || !delegate.menuBar()->anchorRect().isValid())
            return;
        timespec now {};
        clock_gettime(CLOCK_REALTIME, &now);
        std::printf("tray-icon-shown %lld\n", static_cast<long long>(now.tv_sec) * 1'000'000'000LL + now.tv_nsec);
        std::fflush(stdout);
        poll->deleteLater();
    });
    poll->start(2);
}

void HLReportWorklogsShown(AppDelegate &delegate)
{
    auto *poll = new QTimer(&delegate);
    QObject::connect(poll, &QTimer::timeout, &delegate, [poll] {
        const auto widgets = QApplication::topLevelWidgets();
        const bool shown = std::any_of(widgets.cbegin(), widgets.cend(), [](const QWidget *widget) {
            return widget->isVisible() && widget->windowTitle() == QLatin1String("Worklogs") && widget->windowHandle()
                && widget->windowHandle()->isExposed();
        });
        if (!shown)
            return;
        std::printf("worklogs-shown\n");
        std::fflush(stdout);
        poll->deleteLater();
    });
    poll->start(20);
}
