#pragma once

#include <QDBusConnection>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <signal.h>
#include <unistd.h>

// A real notification server (dunst on its own virtual display) on the test's private session bus. Its
// context menu runs a script instead of dmenu: the script records the actions offered and picks "Log now".
class NotificationServer
{
public:
    bool start()
    {
        if (QStandardPaths::findExecutable(QStringLiteral("dunst")).isEmpty()
            || QStandardPaths::findExecutable(QStringLiteral("xvfb-run")).isEmpty()
            || !QDBusConnection::sessionBus().isConnected())
            return false;
        menuFile = dir.filePath(QStringLiteral("menu.txt"));
        const QString script = dir.filePath(QStringLiteral("menu.sh"));
        QFile scriptFile(script);
        scriptFile.open(QIODevice::WriteOnly);
        scriptFile.write(
            "#!/bin/sh\ncat > '" + menuFile.toUtf8() + "'\ngrep 'Log now' '" + menuFile.toUtf8() + "' | head -n 1\n");
        scriptFile.close();
        QFile::setPermissions(script, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
        QFile config(dir.filePath(QStringLiteral("dunstrc")));
        config.open(QIODevice::WriteOnly);
        config.write("[global]\ndmenu = " + script.toUtf8() + "\n");
        config.close();
        process.setProgram(QStringLiteral("xvfb-run"));
        process.setArguments(
            {QStringLiteral("-a"), QStringLiteral("dunst"), QStringLiteral("-config"), config.fileName()});
        // Its own process group, so that dunst and the X server end with it.
        process.setChildProcessModifier([] { ::setsid(); });
        process.start();
        return process.waitForStarted(10000);
    }

    ~NotificationServer()
    {
        if (process.state() != QProcess::NotRunning) {
            ::kill(-pid_t(process.processId()), SIGTERM);
            process.waitForFinished(10000);
        }
    }

    QTemporaryDir dir;
    QString menuFile;
    QProcess process;
};
