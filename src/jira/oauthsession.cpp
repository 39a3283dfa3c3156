#include "jira/oauthsession.h"

#include "jira/jsonvalue.h"
#include "jira/loopbacklistener.h"
#include "jira/servicefail.h"
#include "platform/appidentity.h"
#include "platform/endpoints.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QDesktopServices>
#include <QMetaObject>
#include <QObject>
#include <QThread>

#include <openssl/rand.h>

namespace
{

constexpr int kMaxPolls = 300;
constexpr unsigned long kPollIntervalMs = 2000;
constexpr double kRefreshMargin = 60.0;

const QString kBadOrigin = QStringLiteral("Enter the HTTPS origin of your app's configured authorization service.");
const QString kNoProof = QStringLiteral("Could not generate authorization proof.");
const QString kNoBroker = QStringLiteral("Authorization service is not configured or unavailable.");
const QString kBadAuthorizationURL = QStringLiteral("Unexpected authorization URL.");
const QString kDenied = QStringLiteral("Authorization was denied, expired, or failed. Connect again.");
const QString kInvalidCredentials = QStringLiteral("Authorization timed out or returned invalid credentials.");
const QString kConnectFirst = QStringLiteral("Connect Jira first.");
const QString kExpired = QStringLiteral("Jira authorization expired. Connect again.");

double nowSeconds()
{
    return double(QDateTime::currentMSecsSinceEpoch()) / 1000.0;
}

// The broker's token answer is usable only with both tokens as strings and a positive lifetime.
bool validTokenAnswer(const QVariantMap &answer)
{
    const QVariant expiresIn = answer.value(QStringLiteral("expires_in"));
    bool numeric = false;
    const double seconds = expiresIn.toDouble(&numeric);
    return answer.value(QStringLiteral("access_token")).typeId() == QMetaType::QString
        && answer.value(QStringLiteral("refresh_token")).typeId() == QMetaType::QString && HLIsJSONNumber(expiresIn)
        && numeric && seconds > 0;
}

bool isMap(const QVariant &value)
{
    return value.typeId() == QMetaType::QVariantMap;
}

// The broker origin: exactly "https", a host, no credentials, query or fragment, and no path but "/".
QString brokerBase(const QString &origin)
{
    QUrl url(origin, QUrl::StrictMode);
    if (!url.isValid() || url.scheme() != QLatin1String("https") || !origin.startsWith(QLatin1String("https:"))
        || url.host().isEmpty() || !url.userName().isEmpty() || !url.password().isEmpty() || url.hasQuery()
        || url.hasFragment() || url.authority(QUrl::FullyEncoded).contains(QLatin1Char('@')))
        HLServiceFail(kBadOrigin);
    if (!url.path().isEmpty() && url.path() != QLatin1String("/"))
        HLServiceFail(kBadOrigin);
    url.setPath(QString());
    return url.toString(QUrl::FullyEncoded);
}

// Only Atlassian's authorization page is ever opened in the browser.
QUrl authorizationURL(const QVariant &value)
{
    const QString text = value.toString();
    const QUrl url(text, QUrl::StrictMode);
    if (value.typeId() != QMetaType::QString || !url.isValid() || !text.startsWith(QLatin1String("https:"))
        || url.scheme() != QLatin1String("https") || url.host() != endpoints::authorizationHost()
        || url.path() != QLatin1String("/authorize") || !url.userName().isEmpty() || !url.password().isEmpty()
        || url.authority(QUrl::FullyEncoded).contains(QLatin1Char('@')))
        HLServiceFail(kBadAuthorizationURL);
    return url;
}

} // namespace

QString Base64URL(const QByteArray &data)
{
    return QString::fromLatin1(data.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals));
}

std::function<void(const QUrl &)> &OAuthSession::browserOpener()
{
    static std::function<void(const QUrl &)> opener = [](const QUrl &url) { QDesktopServices::openUrl(url); };
    return opener;
}

OAuthSession::OAuthSession()
    : OAuthSession(HLApplicationIdentifier() + QStringLiteral(".jira.oauth"))
{
}

OAuthSession::OAuthSession(const QString &credentialService)
    : m_mainContext(std::make_unique<QObject>())
    , m_keychain(credentialService, QStringLiteral("oauth"))
    , m_queue(std::make_unique<SerialQueue>(HLApplicationIdentifier() + QStringLiteral(".jira")))
{
}

OAuthSession::~OAuthSession()
{
    // A connect still polling stops at its next check; the queue then finishes before anything else goes.
    ++m_generation;
    m_queue.reset();
}

void OAuthSession::connect(const QString &origin, Completion completion)
{
    const qint64 attempt = ++m_generation;
    m_queue->async([this, origin, attempt, completion = std::move(completion)] {
        PlatformError error;
        try {
            runConnect(origin, attempt);
        } catch (const NamedFailure &failure) {
            error = {QStringLiteral("Jira"), 1,
                failure.reason().isEmpty() ? QStringLiteral("Authorization failed") : failure.reason()};
        } catch (const std::exception &) {
            error = {QStringLiteral("Jira"), 1, QStringLiteral("Authorization failed")};
        }
        if (m_generation.load() != attempt)
            return;
        QMetaObject::invokeMethod(
            m_mainContext.get(),
            [this, attempt, error, completion] {
                if (m_generation.load() == attempt && completion)
                    completion(error);
            },
            Qt::QueuedConnection);
    });
}

void OAuthSession::runConnect(const QString &origin, qint64 attempt)
{
    const QString base = brokerBase(origin);

    QByteArray random(32, Qt::Uninitialized);
    if (RAND_bytes(reinterpret_cast<unsigned char *>(random.data()), int(random.size())) != 1)
        HLServiceFail(kNoProof);
    const QString verifier = Base64URL(random);
    const QString challenge = Base64URL(QCryptographicHash::hash(verifier.toUtf8(), QCryptographicHash::Sha256));

    // The service may bind the sign-in to this device by confirming it on a loopback port; a service that does
    // not know the port ignores it, and without a port the sign-in goes on unbound.
    LoopbackListener listener;
    QVariantMap startBody {{QStringLiteral("challenge"), challenge}};
    if (listener.listen())
        startBody.insert(QStringLiteral("port"), int(listener.port()));

    qint64 status = 0;
    const QVariant start = m_transport.request(
        base + QStringLiteral("/oauth/start"), QStringLiteral("POST"), startBody, QString(), status);
    if (status != 200 || !isMap(start) || start.toMap().value(QStringLiteral("state")).typeId() != QMetaType::QString)
        HLServiceFail(kNoBroker);
    const QVariantMap started = start.toMap();
    const QString state = started.value(QStringLiteral("state")).toString();
    const QUrl page = authorizationURL(started.value(QStringLiteral("authorization_url")));
    listener.expectState(state);

    if (m_generation.load() != attempt)
        return;
    openBrowser(page, attempt);

    QVariant answer;
    status = 202;
    QVariantMap poll {{QStringLiteral("state"), state}, {QStringLiteral("verifier"), verifier}};
    for (int polls = 0; polls < kMaxPolls && status == 202; ++polls) {
        if (m_generation.load() != attempt)
            return;
        QThread::msleep(kPollIntervalMs);
        if (m_generation.load() != attempt)
            return;
        if (const QString nonce = listener.nonce(); !nonce.isNull())
            poll.insert(QStringLiteral("nonce"), nonce);
        answer = m_transport.request(
            base + QStringLiteral("/oauth/poll"), QStringLiteral("POST"), poll, QString(), status);
    }
    if (status == 202)
        HLServiceFail(kInvalidCredentials);
    if (status != 200 || !isMap(answer))
        HLServiceFail(kDenied);
    const QVariantMap tokens = answer.toMap();
    if (!validTokenAnswer(tokens))
        HLServiceFail(kInvalidCredentials);

    // A disconnect or a newer connect wins: nothing of this attempt is kept.
    if (m_generation.load() != attempt)
        return;
    save(tokenRecord(tokens, base));
}

void OAuthSession::openBrowser(const QUrl &url, qint64 attempt)
{
    QMetaObject::invokeMethod(
        m_mainContext.get(),
        [this, url, attempt] {
            if (m_generation.load() == attempt && browserOpener())
                browserOpener()(url);
        },
        Qt::QueuedConnection);
}

QVariantMap OAuthSession::tokenRecord(const QVariantMap &answer, const QString &broker) const
{
    QVariantMap record = answer;
    record.insert(QStringLiteral("broker"), broker);
    record.insert(QStringLiteral("expires_at"), nowSeconds() + answer.value(QStringLiteral("expires_in")).toDouble());
    return record;
}

void OAuthSession::disconnect()
{
    ++m_generation;
    m_queue->async([this] {
        m_record.clear();
        try {
            m_keychain.remove();
        } catch (const NamedFailure &) {
            // Removing is best effort; the record is already forgotten here.
        }
    });
}

bool OAuthSession::connected() const
{
    try {
        return load().value(QStringLiteral("access_token")).typeId() == QMetaType::QString;
    } catch (const NamedFailure &) {
        return false;
    }
}

QString OAuthSession::access()
{
    if (m_record.isEmpty())
        m_record = load();
    if (m_record.isEmpty())
        HLServiceFail(kConnectFirst);

    if (m_record.value(QStringLiteral("expires_at")).toDouble() - nowSeconds() >= kRefreshMargin)
        return m_record.value(QStringLiteral("access_token")).toString();

    // The refresh goes to the broker that issued the tokens, not to the one chosen in the settings now.
    const QString broker = m_record.value(QStringLiteral("broker")).toString();
    qint64 status = 0;
    const QVariant answer = m_transport.request(broker + QStringLiteral("/oauth/refresh"), QStringLiteral("POST"),
        QVariantMap {{QStringLiteral("refresh_token"), m_record.value(QStringLiteral("refresh_token")).toString()}},
        QString(), status);
    if (status != 200 || !isMap(answer) || !validTokenAnswer(answer.toMap()))
        HLServiceFail(kExpired);
    save(tokenRecord(answer.toMap(), broker));
    return m_record.value(QStringLiteral("access_token")).toString();
}

QVariantMap OAuthSession::load() const
{
    return m_keychain.load();
}

void OAuthSession::save(const QVariantMap &record)
{
    m_keychain.save(record);
    m_record = record;
}

QVariant OAuthSession::request(
    const QString &url, const QString &method, const QVariant &body, const QString &token, qint64 &status) const
{
    return m_transport.request(url, method, body, token, status);
}
