#include "app/singleinstance.h"

#include "platform/appidentity.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QLocalServer>
#include <QLocalSocket>
#include <QStandardPaths>
#include <QThread>

namespace
{

constexpr QByteArrayView kShow = "show\n";
constexpr QByteArrayView kShown = "ok\n";
// How long a second launch keeps trying while the first one is still starting up.
constexpr int kReachMs = 5000;

QString runtimeFolder()
{
    QString folder = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
    if (folder.isEmpty())
        folder = QDir::tempPath();
    return folder;
}

} // namespace

SingleInstance::SingleInstance(QObject *parent)
    : QObject(parent)
{
}

SingleInstance::~SingleInstance()
{
    if (m_server)
        m_server->close();
}

QString SingleInstance::lockPath()
{
    return runtimeFolder() + QLatin1Char('/') + HLApplicationIdentifier() + QStringLiteral(".lock");
}

QString SingleInstance::socketPath()
{
    return runtimeFolder() + QLatin1Char('/') + HLApplicationIdentifier() + QStringLiteral(".socket");
}

bool SingleInstance::claim(bool activate)
{
    m_lock = std::make_unique<QLockFile>(lockPath());
    // Only a lock whose process is gone counts as stale; a live holder is never overridden by age.
    m_lock->setStaleLockTime(0);
    const QDeadlineTimer deadline(kReachMs);
    while (true) {
        if (m_lock->tryLock(0))
            return listen();
        if (m_lock->error() != QLockFile::LockFailedError)
            return false;
        if (!activate)
            return false;
        if (askOther())
            return false;
        if (deadline.hasExpired())
            return false;
        QThread::msleep(100);
    }
}

bool SingleInstance::listen()
{
    m_server = new QLocalServer(this);
    m_server->setSocketOptions(QLocalServer::UserAccessOption);
    // The lock is ours, so a socket file left behind belongs to a process that is gone.
    QLocalServer::removeServer(socketPath());
    if (!m_server->listen(socketPath()))
        return true; // still the only instance; a second launch then simply cannot reach it
    connect(m_server, &QLocalServer::newConnection, this, [this] {
        while (QLocalSocket *client = m_server->nextPendingConnection()) {
            connect(client, &QLocalSocket::disconnected, client, &QObject::deleteLater);
            connect(client, &QLocalSocket::readyRead, this, [this, client] {
                if (!client->canReadLine())
                    return;
                const QByteArray line = client->readLine(64);
                if (line == kShow) {
                    emit activationRequested();
                    client->write(kShown.data(), kShown.size());
                    client->flush();
                }
                client->disconnectFromServer();
            });
        }
    });
    return true;
}

bool SingleInstance::askOther()
{
    QLocalSocket socket;
    socket.connectToServer(socketPath());
    if (!socket.waitForConnected(500))
        return false;
    socket.write(kShow.data(), kShow.size());
    if (!socket.waitForBytesWritten(1000))
        return false;
    while (!socket.canReadLine()) {
        if (!socket.waitForReadyRead(2000))
            return false;
    }
    m_reachedOther = socket.readLine(64) == kShown;
    return m_reachedOther;
}
