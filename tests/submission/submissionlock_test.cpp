#include "submission/submissionlock.h"

#include "childprocess.h"
#include "fsguards.h"
#include "support/testenv.h"
#include "worklogs/namedfailure.h"

#include <QFileInfo>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace
{

const QString kLockMessage
    = u"Another app instance is submitting worklogs, or the submission lock is unavailable. Check Jira again later."_s;

QString lockFailure(const QString &path)
{
    try {
        SubmissionLock lock(path);
    } catch (const NamedFailure &failure) {
        return failure.name() + u": "_s + failure.reason();
    }
    return {};
}

} // namespace

TEST(SubmissionLock, CreatesPrivateLockFileAndReleasesItOnDestruction)
{
    const QString path = testenv::freshDir(u"lock"_s) + u"/jira-submit.lock"_s;
    {
        SubmissionLock lock(path);
        EXPECT_GE(lock.descriptor(), 0);
        EXPECT_EQ(fileMode(path), 0600);
        // flock locks belong to the open file description, so a second open in the same process conflicts too.
        EXPECT_EQ(lockFailure(path), u"SubmissionLock: "_s + kLockMessage);
    }
    EXPECT_TRUE(lockFailure(path).isEmpty());
    EXPECT_TRUE(QFileInfo::exists(path)) << "the lock file is never deleted";
}

TEST(SubmissionLock, FailsWhenTheLockFileCannotBeOpened)
{
    EXPECT_EQ(lockFailure(testenv::freshDir(u"lock"_s) + u"/missing/jira-submit.lock"_s),
        u"SubmissionLock: "_s + kLockMessage);
}

TEST(SubmissionLock, SecondProcessFailsAtOnceAndTheLockIsFreedWhenTheHolderIsKilled)
{
    const QString path = testenv::freshDir(u"lock"_s) + u"/jira-submit.lock"_s;
    ChildProcess holder({u"lock"_s, path});
    ASSERT_TRUE(holder.waitForLine(u"locked"_s)) << qPrintable(holder.errors());

    ChildProcess second({u"lock"_s, path});
    // The holder keeps the lock until it is killed: a second process that waited for it would never end.
    EXPECT_EQ(second.waitForExit(), 3) << "a second process must not wait for the lock";
    EXPECT_TRUE(second.errors().contains(kLockMessage));
    EXPECT_FALSE(lockFailure(path).isEmpty());

    holder.kill();
    EXPECT_TRUE(lockFailure(path).isEmpty()) << "the system releases the lock of a killed process";
}
