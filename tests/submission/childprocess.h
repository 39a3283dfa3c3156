#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>

#include <memory>

// A run of the submission_child helper. The child prints one line naming the point it reached and then waits
// there, so a test can kill it (SIGKILL) at exactly that point.
class ChildProcess
{
public:
    explicit ChildProcess(const QStringList &arguments, const QStringList &extraEnvironment = {});
    ~ChildProcess();

    // Waits until the child printed `line` on stdout; false when it exited or the time ran out.
    bool waitForLine(const QString &line, int timeoutMs = 60000);
    void kill(); // SIGKILL, then reaps it
    int waitForExit(int timeoutMs = 60000); // exit code, or -1 when it crashed or did not end
    QString output() const { return m_output; }
    QString errors() const;

private:
    std::unique_ptr<QProcess> m_process;
    QString m_output;
};
