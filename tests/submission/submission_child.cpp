// Helper process for the lock and crash tests. It prints the name of the point it reached on stdout and then
// waits there until the test kills it.
//
//   submission_child lock <lock file>   takes the submission lock, prints "locked", waits
//   submission_child post <config>      posts the rows of a JSON config with WorklogService; once the first
//                                       "pending" receipt is saved (the "submitting" progress event, just
//                                       before the POST) it prints "submitting" and waits

#include "jira/jiraclient.h"
#include "submission/submissionlock.h"
#include "submission/worklogservice.h"
#include "worklogs/namedfailure.h"

#include <QCoreApplication>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QString>

#include <cstdio>
#include <unistd.h>

using namespace Qt::StringLiterals;

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

int post(const QString &configPath)
{
    QFile file(configPath);
    if (!file.open(QIODevice::ReadOnly))
        return 2;
    const QJsonObject config = QJsonDocument::fromJson(file.readAll()).object();
    JiraClient client;
    WorklogService service(client, config.value(u"directory"_s).toString());
    int code = 0;
    client.queue().sync([&] {
        client.session().save(config.value(u"credentials"_s).toObject().toVariantMap());
        try {
            service.postDrafts(config.value(u"rows"_s).toArray().toVariantList(), config.value(u"cloud"_s).toString(),
                config.value(u"account"_s).toString(), config.value(u"generation"_s).toInteger(),
                [](const QVariantMap &event) {
                    if (event.value(u"state"_s).toString() == u"submitting"_s) {
                        announce("submitting");
                        waitToBeKilled();
                    }
                });
            announce("done");
        } catch (const NamedFailure &failure) {
            std::fprintf(stderr, "%s: %s\n", qPrintable(failure.name()), qPrintable(failure.reason()));
            code = 3;
        }
    });
    return code;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList arguments = app.arguments();
    if (arguments.size() >= 3 && arguments.at(1) == u"lock"_s) {
        try {
            SubmissionLock lock(arguments.at(2));
            announce("locked");
            waitToBeKilled();
        } catch (const NamedFailure &failure) {
            std::fprintf(stderr, "%s: %s\n", qPrintable(failure.name()), qPrintable(failure.reason()));
            return 3;
        }
    }
    if (arguments.size() >= 3 && arguments.at(1) == u"post"_s)
        return post(arguments.at(2));
    std::fprintf(stderr, "usage: submission_child lock <file> | post <config>\n");
    return 2;
}
