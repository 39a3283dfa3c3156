#include "app/trayicons.h"

#include <QGuiApplication>
#include <QPainter>
#include <QPalette>
#include <QPixmap>
#include <QSvgRenderer>

namespace
{

// Drawn here rather than through the SVG icon plug-in, so the tray works without it.
QIcon iconFromSvg(const QString &path)
{
    QSvgRenderer renderer(path);
    QIcon icon;
    if (!renderer.isValid())
        return icon;
    for (const int size : {16, 22, 24, 32, 48, 64, 128}) {
        QPixmap pixmap(size, size);
        pixmap.fill(Qt::transparent);
        QPainter painter(&pixmap);
        renderer.render(&painter);
        painter.end();
        icon.addPixmap(pixmap);
    }
    return icon;
}

} // namespace

QIcon JTMenuIcon(TrayState state, bool symbolic)
{
    QString name;
    switch (state) {
    case TrayState::Idle:
        name = QStringLiteral("idle");
        break;
    case TrayState::Tracking:
        name = QStringLiteral("tracking");
        break;
    case TrayState::NeedsAttention:
        name = QStringLiteral("attention");
        break;
    }
    return iconFromSvg(QStringLiteral(":/icons/hourloom-") + name + (symbolic ? QStringLiteral("-symbolic") : QString())
        + QStringLiteral(".svg"));
}

bool JTPrefersSymbolic()
{
    return QGuiApplication::palette().color(QPalette::Window).lightness() < 128;
}

QIcon JTApplicationIcon()
{
    return iconFromSvg(QStringLiteral(":/icons/app.hourloom.Hourloom.svg"));
}
