#include "submission/submissionlock.h"

#include "worklogs/namedfailure.h"

#include <QFile>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

SubmissionLock::SubmissionLock(const QString &path)
{
    m_descriptor = ::open(QFile::encodeName(path).constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (m_descriptor >= 0 && ::flock(m_descriptor, LOCK_EX | LOCK_NB) == 0)
        return;
    if (m_descriptor >= 0)
        ::close(m_descriptor);
    m_descriptor = -1;
    throw NamedFailure(QStringLiteral("SubmissionLock"),
        QStringLiteral("Another app instance is submitting worklogs, or the submission lock is unavailable. "
                       "Check Jira again later."));
}

SubmissionLock::~SubmissionLock()
{
    if (m_descriptor < 0)
        return;
    ::flock(m_descriptor, LOCK_UN);
    ::close(m_descriptor);
}
