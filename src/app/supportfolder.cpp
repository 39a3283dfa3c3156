#include "app/supportfolder.h"

#include "platform/sandbox.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <syslog.h>

namespace
{

QString dataLocation()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
}

bool existsFollowingLinks(const QString &path)
{
    struct stat info {
    };
    return ::stat(QFile::encodeName(path).constData(), &info) == 0;
}

} // namespace

QString SupportFolder::path()
{
    return dataLocation() + QStringLiteral("/Hourloom");
}

QString SupportFolder::formerPath()
{
    return dataLocation() + QStringLiteral("/Stintwatch Companion");
}

bool SupportFolder::moveFormer(const QString &former, const QString &support, bool sandboxed, QString *error)
{
    if (sandboxed || existsFollowingLinks(support) || !existsFollowingLinks(former))
        return true;
    // One rename, never a copy: history is either wholly in the old place or wholly in the new one.
    if (::rename(QFile::encodeName(former).constData(), QFile::encodeName(support).constData()) == 0)
        return true;
    if (error)
        *error = QString::fromLocal8Bit(std::strerror(errno));
    return false;
}

QString SupportFolder::prepare()
{
    const QString support = path();
    const QString former = formerPath();
    QString error;
    if (!moveFormer(former, support, HLRunningInAppSandbox(), &error)) {
        const QByteArray line
            = QStringLiteral("Hourloom: could not migrate history from %1: %2").arg(former, error).toUtf8();
        syslog(LOG_WARNING, "%s", line.constData());
        // The system log may not be collected at all (containers, some desktops); the terminal still sees it.
        std::fprintf(stderr, "%s\n", line.constData());
    }
    if (!existsFollowingLinks(support)) {
        const QByteArray encoded = QFile::encodeName(support);
        QDir().mkpath(QFileInfo(support).absolutePath());
        if (::mkdir(encoded.constData(), 0700) == 0)
            ::chmod(encoded.constData(), 0700);
    }
    return support;
}
