#include "app/autostart.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>

QString HLAutostartPath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation)
        + QStringLiteral("/autostart/app.hourloom.Hourloom.desktop");
}

bool HLAutostartEnabled()
{
    return QFileInfo::exists(HLAutostartPath());
}

namespace
{

// Desktop entry Exec values quote arguments containing reserved characters.
QString execValue(const QString &path)
{
    static const QString reserved = QStringLiteral(" \t\n\"'\\><~|&;$*?#()`");
    bool quote = false;
    for (const QChar c : path)
        quote = quote || reserved.contains(c);
    if (!quote)
        return path;
    QString escaped = path;
    escaped.replace(u'\\', QStringLiteral("\\\\\\\\"));
    escaped.replace(u'"', QStringLiteral("\\\\\""));
    escaped.replace(u'`', QStringLiteral("\\\\`"));
    escaped.replace(u'$', QStringLiteral("\\\\$"));
    return u'"' + escaped + u'"';
}

} // namespace

bool HLSetAutostartEnabled(bool enabled, QString *error, const QString &executable)
{
    const QString path = HLAutostartPath();
    if (!enabled) {
        if (!QFileInfo::exists(path) || QFile::remove(path))
            return true;
        if (error)
            *error = QStringLiteral("Could not remove %1.").arg(QDir::toNativeSeparators(path));
        return false;
    }
    const QString program = executable.isEmpty() ? QCoreApplication::applicationFilePath() : executable;
    QDir().mkpath(QFileInfo(path).absolutePath());
    QSaveFile file(path);
    const QByteArray content = QByteArrayLiteral("[Desktop Entry]\n"
                                                 "Type=Application\n"
                                                 "Name=Hourloom\n"
                                                 "Comment=Review tracked time and post it to Jira\n"
                                                 "Icon=app.hourloom.Hourloom\n"
                                                 "Exec=")
        + execValue(program).toUtf8()
        + QByteArrayLiteral("\n"
                            "Terminal=false\n"
                            "X-GNOME-Autostart-enabled=true\n");
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()
        || !file.setPermissions(
            QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadGroup | QFileDevice::ReadOther)
        || !file.commit()) {
        if (error)
            *error = QStringLiteral("Could not write %1.").arg(QDir::toNativeSeparators(path));
        return false;
    }
    return true;
}
