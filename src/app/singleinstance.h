#pragma once

#include <QLockFile>
#include <QObject>
#include <QString>
#include <QStringList>

#include <memory>

class QLocalServer;

// One Hourloom per user: the first process holds a lock file in the runtime folder and listens on a local
// socket next to it; a later launch asks that process to show its window and then ends. A lock left by a
// process that died is taken over, never waited for.
class SingleInstance : public QObject
{
    Q_OBJECT

public:
    explicit SingleInstance(QObject *parent = nullptr);
    ~SingleInstance() override;

    // The runtime folder ($XDG_RUNTIME_DIR) with the application identifier.
    static QString lockPath();
    static QString socketPath();

    // True when this process is now the only one. Otherwise another one runs and has been asked to show its
    // window when `activate` is set, or to open `files` (absolute paths) when there are any; false is also the
    // answer when no running instance could be reached.
    bool claim(bool activate = true, const QStringList &files = {});
    bool reachedOther() const { return m_reachedOther; }

signals:
    // Another launch asked this instance to show itself.
    void activationRequested();
    // Another launch handed over files to open (absolute local paths).
    void filesOpened(const QStringList &paths);

private:
    bool listen();
    bool askOther(const QStringList &files);

    std::unique_ptr<QLockFile> m_lock;
    QLocalServer *m_server = nullptr;
    bool m_reachedOther = false;
};
