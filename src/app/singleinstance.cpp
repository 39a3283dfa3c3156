#include "app/singleinstance.h"

#include "platform/appidentity.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QLocalServer>
#include <QLocalSocket>
#include <QStandardPaths>
#include <QThread>
#include <QUrl>

namespace
{

// One request line: "show", or "open" followed by the files as percent-encoded file URLs separated by blanks.
constexpr QByteArrayView kShow = "show\n";
constexpr QByteArrayView kOpen = "open";
constexpr QByteArrayView kShown = "ok\n";
// A request longer than this is not from Hourloom and is dropped.
constexpr qint64 kMaxRequest = 64 * 1024;
// How long a second launch keeps trying while the first one is still starting up.
constexpr int kReachMs = 5000;

// The local files of an "open" request; anything else in it (other schemes, relative paths) is ignored.
QStringList openedPaths(const QByteArray &line)
{
    if (!line.startsWith(kOpen) || !line.endsWith('\n'))
        return {};
    QStringList paths;
    const QList<QByteArray> words = line.chopped(1).mid(kOpen.size()).split(' ');
    for (const QByteArray &word : words) {
        const QUrl url = QUrl::fromEncoded(word, QUrl::StrictMode);
        if (url.isValid() && url.isLocalFile() && QDir::isAbsolutePath(url.toLocalFile()))
            paths << url.toLocalFile();
    }
    return paths;
}

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

bool SingleInstance::claim(bool activate, const QStringList &files)
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
        if (askOther(files))
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
                if (!client->canReadLine()) {
                    if (client->bytesAvailable() > kMaxRequest)
                        client->abort();
                    return;
                }
                const QByteArray line = client->readLine(kMaxRequest);
                const QStringList paths = openedPaths(line);
                const bool show = line == kShow;
                if (show || !paths.isEmpty()) {
                    client->write(kShown.data(), kShown.size());
                    client->flush();
                }
                client->disconnectFromServer();
                if (show)
                    emit activationRequested();
                else if (!paths.isEmpty())
                    emit filesOpened(paths);
            });
        }
    });
    return true;
}

bool SingleInstance::askOther(const QStringList &files)
{
    QLocalSocket socket;
    socket.connectToServer(socketPath());
    if (!socket.waitForConnected(500))
        return false;
    QByteArray request = kShow.toByteArray();
    if (!files.isEmpty()) {
        request = kOpen.toByteArray();
        for (const QString &file : files)
            request += ' ' + QUrl::fromLocalFile(file).toEncoded();
        request += '\n';
    }
    socket.write(request);
    if (!socket.waitForBytesWritten(1000))
        return false;
    while (!socket.canReadLine()) {
        if (!socket.waitForReadyRead(2000))
            return false;
    }
    m_reachedOther = socket.readLine(64) == kShown;
    return m_reachedOther;
}
