#pragma once

#include "platform/platformerror.h"

#include <QByteArray>
#include <QString>

// Lasting permission to read a folder the user chose, for a process inside an application sandbox. The
// folder access rules are written against this interface so that they can be exercised with a fake.
class FolderBookmarks
{
public:
    virtual ~FolderBookmarks() = default;

    // The folder a stored bookmark stands for; a null string when it cannot be resolved (the error may say
    // why). `stale` is set when the bookmark still works but should be made again.
    virtual QString resolve(const QByteArray &bookmark, bool *stale, PlatformError *error) = 0;
    // A read-only bookmark for the folder; empty with the error set on failure.
    virtual QByteArray create(const QString &path, PlatformError *error) = 0;
    // Begins and ends reading under the sandbox's permission for the folder.
    virtual bool startAccessing(const QString &path) = 0;
    virtual void stopAccessing(const QString &path) = 0;
};

// Flatpak: a folder chosen through the file chooser portal stays readable at the path the portal gave, so
// the path itself is the bookmark and access is granted exactly when the folder can be read.
class PathFolderBookmarks final : public FolderBookmarks
{
public:
    QString resolve(const QByteArray &bookmark, bool *stale, PlatformError *error) override;
    QByteArray create(const QString &path, PlatformError *error) override;
    bool startAccessing(const QString &path) override;
    void stopAccessing(const QString &path) override;
};
