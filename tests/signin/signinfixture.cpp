#include "signinfixture.h"

#include <QCryptographicHash>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QRandomGenerator>
#include <QStandardPaths>
#include <QThread>
#include <QUrl>

#include <httplib.h>

#include <functional>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace signintest
{

namespace
{

bool canConnect(quint16 port)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    const bool connected = ::connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    ::close(fd);
    return connected;
}

// Starts `process` and waits until `ready` says it serves; false as soon as it ends instead.
bool startAndAwait(QProcess &process, const std::function<bool()> &ready)
{
    process.start();
    if (!process.waitForStarted(10000))
        return false;
    for (QDeadlineTimer deadline(20000); !deadline.hasExpired(); QThread::msleep(20)) {
        if (ready())
            return true;
        if (process.state() != QProcess::Running)
            return false;
    }
    return false;
}

QString base64Url(const QByteArray &data)
{
    return QString::fromLatin1(data.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals));
}

} // namespace

QJsonObject HttpAnswer::json() const
{
    return QJsonDocument::fromJson(QByteArray::fromStdString(body)).object();
}

std::string HttpAnswer::header(const std::string &name) const
{
    for (const auto &[key, value] : headers) {
        if (strcasecmp(key.c_str(), name.c_str()) == 0)
            return value;
    }
    return {};
}

HttpAnswer request(const QString &url, const QString &method, const QByteArray &body, const QString &caFile,
    const QString &contentType)
{
    const QUrl target(url);
    httplib::Client client(
        QStringLiteral("%1://%2:%3").arg(target.scheme(), target.host()).arg(target.port()).toStdString());
    if (target.scheme() == QLatin1String("https")) {
        client.set_ca_cert_path(caFile.toStdString().c_str());
        client.enable_server_certificate_verification(true);
    }
    client.set_follow_location(false);
    client.set_connection_timeout(10);
    client.set_read_timeout(30);
    std::string path = target.path(QUrl::FullyEncoded).toStdString();
    if (target.hasQuery())
        path += "?" + target.query(QUrl::FullyEncoded).toStdString();
    httplib::Result result = method == QLatin1String("POST")
        ? client.Post(path.c_str(), body.constData(), size_t(body.size()), contentType.toStdString().c_str())
        : client.Get(path.c_str());
    HttpAnswer answer;
    if (!result)
        return answer;
    answer.status = result->status;
    answer.body = result->body;
    for (const auto &[key, value] : result->headers)
        answer.headers.emplace(key, value);
    return answer;
}

HttpAnswer postJson(const QString &url, const QJsonObject &body, const QString &caFile)
{
    return request(url, QStringLiteral("POST"), QJsonDocument(body).toJson(QJsonDocument::Compact), caFile);
}

Visit browse(const QString &url, const QString &caFile, bool followLoopback)
{
    Visit visit;
    QString next = url;
    for (int hop = 0; hop < 8; ++hop) {
        visit.urls.append(next);
        visit.last = request(next, QStringLiteral("GET"), {}, caFile);
        const std::string location = visit.last.header("Location");
        if (visit.last.status < 300 || visit.last.status >= 400 || location.empty())
            break;
        next = QString::fromStdString(location);
        if (!followLoopback && next.startsWith(QLatin1String("http://127.0.0.1"))) {
            visit.urls.append(next);
            break;
        }
    }
    return visit;
}

RedisProcess::~RedisProcess()
{
    stop();
}

bool RedisProcess::start()
{
    const QString program = QStandardPaths::findExecutable(QStringLiteral("redis-server"));
    if (program.isEmpty())
        return false;
    m_port = standin::freeLoopbackPort();
    m_process.setProgram(program);
    m_process.setArguments(
        {QStringLiteral("--port"), QString::number(m_port), QStringLiteral("--bind"), QStringLiteral("127.0.0.1"),
            QStringLiteral("--save"), QString(), QStringLiteral("--appendonly"), QStringLiteral("no")});
    m_process.setStandardOutputFile(QProcess::nullDevice());
    return startAndAwait(m_process, [this] { return canConnect(m_port); });
}

void RedisProcess::stop()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.kill();
    m_process.waitForFinished(10000);
}

QString RedisProcess::url() const
{
    return QStringLiteral("redis://127.0.0.1:%1").arg(m_port);
}

ServiceProcess::~ServiceProcess()
{
    stop();
}

bool ServiceProcess::start(const std::map<std::string, std::string> &settings, const QString &dir)
{
    const auto listen = settings.find("listen");
    m_port = listen == settings.end() ? 0
                                      : QString::fromStdString(listen->second).section(QLatin1Char(':'), -1).toUShort();
    m_tls = settings.count("tls_cert") > 0;
    const QString config = QDir(dir).filePath(QStringLiteral("service-%1.conf").arg(m_port));
    m_logFile = QDir(dir).filePath(QStringLiteral("service-%1.log").arg(m_port));
    QFile file(config);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    for (const auto &[key, value] : settings)
        file.write(QByteArray::fromStdString(key + " = " + value + "\n"));
    file.close();
    QFile::remove(m_logFile);
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const QString &name : environment.keys()) {
        if (name.startsWith(QLatin1String("HOURLOOM_SIGNIN_")) || name == QLatin1String("CREDENTIALS_DIRECTORY"))
            environment.remove(name);
    }
    m_process.setProcessEnvironment(environment);
    m_process.setProgram(QStringLiteral(HOURLOOM_SIGNIN_BINARY));
    m_process.setArguments({QStringLiteral("--config"), config});
    m_process.setStandardErrorFile(m_logFile, QIODevice::Append);
    m_process.setStandardOutputFile(QProcess::nullDevice());
    return startAndAwait(m_process, [this] { return log().contains("\"event\":\"service.listening\""); });
}

void ServiceProcess::stop()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.terminate();
    if (!m_process.waitForFinished(10000))
        m_process.kill();
    m_process.waitForFinished(10000);
}

QString ServiceProcess::origin() const
{
    return QStringLiteral("%1://127.0.0.1:%2")
        .arg(m_tls ? QStringLiteral("https") : QStringLiteral("http"))
        .arg(m_port);
}

QByteArray ServiceProcess::log() const
{
    QFile file(m_logFile);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

qint64 ServiceProcess::residentKiB() const
{
    QFile status(QStringLiteral("/proc/%1/status").arg(m_process.processId()));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').value(0).toLongLong();
    }
    return -1;
}

void SigninTest::SetUp()
{
    ASSERT_TRUE(m_dir.isValid());
    standin::User user;
    user.accountId = QString::fromLatin1(kAccount);
    user.displayName = QStringLiteral("Ada Example");
    m_gateway.addUser(user);
    const QStringList scopes {QStringLiteral("read:jira-work"), QStringLiteral("write:jira-work"),
        QStringLiteral("read:jira-user"), QStringLiteral("offline_access")};
    m_gateway.addSite({QString::fromLatin1(kCloud), QStringLiteral("example"),
        QStringLiteral("https://example.atlassian.net"), scopes.mid(0, 3)});
    standin::Issue issue;
    issue.key = QStringLiteral("ED-1");
    issue.summary = QStringLiteral("Review the parser");
    m_gateway.addIssue(issue);
    ASSERT_TRUE(m_gateway.start()) << qPrintable(m_gateway.errorString());

    m_atlassian = std::make_unique<standin::Atlassian>(m_gateway);
    const QString keyFile = QFileInfo(m_gateway.certFile()).dir().filePath(QStringLiteral("key.pem"));
    ASSERT_TRUE(m_atlassian->start(m_gateway.certFile(), keyFile));
    m_atlassian->setUser(QString::fromLatin1(kAccount), scopes);
    m_ports[0] = standin::freeLoopbackPort();
    m_ports[1] = standin::freeLoopbackPort();
    standin::OAuthClient client {QString::fromLatin1(kClientId), QString::fromLatin1(kClientSecret), {}};
    for (const quint16 port : m_ports)
        client.redirectUris.append(QStringLiteral("https://127.0.0.1:%1/oauth/callback").arg(port));
    m_atlassian->addClient(client);

    QFile secret(m_dir.filePath(QStringLiteral("client_secret")));
    ASSERT_TRUE(secret.open(QIODevice::WriteOnly));
    secret.write(QByteArray(kClientSecret) + "\n");
    secret.close();
    secret.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
}

void SigninTest::TearDown()
{
    for (auto &service : m_services)
        service.reset();
    m_atlassian.reset();
    m_gateway.stop();
}

std::map<std::string, std::string> SigninTest::settings(quint16 port, quint16 publicPort) const
{
    const QString keyFile = QFileInfo(m_gateway.certFile()).dir().filePath(QStringLiteral("key.pem"));
    return {{"listen", "127.0.0.1:" + std::to_string(port)}, {"tls_cert", m_gateway.certFile().toStdString()},
        {"tls_key", keyFile.toStdString()},
        {"public_origin", "https://127.0.0.1:" + std::to_string(publicPort ? publicPort : port)},
        {"client_id", kClientId}, {"client_secret_file", m_dir.filePath(QStringLiteral("client_secret")).toStdString()},
        {"authorize_url", m_atlassian->authorizeUrl().toStdString()},
        {"token_url", m_atlassian->tokenUrl().toStdString()}, {"upstream_ca_file", caFile().toStdString()},
        {"log_level", "debug"}};
}

ServiceProcess &SigninTest::startService(const std::map<std::string, std::string> &extra, int index, quint16 publicPort)
{
    auto all = settings(m_ports[index], publicPort);
    for (const auto &[key, value] : extra) {
        if (value.empty())
            all.erase(key);
        else
            all[key] = value;
    }
    m_services[index] = std::make_unique<ServiceProcess>();
    EXPECT_TRUE(m_services[index]->start(all, m_dir.path())) << m_services[index]->log().constData();
    return *m_services[index];
}

QJsonObject SigninTest::startSignIn(const QString &service, QString *verifier, int port)
{
    QByteArray random(32, '\0');
    for (char &byte : random)
        byte = char(QRandomGenerator::system()->bounded(256));
    *verifier = base64Url(random);
    QJsonObject body {{QStringLiteral("challenge"),
        base64Url(QCryptographicHash::hash(verifier->toUtf8(), QCryptographicHash::Sha256))}};
    if (port)
        body.insert(QStringLiteral("port"), port);
    const HttpAnswer answer = postJson(service + QStringLiteral("/oauth/start"), body, caFile());
    EXPECT_EQ(answer.status, 200) << answer.body;
    return answer.json();
}

HttpAnswer SigninTest::poll(const QString &service, const QString &state, const QString &verifier, const QString &nonce)
{
    QJsonObject body {{QStringLiteral("state"), state}, {QStringLiteral("verifier"), verifier}};
    if (!nonce.isEmpty())
        body.insert(QStringLiteral("nonce"), nonce);
    return postJson(service + QStringLiteral("/oauth/poll"), body, caFile());
}

void SigninTest::expectNoSecretIn(const QByteArray &log, const QStringList &more) const
{
    QStringList secrets = m_atlassian->issuedSecrets() + more;
    secrets.append(QString::fromLatin1(kClientSecret));
    ASSERT_GT(secrets.size(), 3);
    for (const QString &secret : secrets) {
        if (!secret.isEmpty()) {
            EXPECT_FALSE(log.contains(secret.toUtf8())) << "the log holds " << secret.toStdString();
        }
    }
}

} // namespace signintest
