#include "jira/oauthsession.h"

#include "jira/jsonvalue.h"
#include "jira/loopbacklistener.h"
#include "jira/servicefail.h"
#include "platform/appidentity.h"
#include "platform/endpoints.h"
#include "records/credentials.h"
#include "worklogs/namedfailure.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QMetaObject>
#include <QObject>
#include <QStandardPaths>
#include <QThread>

#include <openssl/rand.h>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

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
const QString kRefreshBusy
    = QStringLiteral("Another Hourloom process is renewing the Jira authorization. Try again in a moment.");

// Longer than one refresh request can take (its 30 s backstop, twice), so a live holder is always waited for.
constexpr int kRefreshLockWaitMs = 75000;
constexpr int kStoreAttempts = 4;

// The broker's token answer is usable only with both tokens as strings and a positive lifetime.
bool validTokenAnswer(const QVariantMap &answer)
{
    const QVariant expiresIn = answer.value(CredentialKey::kExpiresIn);
    bool numeric = false;
    const double seconds = expiresIn.toDouble(&numeric);
    return answer.value(CredentialKey::kAccessToken).typeId() == QMetaType::QString
        && answer.value(CredentialKey::kRefreshToken).typeId() == QMetaType::QString && HLIsJSONNumber(expiresIn)
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

// One refresh at a time across processes. Refresh tokens rotate: two processes refreshing with the same token
// would either lose one pair or, outside the service's reuse leeway, get the whole family revoked. The lock is
// an flock on a file beside the submission lock; the system drops it when its holder ends, even after a crash.
class RefreshLock
{
public:
    explicit RefreshLock(const QString &directory)
    {
        if (directory.isEmpty() || !QDir().mkpath(directory))
            return;
        const QByteArray path = QFile::encodeName(directory + QStringLiteral("/jira-refresh.lock"));
        m_descriptor = ::open(path.constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (m_descriptor < 0)
            return; // an unusable folder must not stop the sign-in; the store re-read still protects most cases
        for (int waited = 0; ::flock(m_descriptor, LOCK_EX | LOCK_NB) != 0; waited += 50) {
            if (waited >= kRefreshLockWaitMs) {
                ::close(m_descriptor);
                m_descriptor = -1;
                HLServiceFail(kRefreshBusy);
            }
            QThread::msleep(50);
        }
    }
    ~RefreshLock()
    {
        if (m_descriptor >= 0) {
            ::flock(m_descriptor, LOCK_UN);
            ::close(m_descriptor);
        }
    }
    RefreshLock(const RefreshLock &) = delete;
    RefreshLock &operator=(const RefreshLock &) = delete;

private:
    int m_descriptor = -1;
};

} // namespace

const QString OAuthSession::kUnreachable
    = QStringLiteral("The sign-in service could not be reached to renew the Jira authorization. Try again later.");

QString Base64URL(const QByteArray &data)
{
    return QString::fromLatin1(data.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals));
}

double OAuthSession::nowSeconds() const
{
    return double(clock().wallMs()) / 1000.0;
}

OAuthSession::OAuthSession()
    : OAuthSession(HLApplicationIdentifier() + QStringLiteral(".jira.oauth"))
{
}

OAuthSession::OAuthSession(const QString &credentialService)
    : m_mainContext(std::make_unique<QObject>())
    , m_keychain(credentialService, QStringLiteral("oauth"))
    , m_lockDirectory(
          QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + QStringLiteral("/Hourloom"))
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
    QVariantMap startBody {{SignInKey::kChallenge, challenge}};
    if (listener.listen())
        startBody.insert(SignInKey::kPort, int(listener.port()));

    qint64 status = 0;
    const QVariant start = m_transport.request(
        base + QStringLiteral("/oauth/start"), QStringLiteral("POST"), startBody, QString(), status);
    if (status != 200 || !isMap(start) || start.toMap().value(SignInKey::kState).typeId() != QMetaType::QString)
        HLServiceFail(kNoBroker);
    const QVariantMap started = start.toMap();
    const QString state = started.value(SignInKey::kState).toString();
    const QUrl page = authorizationURL(started.value(SignInKey::kAuthorizationUrl));
    listener.expectState(state);

    if (m_generation.load() != attempt)
        return;
    openBrowser(page, attempt);

    QVariant answer;
    status = 202;
    QVariantMap poll {{SignInKey::kState, state}, {SignInKey::kVerifier, verifier}};
    for (int polls = 0; polls < kMaxPolls && status == 202; ++polls) {
        if (m_generation.load() != attempt)
            return;
        QThread::msleep(kPollIntervalMs);
        if (m_generation.load() != attempt)
            return;
        if (const QString nonce = listener.nonce(); !nonce.isNull())
            poll.insert(SignInKey::kNonce, nonce);
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
            if (m_generation.load() != attempt)
                return;
            if (UrlOpener *opener = m_opener ? m_opener : UrlOpener::shared())
                opener->open(url);
        },
        Qt::QueuedConnection);
}

QVariantMap OAuthSession::tokenRecord(const QVariantMap &answer, const QString &broker) const
{
    QVariantMap record = answer;
    record.insert(CredentialKey::kBroker, broker);
    record.insert(CredentialKey::kExpiresAt, nowSeconds() + answer.value(CredentialKey::kExpiresIn).toDouble());
    return record;
}

void OAuthSession::disconnect()
{
    ++m_generation;
    m_queue->async([this] {
        m_record.clear();
        m_unsaved = false;
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
        return load().value(CredentialKey::kAccessToken).typeId() == QMetaType::QString;
    } catch (const NamedFailure &) {
        return false;
    }
}

QString OAuthSession::access()
{
    return token(QString());
}

QString OAuthSession::accessAfterRejection(const QString &rejected)
{
    return token(rejected);
}

QString OAuthSession::token(const QString &rejected)
{
    const auto usable = [this, &rejected](const QVariantMap &record) {
        const QString access = record.value(CredentialKey::kAccessToken).toString();
        return record.value(CredentialKey::kExpiresAt).toDouble() - nowSeconds() >= kRefreshMargin
            && (rejected.isNull() || access != rejected);
    };
    if (m_record.isEmpty())
        m_record = load();
    if (m_record.isEmpty())
        HLServiceFail(kConnectFirst);
    if (m_unsaved)
        keepRecord(1); // once per call: a store still refusing must not slow every request

    if (usable(m_record))
        return m_record.value(CredentialKey::kAccessToken).toString();

    RefreshLock lock(m_lockDirectory);
    // Another process may have refreshed while this one waited or since it last read the store: its pair is
    // the live one, and this process's refresh token has been rotated out.
    if (!m_unsaved) {
        const QVariantMap stored = load();
        if (!stored.isEmpty())
            m_record = stored;
        if (usable(m_record))
            return m_record.value(CredentialKey::kAccessToken).toString();
    }
    m_record = refreshed(m_record);
    m_unsaved = true;
    keepRecord(kStoreAttempts);
    return m_record.value(CredentialKey::kAccessToken).toString();
}

QVariantMap OAuthSession::refreshed(const QVariantMap &record)
{
    // The refresh goes to the broker that issued the tokens, not to the one chosen in the settings now.
    const QString broker = record.value(CredentialKey::kBroker).toString();
    const QVariantMap body {{CredentialKey::kRefreshToken, record.value(CredentialKey::kRefreshToken).toString()}};
    QVariant answer;
    qint64 status = 0;
    // A lost answer may still have rotated the token; the service accepts the rotated one again for a while
    // (Atlassian: 10 minutes), so one prompt second attempt recovers the pair instead of losing it.
    for (int attempt = 1;; ++attempt) {
        bool reached = true;
        try {
            answer = m_transport.request(
                broker + QStringLiteral("/oauth/refresh"), QStringLiteral("POST"), body, QString(), status);
        } catch (const NamedFailure &) {
            reached = false;
        }
        const bool unavailable = !reached || status >= 500 || status == 429;
        if (!unavailable)
            break;
        // An outage is not an expired sign-in: the stored tokens stay as they are.
        if (attempt == 2)
            HLServiceFail(kUnreachable);
    }
    if (status != 200 || !isMap(answer) || !validTokenAnswer(answer.toMap()))
        HLServiceFail(kExpired);
    return tokenRecord(answer.toMap(), broker);
}

bool OAuthSession::keepRecord(int attempts)
{
    // The old refresh token stopped working with this refresh: the new pair is kept in memory and written
    // again until the store takes it, or it would be lost with the process.
    for (int attempt = 1; attempt <= attempts; ++attempt) {
        try {
            m_keychain.save(m_record);
            m_unsaved = false;
            return true;
        } catch (const NamedFailure &) {
            if (attempt < attempts)
                QThread::msleep(static_cast<unsigned long>(m_storeRetryPause.count()));
        }
    }
    return false;
}

QVariantMap OAuthSession::load() const
{
    return m_keychain.load();
}

void OAuthSession::save(const QVariantMap &record)
{
    m_keychain.save(record);
    m_record = record;
    m_unsaved = false;
}

QVariant OAuthSession::request(
    const QString &url, const QString &method, const QVariant &body, const QString &token, qint64 &status) const
{
    return m_transport.request(url, method, body, token, status);
}
