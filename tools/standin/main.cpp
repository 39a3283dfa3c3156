#include "server.h"

#include <QCommandLineParser>
#include <QCoreApplication>

#include <csignal>
#include <cstdio>
#include <pthread.h>

// The stand-in as a process, for the demo and for scripts: serves until SIGINT or SIGTERM.
int main(int argc, char *argv[])
{
    // Blocked before any server thread starts, so that only sigwait below receives them.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("hourloom-standin"));
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Local HTTPS stand-in for Jira Cloud, the sign-in service and the rate service."));
    parser.addHelpOption();
    const QCommandLineOption portOption(QStringLiteral("port"), QStringLiteral("Port on 127.0.0.1 (0: a free one)."),
        QStringLiteral("port"), QStringLiteral("0"));
    const QCommandLineOption seedOption(
        QStringLiteral("seed-demo"), QStringLiteral("Seed one user, one site and a few issues."));
    const QCommandLineOption pageOption(
        QStringLiteral("page-size"), QStringLiteral("Most worklogs granted per page."), QStringLiteral("count"));
    const QCommandLineOption zoneOption(QStringLiteral("user-time-zone"),
        QStringLiteral("Profile time zone of the demo user (IANA name)."), QStringLiteral("zone"));
    const QCommandLineOption authHostOption(QStringLiteral("auth-host"),
        QStringLiteral("Host of the authorization URLs the sign-in service hands out."), QStringLiteral("host"));
    // Off unless asked: whoever reaches the port could otherwise rewrite the stand-in's data and tokens.
    const QCommandLineOption adminOption(
        QStringLiteral("admin"), QStringLiteral("Serve the /__admin/ control endpoints."));
    parser.addOptions({portOption, seedOption, pageOption, zoneOption, authHostOption, adminOption});
    parser.process(app);

    bool ok = false;
    const uint port = parser.value(portOption).toUInt(&ok);
    if (!ok || port > 65535) {
        std::fprintf(stderr, "hourloom-standin: invalid port\n");
        return 2;
    }
    standin::Server server;
    server.setAdminEnabled(parser.isSet(adminOption));
    if (parser.isSet(pageOption))
        server.setPageSize(parser.value(pageOption).toInt());
    if (parser.isSet(authHostOption))
        server.setAuthHost(parser.value(authHostOption));
    if (parser.isSet(seedOption))
        server.seedDemo(parser.value(zoneOption));
    if (!server.start(quint16(port))) {
        std::fprintf(stderr, "hourloom-standin: %s\n", qPrintable(server.errorString()));
        return 1;
    }
    std::printf("origin: %s\nca-file: %s\n", qPrintable(server.origin()), qPrintable(server.caFile()));
    if (parser.isSet(seedOption)) {
        // A token for calling the gateway by hand; signing in through /oauth/start gives the same access.
        const QString token = server.issueAccessToken(QStringLiteral("5b10aa0000000000000000aa"),
            {QStringLiteral("read:jira-work"), QStringLiteral("write:jira-work"), QStringLiteral("read:jira-user")},
            24 * 3600);
        std::printf("token: %s\n", qPrintable(token));
    }
    std::fflush(stdout);

    int received = 0;
    sigwait(&stopSignals, &received);
    server.stop();
    return 0;
}
