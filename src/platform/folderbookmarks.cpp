#include "platform/folderbookmarks.h"

#include <QFileInfo>

QString PathFolderBookmarks::resolve(const QByteArray &bookmark, bool *stale, PlatformError *)
{
    if (stale)
        *stale = false;
    const QString path = QString::fromUtf8(bookmark);
    if (path.isEmpty() || !QFileInfo(path).isDir())
        return {};
    return path;
}

QByteArray PathFolderBookmarks::create(const QString &path, PlatformError *)
{
    return path.toUtf8();
}

bool PathFolderBookmarks::startAccessing(const QString &path)
{
    const QFileInfo info(path);
    return info.isDir() && info.isReadable() && info.isExecutable();
}

void PathFolderBookmarks::stopAccessing(const QString &) { }
