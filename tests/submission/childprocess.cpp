#include "childprocess.h"

#include <QDeadlineTimer>
#include <QProcessEnvironment>

ChildProcess::ChildProcess(const QStringList &arguments, const QStringList &extraEnvironment)
    : m_process(std::make_unique<QProcess>())
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const QString &entry : extraEnvironment) {
        const qsizetype equals = entry.indexOf(QLatin1Char('='));
        environment.insert(entry.left(equals), entry.mid(equals + 1));
    }
    m_process->setProcessEnvironment(environment);
    m_process->start(QStringLiteral(SUBMISSION_CHILD), arguments);
    m_process->waitForStarted(10000);
}

ChildProcess::~ChildProcess()
{
    if (m_process->state() != QProcess::NotRunning)
        kill();
}

bool ChildProcess::waitForLine(const QString &line, int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    while (!deadline.hasExpired()) {
        m_output += QString::fromUtf8(m_process->readAllStandardOutput());
        if (m_output.split(QLatin1Char('\n')).contains(line))
            return true;
        if (m_process->state() == QProcess::NotRunning)
            return false;
        m_process->waitForReadyRead(50);
    }
    return false;
}

void ChildProcess::kill()
{
    m_process->kill();
    m_process->waitForFinished(10000);
}

int ChildProcess::waitForExit(int timeoutMs)
{
    if (!m_process->waitForFinished(timeoutMs) && m_process->state() != QProcess::NotRunning)
        return -1;
    m_output += QString::fromUtf8(m_process->readAllStandardOutput());
    return m_process->exitStatus() == QProcess::NormalExit ? m_process->exitCode() : -1;
}

QString ChildProcess::errors() const
{
    return QString::fromUtf8(m_process->readAllStandardError());
}
