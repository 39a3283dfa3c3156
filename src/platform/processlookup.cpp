#include "platform/processlookup.h"

#include <QByteArray>
#include <QFile>

#include <dirent.h>
#include <unistd.h>

#include <cctype>
#include <climits>

namespace
{

// The kernel keeps at most 15 bytes of a command name.
constexpr qsizetype kCommLength = 15;

QByteArray fileName(const QByteArray &path)
{
    QByteArray name = path.mid(path.lastIndexOf('/') + 1);
    if (name.endsWith(" (deleted)")) // replaced by an update while running
        name.chop(10);
    return name;
}

} // namespace

QString HLTrackerExecutable()
{
    return QStringLiteral(HOURLOOM_TRACKER_EXECUTABLE);
}

bool HLProcessRunning(const QString &executableName)
{
    const QByteArray wanted = executableName.toUtf8().toLower();
    if (wanted.isEmpty() || wanted.contains('/'))
        return false;
    DIR *proc = opendir("/proc");
    if (!proc)
        return false;
    bool found = false;
    while (const dirent *entry = readdir(proc)) {
        if (!std::isdigit(static_cast<unsigned char>(entry->d_name[0])))
            continue;
        const QByteArray base = QByteArray("/proc/") + entry->d_name;
        char target[PATH_MAX];
        const ssize_t length = readlink(QByteArray(base + "/exe").constData(), target, sizeof target);
        if (length > 0) {
            found = fileName(QByteArray(target, length)).toLower() == wanted;
        } else {
            // Another user's process: its executable link is closed to us, its command name is not.
            QFile comm(QString::fromLatin1(base + "/comm"));
            if (comm.open(QIODevice::ReadOnly))
                found = comm.readAll().trimmed().toLower() == wanted.left(kCommLength);
        }
        if (found)
            break;
    }
    closedir(proc);
    return found;
}
