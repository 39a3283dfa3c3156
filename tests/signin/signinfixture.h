#pragma once

#include "standin/atlassian.h"
#include "standin/server.h"

#include <QByteArray>
#include <QMap>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>

namespace signintest
{

constexpr auto kAccount = "5b10aa0000000000000000aa";
constexpr auto kCloud = "c0ffee-1234";
constexpr auto kClientId = "hourloom-test-client";
constexpr auto kClientSecret = "s3cret-of-the-registered-app-5f1c";

struct HttpAnswer {
    int status = 0; // 0: no answer
    std::string body;
    std::multimap<std::string, std::string> headers;
    QJsonObject json() const;
    std::string header(const std::string &name) const;
};

// One request over TLS trusting `caFile` (or plain HTTP for an http:// URL); never follows redirects.
HttpAnswer request(const QString &url, const QString &method, const QByteArray &body, const QString &caFile,
    const QString &contentType = QStringLiteral("application/json"));
HttpAnswer postJson(const QString &url, const QJsonObject &body, const QString &caFile);

// What a browser does with a link: follows redirects (at most 8) and returns every hop's URL and the last answer.
struct Visit {
    QStringList urls;
    HttpAnswer last;
};
Visit browse(const QString &url, const QString &caFile, bool followLoopback = true);

// A real redis-server on a free loopback port, without persistence.
class RedisProcess
{
public:
    ~RedisProcess();
    bool start();
    void stop();
    QString url() const;

private:
    QProcess m_process;
    quint16 m_port = 0;
};

// The real hourloom-signin as a child process; its stderr (the structured log) goes to a file.
class ServiceProcess
{
public:
    ~ServiceProcess();
    // Writes `settings` as the configuration file and starts; waits until it listens.
    bool start(const std::map<std::string, std::string> &settings, const QString &dir);
    void stop();
    quint16 port() const { return m_port; }
    QString origin() const;
    QByteArray log() const;
    qint64 residentKiB() const;

private:
    QProcess m_process;
    QString m_logFile;
    quint16 m_port = 0;
    bool m_tls = true;
};

// The gateway stand-in, the emulated Atlassian and a client registered for one service origin.
class SigninTest : public ::testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;

    // Settings for a service that listens over TLS on `port` and calls itself `publicPort` towards browsers.
    std::map<std::string, std::string> settings(quint16 port, quint16 publicPort = 0) const;
    // Starts a service (index 0 or 1) with the default settings plus `extra` (an empty value removes a setting).
    ServiceProcess &startService(
        const std::map<std::string, std::string> &extra = {}, int index = 0, quint16 publicPort = 0);
    QString caFile() const { return m_gateway.caFile(); }

    // Starts a sign-in at `service` with a fresh verifier; fills `verifier` and returns the start answer.
    QJsonObject startSignIn(const QString &service, QString *verifier, int port = 0);
    HttpAnswer poll(const QString &service, const QString &state, const QString &verifier, const QString &nonce = {});
    // Nothing a sign-in handed out or was given (the client secret, `more`) may appear in a service's log.
    void expectNoSecretIn(const QByteArray &log, const QStringList &more = {}) const;

    standin::Server m_gateway;
    std::unique_ptr<standin::Atlassian> m_atlassian;
    QTemporaryDir m_dir;
    quint16 m_ports[2] = {0, 0};
    std::unique_ptr<ServiceProcess> m_services[2];
};

} // namespace signintest
