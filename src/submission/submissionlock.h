#pragma once

#include <QString>

// Serialises posting across processes: a non-blocking exclusive flock on "jira-submit.lock", held for one
// posting run. The system drops the lock when the process ends, even after a crash, so a stale lock file
// never blocks posting.
class SubmissionLock
{
public:
    // Takes the lock or raises "SubmissionLock" at once; it never waits for another process.
    explicit SubmissionLock(const QString &path);
    ~SubmissionLock();
    SubmissionLock(const SubmissionLock &) = delete;
    SubmissionLock &operator=(const SubmissionLock &) = delete;

    int descriptor() const { return m_descriptor; }

private:
    int m_descriptor = -1;
};
