// Load on one sign-in service instance: whole sign-ins per second (start, Atlassian's consent redirect, the
// callback with its code exchange, the poll that takes the tokens), each request on a fresh TLS connection as
// browsers and the app make them; a /healthz round trip on a fresh TLS connection as the floor; and the
// resident memory one pending sign-in costs.

#include "standin/atlassian.h"
#include "standin/server.h"

#include <QCryptographicHash>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QThread>
#include <QUrl>

#include <httplib.h>

#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>

namespace
{

QString base64Url(const QByteArray &data)
{
    return QString::fromLatin1(data.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals));
}

// The gateway, the emulated Atlassian and one service process, shared by every benchmark of the run.
struct Rig {
    standin::Server gateway;
    std::unique_ptr<standin::Atlassian> atlassian;
    QTemporaryDir dir;
    QProcess service;
    quint16 port = 0;
    bool ready = false;

    Rig()
    {
        standin::User user;
        user.accountId = QStringLiteral("5b10aa0000000000000000aa");
        gateway.addUser(user);
        if (!gateway.start())
            return;
        atlassian = std::make_unique<standin::Atlassian>(gateway);
        const QString key = QFileInfo(gateway.certFile()).dir().filePath(QStringLiteral("key.pem"));
        if (!atlassian->start(gateway.certFile(), key))
            return;
        atlassian->setUser(user.accountId,
            {QStringLiteral("read:jira-work"), QStringLiteral("write:jira-work"), QStringLiteral("read:jira-user"),
                QStringLiteral("offline_access")});
        port = standin::freeLoopbackPort();
        const QString origin = QStringLiteral("https://127.0.0.1:%1").arg(port);
        atlassian->addClient({QStringLiteral("bench-client"), QStringLiteral("bench-secret"),
            {origin + QStringLiteral("/oauth/callback")}});
        QFile secret(dir.filePath(QStringLiteral("secret")));
        secret.open(QIODevice::WriteOnly);
        secret.write("bench-secret");
        secret.close();
        secret.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
        QFile config(dir.filePath(QStringLiteral("signin.conf")));
        config.open(QIODevice::WriteOnly);
        config.write(QStringLiteral("listen = 127.0.0.1:%1\ntls_cert = %2\ntls_key = %3\npublic_origin = %4\n"
                                    "client_id = bench-client\nclient_secret_file = %5\nauthorize_url = %6\n"
                                    "token_url = %7\nupstream_ca_file = %8\nstart_per_minute = 1000000\n"
                                    "poll_per_minute = 1000000\nlog_level = warning\n")
                         .arg(port)
                         .arg(gateway.certFile(), key, origin, secret.fileName(), atlassian->authorizeUrl(),
                             atlassian->tokenUrl(), gateway.caFile())
                         .toUtf8());
        config.close();
        service.setProgram(QStringLiteral(HOURLOOM_SIGNIN_BINARY));
        service.setArguments({QStringLiteral("--config"), config.fileName()});
        service.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        service.start();
        for (QDeadlineTimer deadline(20000); !deadline.hasExpired() && !ready; QThread::msleep(20))
            ready = get(QStringLiteral("/healthz")).first == 200;
    }

    ~Rig()
    {
        service.terminate();
        service.waitForFinished(10000);
    }

    std::unique_ptr<httplib::Client> client(const std::string &origin) const
    {
        auto client = std::make_unique<httplib::Client>(origin);
        client->set_ca_cert_path(gateway.caFile().toStdString().c_str());
        client->enable_server_certificate_verification(true);
        return client;
    }

    std::string origin() const { return "https://127.0.0.1:" + std::to_string(port); }

    std::pair<int, std::string> get(const QString &path) const
    {
        const auto result = client(origin())->Get(path.toStdString().c_str());
        return result ? std::pair {result->status, result->body} : std::pair {0, std::string()};
    }

    // One sign-in from start to tokens; false when any step fails.
    bool signIn() const
    {
        const QString verifier = base64Url(QByteArray::number(QRandomGenerator::global()->generate64()).repeated(4));
        const QJsonObject start {{QStringLiteral("challenge"),
            base64Url(QCryptographicHash::hash(verifier.toUtf8(), QCryptographicHash::Sha256))}};
        const auto started = client(origin())->Post(
            "/oauth/start", QJsonDocument(start).toJson(QJsonDocument::Compact).toStdString(), "application/json");
        if (!started || started->status != 200)
            return false;
        const QJsonObject answer = QJsonDocument::fromJson(QByteArray::fromStdString(started->body)).object();
        const QUrl authorize(answer.value(QStringLiteral("authorization_url")).toString());
        const auto consent
            = client("https://127.0.0.1:" + std::to_string(atlassian->port()))
                  ->Get(QString(authorize.path() + QLatin1Char('?') + authorize.query(QUrl::FullyEncoded))
                            .toStdString()
                            .c_str());
        if (!consent || consent->status != 302)
            return false;
        const QUrl callback(QString::fromStdString(consent->get_header_value("Location")));
        const auto back = client(origin())->Get(
            QString(callback.path() + QLatin1Char('?') + callback.query(QUrl::FullyEncoded)).toStdString().c_str());
        if (!back || back->status != 200)
            return false;
        const QJsonObject poll {
            {QStringLiteral("state"), answer.value(QStringLiteral("state"))}, {QStringLiteral("verifier"), verifier}};
        const auto tokens = client(origin())->Post(
            "/oauth/poll", QJsonDocument(poll).toJson(QJsonDocument::Compact).toStdString(), "application/json");
        return tokens && tokens->status == 200;
    }

    qint64 residentBytes() const
    {
        QFile status(QStringLiteral("/proc/%1/status").arg(service.processId()));
        if (!status.open(QIODevice::ReadOnly))
            return -1;
        for (const QByteArray &line : status.readAll().split('\n')) {
            if (line.startsWith("VmRSS:"))
                return line.mid(6).trimmed().split(' ').value(0).toLongLong() * 1024;
        }
        return -1;
    }
};

Rig &rig()
{
    static Rig instance;
    return instance;
}

void BM_HealthzFloor(benchmark::State &state)
{
    if (!rig().ready) {
        state.SkipWithError("the sign-in service did not start");
        return;
    }
    for (auto _ : state) {
        if (rig().get(QStringLiteral("/healthz")).first != 200)
            state.SkipWithError("healthz failed");
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_HealthzFloor)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_SignIn(benchmark::State &state)
{
    if (!rig().ready) {
        state.SkipWithError("the sign-in service did not start");
        return;
    }
    for (auto _ : state) {
        if (!rig().signIn()) {
            state.SkipWithError("a sign-in failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations()); // items per second = sign-ins per second
}
BENCHMARK(BM_SignIn)->UseRealTime()->Unit(benchmark::kMillisecond)->Threads(1)->Threads(4);

void BM_PendingMemory(benchmark::State &state)
{
    if (!rig().ready) {
        state.SkipWithError("the sign-in service did not start");
        return;
    }
    const int count = int(state.range(0));
    auto client = rig().client(rig().origin());
    client->set_keep_alive(false);
    qint64 before = 0;
    qint64 after = 0;
    for (auto _ : state) {
        before = rig().residentBytes();
        for (int i = 0; i < count; ++i) {
            const QString verifier = base64Url(QByteArray::number(i).repeated(8).leftJustified(32, 'x'));
            const std::string body = R"({"challenge":")"
                + base64Url(QCryptographicHash::hash(verifier.toUtf8(), QCryptographicHash::Sha256)).toStdString()
                + R"(","port":49152})";
            const auto result = client->Post("/oauth/start", body, "application/json");
            if (!result || result->status != 200) {
                state.SkipWithError("a start failed");
                return;
            }
        }
        after = rig().residentBytes();
    }
    state.counters["bytes_per_pending"] = double(after - before) / count;
    state.counters["rss_MiB_after"] = double(after) / (1024.0 * 1024.0);
}
BENCHMARK(BM_PendingMemory)->Arg(5000)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace
