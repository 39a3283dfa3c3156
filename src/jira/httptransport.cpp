#include "jira/httptransport.h"

#include "diagnostics/diagnosticlog.h"
#include "jira/servicefail.h"
#include "platform/endpoints.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <QUrl>

#include <curl/curl.h>

#include <algorithm>
#include <memory>

namespace
{

constexpr int kTimedOutCode = -1001; // the "timed out" code the backstop reports, as the networking layer's

const QString kOnlyHTTPS = QStringLiteral("Only HTTPS connections are supported.");
const QString kTimedOut = QStringLiteral("Network request timed out. For a submitted worklog, the outcome may be "
                                         "unknown; check Jira again before any retry.");
const QString kFailed = QStringLiteral("Network request failed. For a submitted worklog, the outcome may be "
                                       "unknown; check Jira again before any retry.");
const QString kInvalid = QStringLiteral("The service returned an invalid response.");
const QString kBadHeader = QStringLiteral("Jira authorization contains invalid characters. Connect again.");
const QString kTooLarge = QStringLiteral("The service's answer was too large to read safely (over 8 MB).");

void initialiseCurl()
{
    // curl_global_init is not thread-safe; a function-local static runs it exactly once.
    static const bool initialised = [] {
        curl_global_init(CURL_GLOBAL_DEFAULT);
        return true;
    }();
    Q_UNUSED(initialised);
}

// libcurl takes one CA file; a local stand-in's authority is trusted in addition to the system's by handing
// it a combined bundle in memory. Without an extra file the system defaults apply unchanged.
QByteArray combinedCABundle()
{
    const QString extra = endpoints::extraCAFile();
    if (extra.isEmpty())
        return {};
    QByteArray bundle;
    if (CURL *probe = curl_easy_init()) {
        char *systemPath = nullptr;
        if (curl_easy_getinfo(probe, CURLINFO_CAINFO, &systemPath) == CURLE_OK && systemPath) {
            QFile system(QString::fromLocal8Bit(systemPath));
            if (system.open(QIODevice::ReadOnly))
                bundle = system.readAll();
        }
        curl_easy_cleanup(probe);
    }
    QFile file(extra);
    if (file.open(QIODevice::ReadOnly))
        bundle += '\n' + file.readAll();
    return bundle;
}

// The folder of hashed system certificates libcurl was built to use, when it exists.
QByteArray systemCAPath()
{
    QByteArray path;
    if (CURL *probe = curl_easy_init()) {
        char *capath = nullptr;
        if (curl_easy_getinfo(probe, CURLINFO_CAPATH, &capath) == CURLE_OK && capath)
            path = capath;
        curl_easy_cleanup(probe);
    }
    if (path.isEmpty() || !QFileInfo(QFile::decodeName(path)).isDir())
        return {};
    return path;
}

struct Received {
    QByteArray body;
    qint64 maxBytes = HTTPTransport::kMaxResponseBytes;
    bool tooLarge = false;
    HTTPTransport::RetryHint hint;
};

size_t collect(char *data, size_t size, size_t count, void *target)
{
    auto *received = static_cast<Received *>(target);
    const size_t bytes = size * count;
    if (received->body.size() + qint64(bytes) > received->maxBytes) {
        received->tooLarge = true;
        return 0; // aborts the transfer
    }
    received->body.append(data, qsizetype(bytes));
    return bytes;
}

// Keeps the two headers that say when a limited service takes requests again.
size_t collectHeader(char *data, size_t size, size_t count, void *target)
{
    auto *received = static_cast<Received *>(target);
    const size_t bytes = size * count;
    const QByteArray line(data, qsizetype(bytes));
    const qsizetype colon = line.indexOf(':');
    if (colon <= 0)
        return bytes;
    const QByteArray name = line.left(colon).trimmed().toLower();
    const QByteArray value = line.mid(colon + 1).trimmed();
    if (name == "retry-after") {
        // Seconds only; Atlassian sends seconds, and an HTTP date would need a trusted clock to mean anything.
        bool number = false;
        const qint64 seconds = value.toLongLong(&number);
        received->hint.retryAfterSeconds = number && seconds >= 0 ? seconds : -1;
    } else if (name == "x-ratelimit-reset") {
        QDateTime reset = QDateTime::fromString(QString::fromLatin1(value), Qt::ISODate);
        if (!reset.isValid())
            reset = QDateTime::fromString(QString::fromLatin1(value), QStringLiteral("yyyy-MM-ddTHH:mmZ"));
        received->hint.rateLimitReset = reset.toUTC();
    } else if (name == "x-ratelimit-nearlimit") {
        received->hint.nearLimit = value.compare("true", Qt::CaseInsensitive) == 0;
    }
    return bytes;
}

// A header value with a control character (a line break above all) could end the header early and smuggle
// another one into the request.
bool safeHeaderLine(const QByteArray &line)
{
    return std::none_of(line.cbegin(), line.cend(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte < 0x20 || byte == 0x7f;
    });
}

bool acceptableURL(const QString &text, const QUrl &url)
{
    // The scheme is compared as written: "HTTPS://" is refused on purpose, like anything that is not exactly
    // "https". Credentials in the URL are refused even when empty ("https://@host").
    return text.startsWith(QLatin1String("https://")) && url.isValid() && url.scheme() == QLatin1String("https")
        && !url.host().isEmpty() && url.userName().isEmpty() && url.password().isEmpty()
        && !url.authority(QUrl::FullyEncoded).contains(QLatin1Char('@'));
}

QByteArray serialisedBody(const QVariant &body)
{
    const QJsonValue value = QJsonValue::fromVariant(body);
    if (value.isObject())
        return QJsonDocument(value.toObject()).toJson(QJsonDocument::Compact);
    if (value.isArray())
        return QJsonDocument(value.toArray()).toJson(QJsonDocument::Compact);
    Q_ASSERT_X(false, "HTTPTransport::request", "the body must be a JSON object or array");
    return {};
}

// A redirect is never followed, whatever it points at: the 3xx itself is the answer the caller judges, so a
// bearer token can never travel to another address.
struct NoRedirect {
    static void apply(CURL *handle)
    {
        curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 0L);
        curl_easy_setopt(handle, CURLOPT_MAXREDIRS, 0L);
        curl_easy_setopt(handle, CURLOPT_REDIR_PROTOCOLS_STR, "https");
    }
};

struct EasyDeleter {
    void operator()(CURL *handle) const { curl_easy_cleanup(handle); }
};
struct ListDeleter {
    void operator()(curl_slist *list) const { curl_slist_free_all(list); }
};

// One multi handle driving one easy handle, so the caller's wait has its own deadline (the backstop) apart
// from libcurl's idle and transfer limits.
class Transfer
{
public:
    explicit Transfer(CURL *easy)
        : m_multi(curl_multi_init())
        , m_easy(easy)
    {
        curl_multi_add_handle(m_multi, m_easy);
    }
    ~Transfer()
    {
        curl_multi_remove_handle(m_multi, m_easy);
        curl_multi_cleanup(m_multi);
    }
    Transfer(const Transfer &) = delete;
    Transfer &operator=(const Transfer &) = delete;

    // False when the deadline passed first; the transfer is then abandoned by the destructor.
    bool run(const QElapsedTimer &clock, qint64 deadlineMs, CURLcode &result)
    {
        int running = 1;
        while (true) {
            if (curl_multi_perform(m_multi, &running) != CURLM_OK)
                break;
            if (running == 0)
                break;
            const qint64 remaining = deadlineMs - clock.elapsed();
            if (remaining <= 0)
                return false;
            curl_multi_poll(m_multi, nullptr, 0, int(std::min<qint64>(remaining, 250)), nullptr);
        }
        result = CURLE_FAILED_INIT;
        int pending = 0;
        while (CURLMsg *message = curl_multi_info_read(m_multi, &pending)) {
            if (message->msg == CURLMSG_DONE && message->easy_handle == m_easy)
                result = message->data.result;
        }
        return true;
    }

private:
    CURLM *m_multi;
    CURL *m_easy;
};

QVariantMap networkValues(double durationMs, qint64 status, qint64 errorCode)
{
    return {{DiagnosticKey::kDurationMs, durationMs}, {DiagnosticKey::kHttpStatus, status},
        {DiagnosticKey::kErrorCode, errorCode}};
}

// The bearer header for `token` (empty for a null token); a token that could end the header line is refused.
QByteArray authorizationHeader(const QString &token)
{
    if (token.isNull())
        return {};
    const QByteArray authorization = "Authorization: Bearer " + token.toUtf8();
    if (!safeHeaderLine(authorization))
        HLServiceFail(kBadHeader);
    return authorization;
}

void setMethod(CURL *handle, const QByteArray &verb, const QByteArray *payload)
{
    const bool hasBody = payload != nullptr;
    if (verb == "GET" && !hasBody) {
        curl_easy_setopt(handle, CURLOPT_HTTPGET, 1L);
    } else if (verb == "POST") {
        curl_easy_setopt(handle, CURLOPT_POST, 1L);
    } else {
        // Also a GET with a body: the request body alone would otherwise turn it into a POST.
        curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, verb.constData());
    }
    if (verb != "GET" || hasBody) {
        curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t(hasBody ? payload->size() : 0));
        curl_easy_setopt(handle, CURLOPT_POSTFIELDS, hasBody ? payload->constData() : "");
    }
}

std::unique_ptr<curl_slist, ListDeleter> requestHeaders(
    const char *accept, bool hasBody, const QByteArray &authorization)
{
    curl_slist *headers = nullptr;
    const QByteArray acceptHeader = QByteArray("Accept: ") + accept;
    headers = curl_slist_append(headers, acceptHeader.constData());
    // libcurl would otherwise add a form content type to every POST and an Expect header to large ones.
    headers = curl_slist_append(headers, hasBody ? "Content-Type: application/json" : "Content-Type:");
    headers = curl_slist_append(headers, "Expect:");
    if (!authorization.isEmpty())
        headers = curl_slist_append(headers, authorization.constData());
    return std::unique_ptr<curl_slist, ListDeleter>(headers);
}

// Runs the request into `received`, records how it went in the diagnostic log and sets `status`. False when
// the answer outgrew `received.maxBytes` (its body is then dropped); throws when the transfer failed.
bool transfer(CURL *handle, Received &received, qint64 backstopMs, qint64 &status)
{
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &received);
    curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, collectHeader);
    curl_easy_setopt(handle, CURLOPT_HEADERDATA, &received);

    QElapsedTimer clock; // monotonic
    clock.start();
    CURLcode result = CURLE_OK;
    bool finished = false;
    {
        Transfer transfer(handle);
        finished = transfer.run(clock, backstopMs, result);
    }
    const double durationMs = double(clock.nsecsElapsed()) / 1e6;
    if (!finished) {
        DiagnosticLog::shared().record(DiagnosticEvent::kNetworkFailed, networkValues(durationMs, 0, kTimedOutCode));
        HLServiceFail(kTimedOut);
    }

    long responseCode = 0;
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &responseCode);
    if (result != CURLE_OK) {
        DiagnosticLog::shared().record(
            DiagnosticEvent::kNetworkFailed, networkValues(durationMs, responseCode, qint64(result)));
        if (!(result == CURLE_WRITE_ERROR && received.tooLarge))
            HLServiceFail(kFailed);
        status = responseCode;
        return false;
    }
    DiagnosticLog::shared().record(DiagnosticEvent::kNetworkCompleted, networkValues(durationMs, responseCode, 0));
    status = responseCode;
    return true;
}

} // namespace

HTTPTransport::HTTPTransport()
    : HTTPTransport(Limits {})
{
}

HTTPTransport::HTTPTransport(const Limits &limits)
    : m_limits(limits)
{
    initialiseCurl();
    // With an extra CA file the system's authorities are still trusted: through their hashed folder, which
    // OpenSSL consults lazily, where there is one (re-parsing the whole system bundle cost ~25 ms of CPU on
    // every request); else through one combined bundle in memory.
    const QString extra = endpoints::extraCAFile();
    const QByteArray systemPath = systemCAPath();
    if (!extra.isEmpty() && !systemPath.isEmpty()) {
        m_extraCAFile = QFile::encodeName(extra);
        m_systemCAPath = systemPath;
    } else {
        m_caBundle = combinedCABundle();
    }
}

HTTPTransport::~HTTPTransport() = default;

QVariant HTTPTransport::request(
    const QString &url, const QString &method, const QVariant &body, const QString &token, qint64 &status) const
{
    RetryHint ignored;
    return request(url, method, body, token, status, ignored);
}

QVariant HTTPTransport::request(const QString &url, const QString &method, const QVariant &body, const QString &token,
    qint64 &status, RetryHint &hint, Decoder decode) const
{
    QByteArray payload;
    const bool hasBody = body.isValid() && !body.isNull();
    if (hasBody)
        payload = serialisedBody(body);
    bool tooLarge = false;
    const QByteArray received = perform(url, method.toUtf8(), hasBody ? &payload : nullptr, token, "application/json",
        kMaxResponseBytes, status, tooLarge, hint);
    if (tooLarge)
        HLServiceFail(kTooLarge);
    if (!received.isEmpty()) {
        QJsonParseError error;
        const QJsonDocument document = QJsonDocument::fromJson(received, &error);
        if (error.error == QJsonParseError::NoError && (document.isObject() || document.isArray()))
            return decode ? decode(document) : document.toVariant();
    }
    if (status >= 200 && status <= 299)
        HLServiceFail(kInvalid);
    return {};
}

QByteArray HTTPTransport::get(const QString &url, qint64 maxBytes, qint64 &status, bool &tooLarge) const
{
    RetryHint ignored;
    return perform(url, "GET", nullptr, QString(), "*/*", std::max<qint64>(0, maxBytes), status, tooLarge, ignored);
}

QByteArray HTTPTransport::perform(const QString &url, const QByteArray &verb, const QByteArray *payload,
    const QString &token, const char *accept, qint64 maxBytes, qint64 &status, bool &tooLarge, RetryHint &hint) const
{
    tooLarge = false;
    const QUrl parsed(url, QUrl::StrictMode);
    if (!acceptableURL(url, parsed))
        HLServiceFail(kOnlyHTTPS);
    const QByteArray authorization = authorizationHeader(token);

    std::unique_ptr<CURL, EasyDeleter> easy(curl_easy_init());
    if (!easy)
        HLServiceFail(kFailed);
    CURL *handle = easy.get();
    const QByteArray encodedURL = parsed.toEncoded(QUrl::FullyEncoded);
    setConnectionOptions(handle, encodedURL);
    setMethod(handle, verb, payload);
    const std::unique_ptr<curl_slist, ListDeleter> headers = requestHeaders(accept, payload != nullptr, authorization);
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers.get());

    Received received;
    received.maxBytes = maxBytes;
    if (!transfer(handle, received, m_limits.backstop.count(), status)) {
        tooLarge = true;
        return {};
    }
    hint = received.hint;
    return received.body;
}

void HTTPTransport::setConnectionOptions(void *handle, const QByteArray &encodedURL) const
{
    curl_easy_setopt(handle, CURLOPT_URL, encodedURL.constData());
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "https");
    NoRedirect::apply(handle);
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 2L);
    if (!m_extraCAFile.isEmpty()) {
        curl_easy_setopt(handle, CURLOPT_CAINFO, m_extraCAFile.constData());
        curl_easy_setopt(handle, CURLOPT_CAPATH, m_systemCAPath.constData());
    } else if (!m_caBundle.isEmpty()) {
        curl_blob blob {const_cast<char *>(m_caBundle.constData()), size_t(m_caBundle.size()), CURL_BLOB_COPY};
        curl_easy_setopt(handle, CURLOPT_CAINFO_BLOB, &blob);
    }
    // Idle: fewer than 1 byte per second for the idle period ends the transfer; total: the whole transfer.
    const long idleSeconds = long(std::max<qint64>(1, (m_limits.idle.count() + 999) / 1000));
    curl_easy_setopt(handle, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(handle, CURLOPT_LOW_SPEED_TIME, idleSeconds);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, long(m_limits.total.count()));
    curl_easy_setopt(handle, CURLOPT_USERAGENT, "Hourloom/" HOURLOOM_VERSION);
}
