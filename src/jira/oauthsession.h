#pragma once

#include "jira/httptransport.h"
#include "jira/keychainstore.h"
#include "platform/clock.h"
#include "platform/platformerror.h"
#include "platform/serialqueue.h"
#include "platform/urlopener.h"

#include <QString>
#include <QUrl>
#include <QVariantMap>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>

class QObject;

// Standard Base64 with "+" -> "-", "/" -> "_" and no "=" padding (RFC 4648 URL-safe alphabet).
QString Base64URL(const QByteArray &data);

// Obtains and keeps the Jira access token through the sign-in service (PKCE handshake, browser approval,
// polling), stores it in the secret store and refreshes it shortly before it expires. Each connect and
// disconnect bumps `generation`; work that started under an older generation ends silently.
class OAuthSession
{
public:
    using Completion = std::function<void(const PlatformError &error)>; // no error (isError() false) = success

    // The failure when the sign-in service cannot be reached to renew the tokens; they stay as they are.
    static const QString kUnreachable;

    OAuthSession();
    // Keeps the credentials under another secret-store service (tests that run side by side).
    explicit OAuthSession(const QString &credentialService);
    ~OAuthSession();
    OAuthSession(const OAuthSession &) = delete;
    OAuthSession &operator=(const OAuthSession &) = delete;

    // Where the authorization page is shown (not owned; set before `connect`). nullptr, the default, means
    // `UrlOpener::shared()`.
    void setUrlOpener(UrlOpener *opener) { m_opener = opener; }
    // Time for the tokens' expiry (not owned; set before any call). nullptr, the default, means
    // `Clock::shared()`.
    void setClock(const Clock *clock) { m_clock = clock; }

    // Returns at once. `completion` runs on the main thread at most once, and only when no newer connect or
    // disconnect happened meanwhile.
    void connect(const QString &origin, Completion completion);
    // Forgets the credentials (cache and secret store) and silently cancels any connect in flight.
    void disconnect();
    // True when the secret store holds a record with an "access_token"; any read failure gives false.
    bool connected() const;
    // The current access token, refreshed when it expires within 60 s. Call on `queue()`. Throws "JiraError".
    QString access();
    // After Jira refused `rejected` (revoked or superseded before its local expiry): a token other than it,
    // refreshed unless another refresh already replaced it. Call on `queue()`. Throws "JiraError".
    QString accessAfterRejection(const QString &rejected);

    // Where the cross-process refresh lock "jira-refresh.lock" lives: the program's support folder unless set.
    void setLockDirectory(const QString &directory) { m_lockDirectory = directory; }
    QString lockDirectory() const { return m_lockDirectory; }
    // Pauses between attempts to keep a refreshed pair in the secret store; replaceable so tests do not wait.
    void setStoreRetryPause(std::chrono::milliseconds pause) { m_storeRetryPause = pause; }

    QVariantMap load() const;
    // Writes the record to the secret store, then caches it.
    void save(const QVariantMap &record);

    QVariant request(
        const QString &url, const QString &method, const QVariant &body, const QString &token, qint64 &status) const;

    SerialQueue &queue() { return *m_queue; }
    const HTTPTransport &transport() const { return m_transport; }
    qint64 generation() const { return m_generation.load(); }
    void setGeneration(qint64 generation) { m_generation.store(generation); }

private:
    void runConnect(const QString &origin, qint64 attempt);
    void openBrowser(const QUrl &url, qint64 attempt);
    QVariantMap tokenRecord(const QVariantMap &answer, const QString &broker) const;
    QString token(const QString &rejected);
    QVariantMap refreshed(const QVariantMap &record);
    bool keepRecord(int attempts);
    const Clock &clock() const { return m_clock ? *m_clock : Clock::shared(); }
    double nowSeconds() const;

    std::unique_ptr<QObject> m_mainContext; // lives on the creating (main) thread; targets of queued calls
    HTTPTransport m_transport;
    KeychainStore m_keychain;
    QVariantMap m_record; // used on the queue only
    bool m_unsaved = false; // m_record is a refreshed pair the secret store has not taken yet
    QString m_lockDirectory;
    std::chrono::milliseconds m_storeRetryPause {250};
    UrlOpener *m_opener = nullptr; // used on the main thread only
    const Clock *m_clock = nullptr;
    std::atomic<qint64> m_generation {0};
    std::unique_ptr<SerialQueue> m_queue; // declared last: destroyed first, so queued work never outlives the rest
};
