// Helper process for the lock and crash tests. It prints the name of the point it reached on stdout and then
// waits there until the test kills it.
//
//   submission_child lock <lock file>   takes the submission lock, prints "locked", waits

#include "platform/failure.h"
#include "submission/submissionlock.h"

#include <QCoreApplication>
#include <QString>

#include <cstdio>
#include <unistd.h>

namespace
{

void announce(const char *point)
{
    std::printf("%s\n", point);
    std::fflush(stdout);
}

[[noreturn]] void waitToBeKilled()
{
    for (;;)
        pause();
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList arguments = app.arguments();
    if (arguments.size() >= 3 && arguments.at(1) == QStringLiteral("lock")) {
        try {
            SubmissionLock lock(arguments.at(2));
            announce("locked");
            waitToBeKilled();
        } catch (const NamedFailure &failure) {
            std::fprintf(stderr, "%s: %s\n", qPrintable(failure.name()), qPrintable(failure.reason()));
            return 3;
        }
    }
    std::fprintf(stderr, "usage: submission_child lock <file>\n");
    return 2;
}
