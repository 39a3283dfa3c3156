// hourloom-simtracker: drives a simulated tracker folder from the command line or a script.

#include "simtracker.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QStringList>
#include <QTextStream>
#include <QThread>

#include <cstdio>
#include <exception>

namespace
{

const char kUsage[] = R"(usage: hourloom-simtracker --folder DIR [--account TABLE] [--allow-real-folder] COMMAND [ARGS]

Commands:
  init                          create the database (WAL) and the log
  start PROJECT DESCRIPTION     start tracking (stops the open activity first)
  describe DESCRIPTION          store a description on the open activity
  heartbeat                     extend the open activity once
  run SECONDS [EVERY]           keep extending the open activity every EVERY seconds (default 5)
  stop                          stop tracking
  switch PROJECT DESCRIPTION    stop and start on another project or issue
  noise N                       write N unrelated log lines
  rotate-log | truncate-log     rotate (rename to application.log.1) or empty the log
  lock SECONDS                  hold the database locked
  replace-db | delete-db        replace the database with a new empty one, or delete it
  generate COUNT [YEARS]        add COUNT finished activities over YEARS years (default 3)
  script FILE                   run one command per line ("sleep SECONDS" too; # starts a comment)
)";

[[noreturn]] void usage()
{
    std::fputs(kUsage, stderr);
    std::exit(2);
}

qint64 number(const QStringList &args, int index, qint64 fallback = -1)
{
    if (index >= args.size()) {
        if (fallback >= 0)
            return fallback;
        usage();
    }
    bool ok = false;
    const qint64 value = args.at(index).toLongLong(&ok);
    if (!ok || value < 0)
        usage();
    return value;
}

QString text(const QStringList &args, int index)
{
    if (index >= args.size())
        usage();
    return args.at(index);
}

void runCommand(SimTracker &tracker, const QStringList &args);

void runScript(SimTracker &tracker, const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        throw std::runtime_error("cannot read the script");
    QTextStream in(&file);
    while (!in.atEnd()) {
        const QString line = in.readLine().trimmed();
        if (line.isEmpty() || line.startsWith(u'#'))
            continue;
        runCommand(tracker, QProcess::splitCommand(line));
    }
}

void runCommand(SimTracker &tracker, const QStringList &args)
{
    if (args.isEmpty())
        usage();
    const QString command = args.first();
    if (command == u"init") {
        tracker.create();
    } else if (command == u"start") {
        std::printf("%lld\n", static_cast<long long>(tracker.start(number(args, 1), text(args, 2))));
    } else if (command == u"describe") {
        tracker.describe(text(args, 1));
    } else if (command == u"heartbeat") {
        tracker.heartbeat();
    } else if (command == u"run") {
        const qint64 seconds = number(args, 1);
        const qint64 every = qMax<qint64>(1, number(args, 2, 5));
        for (qint64 waited = 0; waited < seconds; waited += every) {
            QThread::sleep(static_cast<unsigned long>(every));
            tracker.heartbeat();
        }
    } else if (command == u"stop") {
        tracker.stop();
    } else if (command == u"switch") {
        std::printf("%lld\n", static_cast<long long>(tracker.switchTo(number(args, 1), text(args, 2))));
    } else if (command == u"noise") {
        tracker.noise(int(number(args, 1)));
    } else if (command == u"rotate-log") {
        tracker.rotateLog();
    } else if (command == u"truncate-log") {
        tracker.truncateLog();
    } else if (command == u"lock") {
        tracker.lock();
        QThread::sleep(static_cast<unsigned long>(number(args, 1)));
        tracker.unlock();
    } else if (command == u"replace-db") {
        tracker.replaceDatabase();
    } else if (command == u"delete-db") {
        tracker.deleteDatabase();
    } else if (command == u"generate") {
        tracker.generateHistory(int(number(args, 1)), int(number(args, 2, 3)));
    } else if (command == u"script") {
        runScript(tracker, text(args, 1));
    } else if (command == u"sleep") {
        QThread::msleep(static_cast<unsigned long>(number(args, 1) * 1000));
    } else {
        usage();
    }
    std::fflush(stdout);
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QStringList args = app.arguments().mid(1);
    QString folder;
    QString account = QStringLiteral("1001_activity");
    bool allowReal = false;
    while (!args.isEmpty() && args.first().startsWith(QLatin1String("--"))) {
        const QString option = args.takeFirst();
        if (option == u"--folder" && !args.isEmpty())
            folder = args.takeFirst();
        else if (option == u"--account" && !args.isEmpty())
            account = args.takeFirst();
        else if (option == u"--allow-real-folder")
            allowReal = true;
        else
            usage();
    }
    if (folder.isEmpty() || args.isEmpty())
        usage();

    // The real tracker's folder is off limits unless asked for in so many words.
    const QString real = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + u"/Stintwatch";
    if (!allowReal && QFileInfo(folder).absoluteFilePath() == QFileInfo(real).absoluteFilePath()) {
        std::fprintf(stderr, "refusing to touch the real tracker folder %s (use --allow-real-folder)\n",
            qPrintable(QDir::toNativeSeparators(real)));
        return 2;
    }

    try {
        SimTracker tracker(QFileInfo(folder).absoluteFilePath(), account);
        runCommand(tracker, args);
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "hourloom-simtracker: %s\n", failure.what());
        return 1;
    }
    return 0;
}
