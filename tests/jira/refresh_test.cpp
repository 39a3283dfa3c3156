// Renewing rotating refresh tokens safely: the stand-in accepts a rotated token again only within its leeway,
// so a lost pair, a doubled renewal or a reused token shows up as a refused sign-in. The cross-process cases
// run real child processes of this executable (the RefreshChild tests, skipped unless a parent starts them).
#include "jira/jiraclient.h"
#include "jira/keychainstore.h"
#include "standinfixture.h"
#include "support/testenv.h"
#include "worklogs/namedfailure.h"

#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QThread>

#include <gtest/gtest.h>

#include <cstdio>
#include <optional>

namespace
{

const QString kCloud = QString::fromLatin1(jiratest::kCloud);
const QString kRefreshPath = QStringLiteral("^/oauth/refresh$");
const QString kUnreachable
    = QStringLiteral("The sign-in service could not be reached to renew the Jira authorization. Try again later.");

double now()
{
    return double(QDateTime::currentMSecsSinceEpoch()) / 1000.0;
}

// A record due for renewal now: its access token still works at the stand-in, but expires locally in 10 s.
QVariantMap dueRecord(standin::Server &server)
{
    const QJsonObject pair = server.issueTokenPair(QString::fromLatin1(jiratest::kAccount), jiratest::allScopes());
    QVariantMap record = pair.toVariantMap();
    record.insert(QStringLiteral("broker"), server.origin());
    record.insert(QStringLiteral("expires_at"), now() + 10);
    return record;
}

class RefreshTest : public jiratest::StandinTest
{
protected:
    void SetUp() override
    {
        jiratest::StandinTest::SetUp();
        seedJira();
        m_service = jiratest::uniqueCredentialService();
        m_lockDirectory = testenv::freshDir(QStringLiteral("support"));
    }
    void TearDown() override
    {
        KeychainStore(m_service, QStringLiteral("oauth")).remove();
        jiratest::StandinTest::TearDown();
    }

    QVariantMap stored() const { return KeychainStore(m_service, QStringLiteral("oauth")).load(); }

    // This executable again, running one RefreshChild test; its environment reaches the stand-in as ours does.
    QProcess *child(const QString &mode, const QStringList &wrapper = {}, const QVariantMap &record = {})
    {
        auto *process = new QProcess(&m_children);
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("REFRESH_CHILD_MODE"), mode);
        environment.insert(QStringLiteral("REFRESH_CHILD_RECORD"),
            QString::fromUtf8(QJsonDocument(QJsonObject::fromVariantMap(record)).toJson(QJsonDocument::Compact)));
        environment.insert(QStringLiteral("REFRESH_CHILD_SERVICE"), m_service);
        environment.insert(QStringLiteral("REFRESH_CHILD_LOCK_DIR"), m_lockDirectory);
        process->setProcessEnvironment(environment);
        const QStringList arguments {QStringLiteral("--gtest_filter=RefreshChild.*")};
        if (wrapper.isEmpty()) {
            process->start(QCoreApplication::applicationFilePath(), arguments);
        } else {
            process->start(
                wrapper.first(), wrapper.mid(1) + QStringList {QCoreApplication::applicationFilePath()} + arguments);
        }
        return process;
    }

    // Waits for the child; returns the token it printed, empty when it failed.
    static QString tokenOf(QProcess *process)
    {
        EXPECT_TRUE(process->waitForFinished(90000));
        const QByteArray output = process->readAllStandardOutput();
        EXPECT_EQ(process->exitCode(), 0) << output.constData() << process->readAllStandardError().constData();
        for (const QByteArray &line : output.split('\n')) {
            if (line.startsWith("child-token: "))
                return QString::fromLatin1(line.mid(13));
        }
        return {};
    }

    QString m_service;
    QString m_lockDirectory;
    QObject m_children;
};

TEST_F(RefreshTest, OutageKeepsTheTokensAndALostAnswerIsRecovered)
{
    JiraClient client(m_service);
    client.session().setLockDirectory(m_lockDirectory);
    const QVariantMap record = dueRecord(m_server);
    client.queue().sync([&] { client.session().save(record); });
    const auto accessFailure = [&]() -> QString {
        try {
            client.queue().sync([&] { client.access(); });
        } catch (const NamedFailure &failure) {
            return failure.reason();
        }
        return {};
    };

    // An outage of the sign-in service is not an expired sign-in: tokens kept, nothing to reconnect.
    m_server.addFault(standin::Fault::serviceUnavailable(QStringLiteral("POST"), kRefreshPath, 2));
    EXPECT_EQ(accessFailure(), kUnreachable);
    m_server.addFault(standin::Fault::drop(QStringLiteral("POST"), kRefreshPath, 2));
    EXPECT_EQ(accessFailure(), kUnreachable);
    EXPECT_EQ(stored(), record);
    EXPECT_EQ(m_server.requests(QStringLiteral("POST"), kRefreshPath).size(), 4);

    // The service renews and rotates, but its answer is lost: sent again at once with the same token, which
    // the service still accepts, so the family survives.
    standin::Fault lost = standin::Fault::createThenDrop();
    lost.pathPattern = kRefreshPath;
    m_server.addFault(lost);
    QString token;
    client.queue().sync([&] { token = client.access(); });
    EXPECT_NE(token, record.value(QStringLiteral("access_token")).toString());
    EXPECT_EQ(stored().value(QStringLiteral("access_token")).toString(), token);
    EXPECT_TRUE(m_server.liveRefreshTokens().contains(stored().value(QStringLiteral("refresh_token")).toString()));
    QVariantMap me;
    client.queue().sync([&] { me = client.identity(kCloud); });
    EXPECT_EQ(me.value(QStringLiteral("accountId")).toString(), QString::fromLatin1(jiratest::kAccount));
}

TEST_F(RefreshTest, TwoProcessesRenewOnceBetweenThem)
{
    // No leeway: had both processes renewed with the same refresh token, the second would revoke the family.
    m_server.setRefreshReuseLeeway(0);
    KeychainStore(m_service, QStringLiteral("oauth")).save(dueRecord(m_server));
    // The first renewal takes a while, so the second process arrives while it is under way.
    m_server.addFault(standin::Fault::slow(QStringLiteral("POST"), kRefreshPath, 1500));
    QProcess *first = child(QStringLiteral("renew"));
    QProcess *second = child(QStringLiteral("renew"));
    const QString firstToken = tokenOf(first);
    const QString secondToken = tokenOf(second);

    EXPECT_FALSE(firstToken.isEmpty());
    EXPECT_EQ(firstToken, secondToken);
    EXPECT_EQ(m_server.requests(QStringLiteral("POST"), kRefreshPath).size(), 1);
    EXPECT_EQ(stored().value(QStringLiteral("access_token")).toString(), firstToken);
    EXPECT_TRUE(m_server.liveRefreshTokens().contains(stored().value(QStringLiteral("refresh_token")).toString()));
}

TEST_F(RefreshTest, RenewedPairIsKeptUntilTheSecretStoreTakesIt)
{
    // The child runs on a bus and keyring of its own, since it locks the keyring's collection.
    m_server.setAdminEnabled(true);
    // Long enough for the child to lock the store between reading the record and the renewed pair's arrival.
    m_server.addFault(standin::Fault::slow(QStringLiteral("POST"), kRefreshPath, 5000));
    const QString script = QStringLiteral(
        "home=$(mktemp -d /tmp/hourloom-refresh-XXXXXX); mkdir -p \"$home/.local/share/keyrings\" \"$home/run\"; "
        "chmod 700 \"$home/run\"; export XDG_RUNTIME_DIR=\"$home/run\"; "
        "pid=$(printf test | HOME=\"$home\" gnome-keyring-daemon --daemonize --unlock --components=secrets "
        "| sed -n 's/^GNOME_KEYRING_PID=//p'); \"$@\"; status=$?; kill \"$pid\"; rm -rf \"$home\"; exit $status");
    QProcess *process = child(QStringLiteral("store"),
        {QStringLiteral("dbus-run-session"), QStringLiteral("--"), QStringLiteral("sh"), QStringLiteral("-c"), script,
            QStringLiteral("sh")},
        dueRecord(m_server));
    const QString token = tokenOf(process);
    EXPECT_FALSE(token.isEmpty());
    EXPECT_EQ(m_server.requests(QStringLiteral("POST"), kRefreshPath).size(), 1);
}

// --- the child processes ---

bool isChild()
{
    return !qEnvironmentVariableIsEmpty("REFRESH_CHILD_MODE");
}

QDBusMessage secretService(const QString &interface, const QString &method, const QVariantList &arguments)
{
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.secrets"), QStringLiteral("/org/freedesktop/secrets"), interface, method);
    call.setArguments(arguments);
    return QDBusConnection::sessionBus().call(call);
}

const QDBusObjectPath kLogin(QStringLiteral("/org/freedesktop/secrets/collection/login"));

void lockCollection()
{
    const QDBusMessage reply = secretService(QStringLiteral("org.freedesktop.Secret.Service"), QStringLiteral("Lock"),
        {QVariant::fromValue(QList<QDBusObjectPath> {kLogin})});
    ASSERT_EQ(reply.type(), QDBusMessage::ReplyMessage) << qPrintable(reply.errorMessage());
}

// Unlocking normally asks the user; the keyring's own interface takes the password directly.
void unlockCollection()
{
    const QDBusMessage opened = secretService(QStringLiteral("org.freedesktop.Secret.Service"),
        QStringLiteral("OpenSession"), {QStringLiteral("plain"), QVariant::fromValue(QDBusVariant(QString()))});
    ASSERT_EQ(opened.type(), QDBusMessage::ReplyMessage) << qPrintable(opened.errorMessage());
    QDBusArgument secret;
    secret.beginStructure();
    secret << opened.arguments().at(1).value<QDBusObjectPath>() << QByteArray() << QByteArray("test")
           << QStringLiteral("text/plain");
    secret.endStructure();
    const QDBusMessage reply
        = secretService(QStringLiteral("org.gnome.keyring.InternalUnsupportedGuiltRiddenInterface"),
            QStringLiteral("UnlockWithMasterPassword"), {QVariant::fromValue(kLogin), QVariant::fromValue(secret)});
    ASSERT_EQ(reply.type(), QDBusMessage::ReplyMessage) << qPrintable(reply.errorMessage());
}

// Waits until the stand-in has received a renewal: the stored record has been read again by then.
bool renewalArrived(const HTTPTransport &transport)
{
    qint64 status = 0;
    const QString origin = qEnvironmentVariable("HOURLOOM_TEST_BROKER");
    for (int attempt = 0; attempt < 600; ++attempt) {
        const QVariantList requests
            = transport
                  .request(origin + QStringLiteral("/__admin/requests"), QStringLiteral("GET"), {}, QString(), status)
                  .toList();
        for (const QVariant &request : requests) {
            if (request.toMap().value(QStringLiteral("path")).toString() == QLatin1String("/oauth/refresh"))
                return true;
        }
        QThread::msleep(50);
    }
    return false;
}

TEST(RefreshChild, Renews)
{
    if (!isChild())
        GTEST_SKIP() << "started by RefreshTest";
    const QString mode = qEnvironmentVariable("REFRESH_CHILD_MODE");
    const QString service = qEnvironmentVariable("REFRESH_CHILD_SERVICE");
    JiraClient client(service);
    client.session().setLockDirectory(qEnvironmentVariable("REFRESH_CHILD_LOCK_DIR"));
    client.session().setStoreRetryPause(std::chrono::milliseconds(10));
    KeychainStore store(service, QStringLiteral("oauth"));

    QString token;
    if (mode == QLatin1String("renew")) {
        client.queue().sync([&] { token = client.access(); });
    } else {
        // A keyring of its own: the record due for renewal starts here.
        HTTPTransport admin;
        const QVariantMap record = QJsonDocument::fromJson(qgetenv("REFRESH_CHILD_RECORD")).object().toVariantMap();
        store.save(record);
        std::optional<QString> renewed;
        client.queue().async([&] {
            try {
                renewed = client.access();
            } catch (const NamedFailure &failure) {
                renewed = QString();
                std::fprintf(stderr, "%s\n", qPrintable(failure.reason()));
            }
        });
        // The store is locked after the record was read and before the renewed pair comes back.
        ASSERT_TRUE(renewalArrived(admin));
        lockCollection();
        client.queue().drain();
        ASSERT_TRUE(renewed.has_value());
        token = *renewed;
        ASSERT_FALSE(token.isEmpty());
        EXPECT_NE(token, record.value(QStringLiteral("access_token")).toString());
        // Still locked: the new pair is used from memory, and not renewed a second time.
        QString again;
        client.queue().sync([&] { again = client.access(); });
        EXPECT_EQ(again, token);
        unlockCollection();
        EXPECT_EQ(store.load().value(QStringLiteral("access_token")).toString(),
            record.value(QStringLiteral("access_token")).toString());
        client.queue().sync([&] { again = client.access(); });
        EXPECT_EQ(again, token);
        EXPECT_EQ(store.load().value(QStringLiteral("access_token")).toString(), token);
    }
    // The token works at Jira.
    QVariantMap me;
    client.queue().sync([&] { me = client.identity(kCloud); });
    EXPECT_EQ(me.value(QStringLiteral("accountId")).toString(), QString::fromLatin1(jiratest::kAccount));
    std::printf("child-token: %s\n", qPrintable(token));
    std::fflush(stdout);
}

} // namespace
