// The floor of the idle-memory measurement: the smallest program that shows a tray icon with a menu through the
// same toolkit, and nothing else. It prints its resident memory once the icon has been shown for a while.
#include <QApplication>
#include <QFile>
#include <QMenu>
#include <QPixmap>
#include <QSystemTrayIcon>
#include <QTimer>

#include <cstdio>

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    app.setQuitOnLastWindowClosed(false);
    QPixmap pixmap(22, 22);
    pixmap.fill(Qt::darkCyan);
    QSystemTrayIcon tray((QIcon(pixmap)));
    QMenu menu;
    menu.addAction(QStringLiteral("Status"));
    menu.addAction(QStringLiteral("Quit"), &app, &QApplication::quit);
    tray.setContextMenu(&menu);
    tray.setToolTip(QStringLiteral("Bare tray"));
    tray.show();
    const int seconds = argc > 1 ? QByteArray(argv[1]).toInt() : 10;
    QTimer::singleShot(seconds * 1000, &app, [] {
        QFile status(QStringLiteral("/proc/self/status"));
        if (status.open(QIODevice::ReadOnly)) {
            for (const QByteArray &line : status.readAll().split('\n')) {
                if (line.startsWith("VmHWM:") || line.startsWith("VmRSS:"))
                    std::printf("%s\n", line.simplified().constData());
            }
        }
        QCoreApplication::quit();
    });
    return app.exec();
}
