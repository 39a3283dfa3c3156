#include "app/desktopurlopener.h"

#include <QDesktopServices>

void DesktopUrlOpener::open(const QUrl &url)
{
    QDesktopServices::openUrl(url);
}
