#include "standinfixture.h"

#include "diagnostics/diagnosticlog.h"
#include "jira/keychainstore.h"
#include "platform/endpoints.h"
#include "support/testenv.h"

#include <QDateTime>
#include <QDirIterator>
#include <QFile>
#include <QUuid>

#include <curl/curl.h>

namespace jiratest
{

QStringList allScopes()
{
    return {QStringLiteral("read:jira-work"), QStringLiteral("write:jira-work"), QStringLiteral("read:jira-user"),
        QStringLiteral("offline_access")};
}

QString uniqueCredentialService()
{
    return QStringLiteral("app.hourloom.Hourloom.test.") + QUuid::createUuid().toString(QUuid::WithoutBraces);
}

long fetchPage(const QUrl &url, const QString &caFile)
{
    CURL *handle = curl_easy_init();
    const QByteArray target = url.toEncoded();
    const QByteArray ca = caFile.toLocal8Bit();
    curl_easy_setopt(handle, CURLOPT_URL, target.constData());
    curl_easy_setopt(handle, CURLOPT_CAINFO, ca.constData());
    curl_easy_setopt(handle, CURLOPT_TIMEOUT, 10L);
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(
        handle, CURLOPT_WRITEFUNCTION, +[](char *, size_t size, size_t count, void *) { return size * count; });
    long status = 0;
    if (curl_easy_perform(handle) == CURLE_OK)
        curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_cleanup(handle);
    return status;
}

QByteArray diagnosticsText()
{
    QByteArray text;
    for (int index = 2; index >= 0; --index) {
        QFile file(DiagnosticLog::shared().path(index));
        if (file.open(QIODevice::ReadOnly))
            text += file.readAll();
    }
    return text;
}

QStringList filesContaining(const QByteArray &needle)
{
    QStringList found;
    QDirIterator files(testenv::home(), QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
    while (files.hasNext()) {
        QFile file(files.next());
        if (file.open(QIODevice::ReadOnly) && file.readAll().contains(needle))
            found.append(file.fileName());
    }
    return found;
}

QVariantMap tokenRecord(const QString &token, const QString &broker, double expiresIn, const QString &refreshToken)
{
    return {{QStringLiteral("access_token"), token}, {QStringLiteral("refresh_token"), refreshToken},
        {QStringLiteral("expires_in"), expiresIn}, {QStringLiteral("broker"), broker},
        {QStringLiteral("expires_at"), double(QDateTime::currentMSecsSinceEpoch()) / 1000.0 + expiresIn}};
}

void StandinTest::SetUp()
{
    ASSERT_TRUE(m_server.start()) << qPrintable(m_server.errorString());
    // Set before any transport exists: the transport reads the extra authority once.
    qputenv("HOURLOOM_TEST_CA_FILE", m_server.caFile().toLocal8Bit());
    qputenv("HOURLOOM_TEST_GATEWAY", m_server.origin().toUtf8());
    qputenv("HOURLOOM_TEST_BROKER", m_server.origin().toUtf8());
    qputenv("HOURLOOM_TEST_AUTH_HOST", "127.0.0.1");
    // Without the overrides compiled in, the tests would talk to the real services.
    ASSERT_EQ(endpoints::gatewayOrigin(), m_server.origin()) << "configure with -DHOURLOOM_TEST_HOOKS=ON";
}

void StandinTest::TearDown()
{
    {
        std::lock_guard lock(m_mutex);
        for (std::thread &fetch : m_fetches)
            fetch.join();
        m_fetches.clear();
    }
    m_server.stop();
    for (const char *name :
        {"HOURLOOM_TEST_CA_FILE", "HOURLOOM_TEST_GATEWAY", "HOURLOOM_TEST_BROKER", "HOURLOOM_TEST_AUTH_HOST"})
        qunsetenv(name);
}

void StandinTest::seedJira()
{
    standin::User user;
    user.accountId = QString::fromLatin1(kAccount);
    user.displayName = QStringLiteral("Ada Example");
    m_server.addUser(user);
    m_server.addSite({QString::fromLatin1(kCloud), QStringLiteral("example"),
        QStringLiteral("https://example.atlassian.net"), allScopes()});
    standin::Issue first;
    first.key = QStringLiteral("ED-1");
    first.summary = QStringLiteral("Review the parser");
    first.timetracking = QJsonObject {
        {QStringLiteral("originalEstimateSeconds"), 10800}, {QStringLiteral("remainingEstimateSeconds"), 3600}};
    m_server.addIssue(first);
    standin::Issue second;
    second.key = QStringLiteral("ED-2");
    second.summary = QStringLiteral("Write the manual");
    m_server.addIssue(second);
}

void StandinTest::approveInBackground(const QUrl &url)
{
    const QString ca = m_server.caFile();
    std::lock_guard lock(m_mutex);
    m_fetches.emplace_back([url, ca] { fetchPage(url, ca); });
}

void SignedInTest::SetUp()
{
    StandinTest::SetUp();
    seedJira();
    m_service = uniqueCredentialService();
    m_client = std::make_unique<JiraClient>(m_service);
    signIn(allScopes());
}

void SignedInTest::TearDown()
{
    m_client.reset();
    KeychainStore(m_service, QStringLiteral("oauth")).remove();
    StandinTest::TearDown();
}

void SignedInTest::signIn(const QStringList &scopes)
{
    const QJsonObject pair = m_server.issueTokenPair(QString::fromLatin1(kAccount), scopes);
    m_token = pair.value(QStringLiteral("access_token")).toString();
    m_refreshToken = pair.value(QStringLiteral("refresh_token")).toString();
    m_client->queue().sync(
        [&] { m_client->session().save(tokenRecord(m_token, m_server.origin(), 3600, m_refreshToken)); });
}

} // namespace jiratest
