#include "app/autostart.h"

#include "platform/appidentity.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>

namespace Autostart
{

QString entryPath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) + QStringLiteral("/autostart/")
        + HLApplicationIdentifier() + QStringLiteral(".desktop");
}

bool enabled()
{
    return QFileInfo::exists(entryPath());
}

QByteArray entry(const QString &executable)
{
    // Exec arguments with spaces or quotes need quoting by the desktop-entry rules.
    QString exec = executable;
    if (exec.contains(QLatin1Char(' ')) || exec.contains(QLatin1Char('"'))) {
        exec.replace(QLatin1Char('\\'), QStringLiteral("\\\\")).replace(QLatin1Char('"'), QStringLiteral("\\\""));
        exec = QLatin1Char('"') + exec + QLatin1Char('"');
    }
    return QStringLiteral("[Desktop Entry]\n"
                          "Type=Application\n"
                          "Name=Hourloom\n"
                          "Comment=Review Stintwatch sessions and post Jira worklogs\n"
                          "Exec=%1\n"
                          "Icon=%2\n"
                          "Terminal=false\n"
                          "NoDisplay=true\n"
                          "X-GNOME-Autostart-enabled=true\n"
                          "X-GNOME-Autostart-Delay=5\n")
        .arg(exec, HLApplicationIdentifier())
        .toUtf8();
}

bool setEnabled(bool on, QString *error)
{
    const QString path = entryPath();
    if (!on) {
        QFile file(path);
        if (!file.exists() || file.remove())
            return true;
        if (error)
            *error = file.errorString();
        return false;
    }
    QDir().mkpath(QFileInfo(path).absolutePath());
    // An installed program starts by name, so a later upgrade that moves the binary keeps working.
    const QString installed = QStandardPaths::findExecutable(QStringLiteral("hourloom"));
    const QString self = QCoreApplication::applicationFilePath();
    const QString executable
        = !installed.isEmpty() && QFileInfo(installed).canonicalFilePath() == QFileInfo(self).canonicalFilePath()
        ? QStringLiteral("hourloom")
        : self;
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(entry(executable)) < 0
        || !file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup | QFile::ReadOther)
        || !file.commit()) {
        if (error)
            *error = file.errorString();
        return false;
    }
    return true;
}

} // namespace Autostart
