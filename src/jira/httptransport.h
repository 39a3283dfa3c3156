#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QString>
#include <QVariant>

#include <chrono>

class QJsonDocument;

// The one place that talks HTTPS to Jira and the sign-in service: one synchronous JSON request per call.
// Redirects are never followed (the 3xx is the answer), no cookie is ever kept or sent and nothing is cached.
// One transport serves concurrent callers: every call has its own handle and result slots.
class HTTPTransport
{
public:
    // The fixed limits; tests may shorten them to reach the backstop quickly.
    struct Limits {
        std::chrono::milliseconds idle {std::chrono::seconds(20)}; // no byte received for this long
        std::chrono::milliseconds total {std::chrono::seconds(25)}; // the whole transfer
        std::chrono::milliseconds backstop {std::chrono::seconds(30)}; // the caller never waits longer
    };

    // What a rate-limited or unavailable service says about when to come back.
    struct RetryHint {
        qint64 retryAfterSeconds = -1; // "Retry-After" in seconds; -1: none or not a number of seconds
        QDateTime rateLimitReset; // "X-RateLimit-Reset" (UTC); invalid: none
        bool nearLimit = false; // "X-RateLimit-NearLimit: true": little of the request budget is left
    };

    // Answers are refused above this size: a page of 1000 worklogs is about 2 MB, so anything near this is no
    // answer the program asked for, and decoding it would take memory out of all proportion.
    static constexpr qint64 kMaxResponseBytes = 8 * 1024 * 1024;

    HTTPTransport();
    explicit HTTPTransport(const Limits &limits);
    ~HTTPTransport();
    HTTPTransport(const HTTPTransport &) = delete;
    HTTPTransport &operator=(const HTTPTransport &) = delete;

    // Sends `body` (a QVariantMap or QVariantList; invalid = none) with the bearer `token` (null = none) and
    // returns the decoded JSON object (QVariantMap) or array (QVariantList), or an invalid QVariant when a
    // non-2xx answer carries no JSON. `status` receives the HTTP status. Throws "JiraError" (HLServiceFail).
    QVariant request(
        const QString &url, const QString &method, const QVariant &body, const QString &token, qint64 &status) const;
    // Turns a JSON answer (an object or an array) into the value a request returns.
    using Decoder = QVariant (*)(const QJsonDocument &document);
    // The same, also reporting the answer's retry headers; `decode` (null: the whole document) may keep only
    // what the caller reads of a large answer, sparing the records it would otherwise build and free.
    QVariant request(const QString &url, const QString &method, const QVariant &body, const QString &token,
        qint64 &status, RetryHint &hint, Decoder decode = nullptr) const;

    // A GET whose body the caller reads itself (an appcast, a download, an answer whose size matters), with
    // the same TLS, limits and redirect refusal. Returns the body; `status` receives the HTTP status. A body
    // longer than `maxBytes` ends the transfer early and sets `tooLarge` (the body is then empty). Throws
    // "JiraError" (HLServiceFail) when the transfer fails.
    QByteArray get(const QString &url, qint64 maxBytes, qint64 &status, bool &tooLarge) const;

    const Limits &limits() const { return m_limits; }

private:
    QByteArray perform(const QString &url, const QByteArray &verb, const QByteArray *payload, const QString &token,
        const char *accept, qint64 maxBytes, qint64 &status, bool &tooLarge, RetryHint &hint) const;
    // The address, HTTPS only, no redirects, the trusted CAs and the limits. `handle` is a libcurl easy handle.
    void setConnectionOptions(void *handle, const QByteArray &encodedURL) const;

    Limits m_limits;
    QByteArray m_caBundle; // system CAs plus the test CA file, when one is configured and no CA folder exists
    QByteArray m_extraCAFile; // the test CA file, trusted beside the system's CA folder
    QByteArray m_systemCAPath;
};
