#include "platform/processlookup.h"

#include "platform/sandbox.h"

#include <QByteArray>
#include <QFile>
#include <QList>

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
    return name.toLower();
}

bool isAppImageOf(const QByteArray &name, const QByteArray &wanted)
{
    return name.size() > wanted.size() + 9 && name.startsWith(wanted) && name.endsWith(".appimage")
        && QByteArray("-_. ").contains(name.at(wanted.size()));
}

bool namesIt(const QByteArray &name, const QByteArray &wanted)
{
    return name == wanted || isAppImageOf(name, wanted);
}

bool isInterpreter(const QByteArray &name)
{
    static const QList<QByteArray> kInterpreters {
        "sh", "bash", "dash", "zsh", "ksh", "fish", "env", "python", "python3", "perl", "ruby", "node"};
    return kInterpreters.contains(name) || (name.startsWith("python3.") && name.size() > 8);
}

QByteArray readSmall(const QByteArray &path)
{
    QFile file(QString::fromLocal8Bit(path));
    return file.open(QIODevice::ReadOnly) ? file.read(65536) : QByteArray();
}

bool processMatches(const QByteArray &base, const QByteArray &wanted)
{
    char target[PATH_MAX];
    const ssize_t length = readlink(QByteArray(base + "/exe").constData(), target, sizeof target);
    if (length > 0 && namesIt(fileName(QByteArray(target, length)), wanted))
        return true;
    if (readSmall(base + "/comm").trimmed().toLower() == wanted.left(kCommLength))
        return true;
    const QList<QByteArray> arguments = readSmall(base + "/cmdline").split('\0');
    if (arguments.isEmpty() || arguments.first().isEmpty())
        return false;
    const QByteArray first = fileName(arguments.first());
    if (namesIt(first, wanted))
        return true;
    if (!isInterpreter(first) && !(length > 0 && isInterpreter(fileName(QByteArray(target, length)))))
        return false;
    for (qsizetype i = 1; i < arguments.size(); ++i) {
        const QByteArray &argument = arguments.at(i);
        if (argument.isEmpty() || argument.startsWith('-') || argument.contains('='))
            continue;
        return namesIt(fileName(argument), wanted);
    }
    return false;
}

// How many processes a /proc-like folder lists, or -1 when it cannot be listed.
int processCount(const QByteArray &root)
{
    DIR *proc = opendir(root.constData());
    if (!proc)
        return -1;
    int count = 0;
    while (const dirent *entry = readdir(proc))
        count += std::isdigit(static_cast<unsigned char>(entry->d_name[0])) ? 1 : 0;
    closedir(proc);
    return count;
}

} // namespace

QString HLTrackerExecutable()
{
    return QStringLiteral(HOURLOOM_TRACKER_EXECUTABLE);
}

HLProcessState HLFindProcess(const QString &executableName, const QString &procRoot)
{
    const QByteArray wanted = executableName.toUtf8().toLower();
    if (wanted.isEmpty() || wanted.contains('/'))
        return HLProcessState::NotRunning;
    const QByteArray root = QFile::encodeName(procRoot);
    DIR *proc = opendir(root.constData());
    if (!proc)
        return HLProcessState::Unknown;
    bool found = false;
    while (const dirent *entry = readdir(proc)) {
        if (std::isdigit(static_cast<unsigned char>(entry->d_name[0]))
            && processMatches(root + '/' + entry->d_name, wanted)) {
            found = true;
            break;
        }
    }
    closedir(proc);
    return found ? HLProcessState::Running : HLProcessState::NotRunning;
}

bool HLProcessRunning(const QString &executableName)
{
    return HLFindProcess(executableName) == HLProcessState::Running;
}

HLProcessState HLLookupProcess(const QString &executableName, bool sandboxed, const QStringList &hostProcRoots)
{
    if (!sandboxed)
        return HLFindProcess(executableName);
    for (const QString &root : hostProcRoots) {
        if (processCount(QFile::encodeName(root)) > 0)
            return HLFindProcess(executableName, root);
    }
    return HLProcessState::Unknown;
}

HLProcessState HLTrackerProcessState()
{
    return HLLookupProcess(HLTrackerExecutable(), HLRunningInAppSandbox(), {QStringLiteral("/run/host/proc")});
}
