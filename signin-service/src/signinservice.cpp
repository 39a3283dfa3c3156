#include "signinservice.h"

#include "crypto.h"
#include "logger.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <httplib.h>

#include <cmath>
#include <functional>
#include <set>

namespace signin
{

namespace
{

constexpr std::size_t kMaxBody = 16 * 1024;

const char *kStoreDown = "The sign-in store is unavailable. Try again shortly.";

void setCommonHeaders(httplib::Response &res)
{
    // Every answer may carry a token or a sign-in's state: nothing is cached anywhere on the way.
    res.set_header("Cache-Control", "no-store");
    res.set_header("Pragma", "no-cache");
    res.set_header("X-Content-Type-Options", "nosniff");
    res.set_header("Referrer-Policy", "no-referrer");
}

void answerJson(httplib::Response &res, int status, const QJsonObject &object)
{
    res.status = status;
    const QByteArray body = QJsonDocument(object).toJson(QJsonDocument::Compact);
    res.set_content(body.toStdString(), "application/json");
}

void answerError(httplib::Response &res, int status, const char *error, const char *description)
{
    answerJson(res, status,
        QJsonObject {{QStringLiteral("error"), QString::fromLatin1(error)},
            {QStringLiteral("error_description"), QString::fromUtf8(description)}});
}

// A small self-contained page for the browser; the texts are constants, never echoed input.
void answerPage(httplib::Response &res, int status, const char *title, const char *message)
{
    res.status = status;
    std::string page = "<!DOCTYPE html><html lang=\"en\"><head><meta charset=\"utf-8\"><title>";
    page += title;
    page += "</title><meta name=\"viewport\" content=\"width=device-width\"><style>body{font-family:sans-serif;"
            "max-width:32em;margin:4em auto;padding:0 1em;color:#222}h1{font-size:1.4em}</style></head><body><h1>";
    page += title;
    page += "</h1><p>";
    page += message;
    page += "</p></body></html>";
    res.set_header("Content-Security-Policy", "default-src 'none'; style-src 'unsafe-inline'");
    res.set_content(page, "text/html; charset=utf-8");
}

std::string percentEncode(const std::string &text)
{
    static constexpr char hex[] = "0123456789ABCDEF";
    std::string out;
    for (const unsigned char c : text) {
        if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.'
            || c == '_' || c == '~') {
            out += char(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    return out;
}

// Parses a JSON object body holding only `allowed` keys; answers 400 itself otherwise.
bool parseBody(
    const httplib::Request &req, httplib::Response &res, const std::set<QString> &allowed, QJsonObject &object)
{
    QJsonParseError error {};
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(req.body), &error);
    if (error.error != QJsonParseError::NoError || !document.isObject()) {
        answerError(res, 400, "invalid_request", "The body must be a JSON object.");
        return false;
    }
    object = document.object();
    for (auto it = object.constBegin(); it != object.constEnd(); ++it) {
        if (!allowed.count(it.key())) {
            answerError(res, 400, "invalid_request", "The body holds an unknown field.");
            return false;
        }
    }
    return true;
}

std::string stringField(const QJsonObject &object, const char *name)
{
    const QJsonValue value = object.value(QLatin1String(name));
    return value.isString() ? value.toString().toStdString() : std::string();
}

// RFC 7636: 43 to 128 characters of [A-Za-z0-9-._~].
bool validVerifier(const std::string &verifier)
{
    if (verifier.size() < 43 || verifier.size() > 128)
        return false;
    for (const char c : verifier) {
        if (!((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.'
                || c == '_' || c == '~'))
            return false;
    }
    return true;
}

// Printable ASCII without blanks, quotes or angle brackets, 1 to `max` characters.
bool validOpaque(const std::string &text, std::size_t max)
{
    if (text.empty() || text.size() > max)
        return false;
    for (const char c : text) {
        if (c <= ' ' || c > '~' || c == '"' || c == '<' || c == '>' || c == '\\')
            return false;
    }
    return true;
}

bool validErrorCode(const std::string &text)
{
    if (text.empty() || text.size() > 64)
        return false;
    for (const char c : text) {
        if (!((c >= 'a' && c <= 'z') || c == '_'))
            return false;
    }
    return true;
}

// A pending sign-in as stored: the challenge, the app's loopback port (0: none), the stage, and once ready the
// tokens and the SHA-256 of the device nonce.
struct Record {
    std::string challenge;
    int port = 0;
    std::string stage;
    QJsonObject tokens;
    std::string nonceHash;

    std::string encode() const
    {
        QJsonObject object {{QStringLiteral("c"), QString::fromStdString(challenge)}, {QStringLiteral("p"), port},
            {QStringLiteral("s"), QString::fromStdString(stage)}};
        if (!tokens.isEmpty())
            object.insert(QStringLiteral("t"), tokens);
        if (!nonceHash.empty())
            object.insert(QStringLiteral("n"), QString::fromStdString(nonceHash));
        return QJsonDocument(object).toJson(QJsonDocument::Compact).toStdString();
    }

    static bool decode(const std::string &text, Record &record)
    {
        const QJsonObject object = QJsonDocument::fromJson(QByteArray::fromStdString(text)).object();
        if (!object.value(QStringLiteral("c")).isString() || !object.value(QStringLiteral("s")).isString())
            return false;
        record.challenge = object.value(QStringLiteral("c")).toString().toStdString();
        record.port = object.value(QStringLiteral("p")).toInt();
        record.stage = object.value(QStringLiteral("s")).toString().toStdString();
        record.tokens = object.value(QStringLiteral("t")).toObject();
        record.nonceHash = object.value(QStringLiteral("n")).toString().toStdString();
        return true;
    }
};

constexpr const char *kPending = "pending";
constexpr const char *kExchanging = "exchanging";
constexpr const char *kReady = "ready";
constexpr const char *kDenied = "denied";
constexpr const char *kFailed = "failed";

} // namespace

SigninService::SigninService(Config config, std::unique_ptr<Store> store)
    : m_config(std::move(config))
    , m_store(std::move(store))
    , m_tokens(m_config.tokenUrl, m_config.upstreamCaFile)
    , m_startLimit(m_config.startPerMinute)
    , m_pollLimit(m_config.pollPerMinute)
    , m_refreshLimit(m_config.refreshPerMinute)
{
    if (m_config.plainHttp())
        m_http = std::make_unique<httplib::Server>();
    else
        m_http = std::make_unique<httplib::SSLServer>(m_config.tlsCert.c_str(), m_config.tlsKey.c_str());

    const int threads = m_config.threads;
    m_http->new_task_queue = [threads] { return new httplib::ThreadPool(size_t(threads)); };
    m_http->set_payload_max_length(kMaxBody);
    m_http->set_read_timeout(5);
    m_http->set_write_timeout(5);
    m_http->set_keep_alive_timeout(5);
    // Over direct TLS, httplib 0.11 can wait out its read time-out on a kept-alive connection whose next request
    // OpenSSL has already buffered (the socket looks idle); one request per connection avoids that stall. Behind
    // a reverse proxy (plain HTTP on loopback) connections are kept alive.
    m_http->set_keep_alive_max_count(m_config.plainHttp() ? 100 : 1);

    // Each handler runs inside one trap: a store that cannot be reached is a clear 503 and nothing is kept.
    auto guarded = [this](void (SigninService::*handler)(const httplib::Request &, httplib::Response &), bool page) {
        return [this, handler, page](const httplib::Request &req, httplib::Response &res) {
            setCommonHeaders(res);
            try {
                (this->*handler)(req, res);
            } catch (const StoreFull &) {
                Logger::warning("store.full", {{"client", clientAddress(req)}});
                if (page)
                    answerPage(res, 503, "Sign-in is busy", "Too many sign-ins are in progress. Try again shortly.");
                else
                    answerError(res, 503, "temporarily_unavailable", "Too many sign-ins are in progress.");
            } catch (const StoreUnavailable &) {
                Logger::error("store.unavailable", {{"path", req.path}});
                if (page)
                    answerPage(res, 503, "Sign-in is unavailable", kStoreDown);
                else
                    answerError(res, 503, "temporarily_unavailable", kStoreDown);
            } catch (const std::exception &) {
                Logger::error("request.failed", {{"path", req.path}});
                answerError(res, 500, "server_error", "The sign-in service failed.");
            }
        };
    };
    m_http->Post("/oauth/start", guarded(&SigninService::start, false));
    m_http->Get("/oauth/callback", guarded(&SigninService::callback, true));
    m_http->Post("/oauth/poll", guarded(&SigninService::poll, false));
    m_http->Post("/oauth/refresh", guarded(&SigninService::refresh, false));
    m_http->Get("/healthz", [this](const httplib::Request &, httplib::Response &res) {
        setCommonHeaders(res);
        health(res);
    });

    m_http->set_error_handler([](const httplib::Request &, httplib::Response &res) {
        if (!res.body.empty())
            return;
        setCommonHeaders(res);
        switch (res.status) {
        case 404:
            answerError(res, 404, "not_found", "No such endpoint.");
            break;
        case 413:
            answerError(res, 413, "request_too_large", "The request is too large.");
            break;
        default:
            answerError(res, res.status, "invalid_request", "The request was not understood.");
        }
    });
    m_http->set_logger([this](const httplib::Request &req, const httplib::Response &res) {
        // The path only: a callback's query holds the authorization code.
        Logger::log(LogLevel::Debug, "request",
            {{"method", req.method}, {"path", req.path}, {"status", std::to_string(res.status)},
                {"client", clientAddress(req)}});
    });
}

SigninService::~SigninService()
{
    stop();
}

bool SigninService::bind(std::string *error)
{
    if (!m_http->is_valid()) {
        *error = "The TLS certificate or key cannot be loaded.";
        return false;
    }
    if (m_config.listenPort == 0) {
        m_port = m_http->bind_to_any_port(m_config.listenHost);
    } else {
        m_port = m_http->bind_to_port(m_config.listenHost, m_config.listenPort) ? m_config.listenPort : -1;
    }
    if (m_port <= 0) {
        *error = "Cannot listen on " + m_config.listenHost + ":" + std::to_string(m_config.listenPort) + ".";
        return false;
    }
    return true;
}

void SigninService::run()
{
    Logger::lifecycle("service.listening",
        {{"address", m_config.listenHost}, {"port", std::to_string(m_port)}, {"store", m_store->kind()},
            {"tls", m_config.plainHttp() ? "no" : "yes"}, {"public_origin", m_config.publicOrigin}});
    m_http->listen_after_bind();
}

void SigninService::stop()
{
    if (m_http)
        m_http->stop();
}

std::string SigninService::clientAddress(const httplib::Request &req) const
{
    if (m_config.trustForwardedFor && isLoopbackHost(req.remote_addr) && req.has_header("X-Forwarded-For")) {
        // The proxy appends the address it saw; anything before it came from the client and proves nothing.
        std::string forwarded = req.get_header_value("X-Forwarded-For");
        const auto comma = forwarded.rfind(',');
        if (comma != std::string::npos)
            forwarded = forwarded.substr(comma + 1);
        const auto first = forwarded.find_first_not_of(' ');
        if (first != std::string::npos && validOpaque(forwarded.substr(first), 64))
            return forwarded.substr(first);
    }
    return req.remote_addr;
}

bool SigninService::admit(
    RateLimiter &limiter, const char *endpoint, const httplib::Request &req, httplib::Response &res)
{
    int retryAfter = 0;
    const std::string client = clientAddress(req);
    if (limiter.allow(client, &retryAfter))
        return true;
    Logger::log(LogLevel::Debug, "rate_limited", {{"endpoint", endpoint}, {"client", client}});
    res.set_header("Retry-After", std::to_string(retryAfter));
    answerError(res, 429, "slow_down", "Too many requests from this address. Try again later.");
    return false;
}

void SigninService::start(const httplib::Request &req, httplib::Response &res)
{
    if (!admit(m_startLimit, "start", req, res))
        return;
    QJsonObject body;
    if (!parseBody(req, res,
            {QStringLiteral("challenge"), QStringLiteral("port"), QStringLiteral("code_challenge_method")}, body))
        return;
    const std::string challenge = stringField(body, "challenge");
    if (!isBase64Url(challenge, 43, 43)) {
        answerError(res, 400, "invalid_request", "\"challenge\" must be an S256 PKCE challenge (43 characters).");
        return;
    }
    if (body.contains(QStringLiteral("code_challenge_method"))
        && body.value(QStringLiteral("code_challenge_method")).toString() != QLatin1String("S256")) {
        answerError(res, 400, "invalid_request", "Only the S256 challenge method is supported.");
        return;
    }
    int port = 0;
    if (body.contains(QStringLiteral("port"))) {
        const QJsonValue value = body.value(QStringLiteral("port"));
        const double number = value.toDouble(-1);
        if (!value.isDouble() || number != std::floor(number) || number < 1024 || number > 65535) {
            answerError(res, 400, "invalid_request", "\"port\" must be a loopback port from 1024 to 65535.");
            return;
        }
        port = int(number);
    }

    Record record;
    record.challenge = challenge;
    record.port = port;
    record.stage = kPending;
    // 256 bits from the CSPRNG; a clash is practically impossible, but a second draw costs nothing.
    std::string state = randomToken(32);
    if (!m_store->create(state, record.encode(), m_config.pendingSeconds)) {
        state = randomToken(32);
        if (!m_store->create(state, record.encode(), m_config.pendingSeconds)) {
            answerError(res, 500, "server_error", "Could not start a sign-in.");
            return;
        }
    }
    const std::string url = m_config.authorizeUrl + "?audience=api.atlassian.com&client_id="
        + percentEncode(m_config.clientId) + "&scope=" + percentEncode(m_config.scopes) + "&redirect_uri="
        + percentEncode(m_config.redirectUri()) + "&state=" + state + "&response_type=code&prompt=consent";
    Logger::info(
        "signin.started", {{"sign_in", logTag(state)}, {"client", clientAddress(req)}, {"bound", port ? "yes" : "no"}});
    answerJson(res, 200,
        QJsonObject {{QStringLiteral("state"), QString::fromStdString(state)},
            {QStringLiteral("authorization_url"), QString::fromStdString(url)}});
}

void SigninService::callback(const httplib::Request &req, httplib::Response &res)
{
    static const char *kGone = "This sign-in link has expired or was already used. Start again from Hourloom.";
    const std::string state = req.get_param_value("state");
    const std::string code = req.get_param_value("code");
    const std::string error = req.get_param_value("error");
    if (!isBase64Url(state, 43, 43) || (code.empty() == error.empty()) || (!code.empty() && !validOpaque(code, 4096))
        || (!error.empty() && !validErrorCode(error))) {
        answerPage(res, 400, "Sign-in link not valid", "This sign-in link is not valid. Start again from Hourloom.");
        return;
    }
    const std::string tag = logTag(state);
    const std::optional<std::string> stored = m_store->get(state);
    Record record;
    if (!stored || !Record::decode(*stored, record) || record.stage != kPending) {
        Logger::warning("signin.callback_refused", {{"sign_in", tag}, {"reason", stored ? "used" : "unknown"}});
        answerPage(res, 400, "Sign-in link not valid", kGone);
        return;
    }

    if (!error.empty()) {
        record.stage = kDenied;
        m_store->replace(state, *stored, record.encode());
        Logger::info("signin.denied", {{"sign_in", tag}, {"error", error}});
        answerPage(res, 200, "Hourloom was not given access",
            "Access to Jira was not granted. You can close this page and connect again from Hourloom.");
        return;
    }

    // Claiming the sign-in before the exchange makes a replayed callback lose, on this instance or another.
    record.stage = kExchanging;
    const std::string claimed = record.encode();
    if (!m_store->replace(state, *stored, claimed)) {
        answerPage(res, 400, "Sign-in link not valid", kGone);
        return;
    }
    const UpstreamAnswer answer
        = m_tokens.post(QJsonObject {{QStringLiteral("grant_type"), QStringLiteral("authorization_code")},
            {QStringLiteral("client_id"), QString::fromStdString(m_config.clientId)},
            {QStringLiteral("client_secret"), QString::fromStdString(m_config.clientSecret)},
            {QStringLiteral("code"), QString::fromStdString(code)},
            {QStringLiteral("redirect_uri"), QString::fromStdString(m_config.redirectUri())}});
    const QJsonObject tokens = answer.status == 200 ? tokenFields(answer.body) : QJsonObject();
    if (tokens.isEmpty()) {
        record.stage = kFailed;
        m_store->replace(state, claimed, record.encode());
        Logger::warning(
            "signin.exchange_failed", {{"sign_in", tag}, {"upstream_status", std::to_string(answer.status)}});
        answerPage(res, 502, "Sign-in did not complete",
            "Hourloom could not finish signing in with Atlassian. Close this page and connect again from Hourloom.");
        return;
    }

    record.stage = kReady;
    record.tokens = tokens;
    std::string nonce;
    if (record.port) {
        nonce = randomToken(32);
        record.nonceHash = s256(nonce);
    }
    if (!m_store->replace(state, claimed, record.encode())) {
        answerPage(res, 400, "Sign-in link not valid", kGone);
        return;
    }
    Logger::info("signin.approved", {{"sign_in", tag}, {"bound", record.port ? "yes" : "no"}});
    if (record.port) {
        // Only the device that started the sign-in listens on its loopback port: the nonce reaches it there.
        const std::string location = "http://127.0.0.1:" + std::to_string(record.port)
            + "/hourloom/signed-in?state=" + state + "&nonce=" + nonce;
        res.set_redirect(location, 302);
        answerPage(res, 302, "Returning to Hourloom", "Hourloom is finishing the sign-in.");
        return;
    }
    answerPage(res, 200, "You can return to Hourloom", "Hourloom is now connected to Jira. You can close this page.");
}

void SigninService::poll(const httplib::Request &req, httplib::Response &res)
{
    if (!admit(m_pollLimit, "poll", req, res))
        return;
    QJsonObject body;
    if (!parseBody(req, res, {QStringLiteral("state"), QStringLiteral("verifier"), QStringLiteral("nonce")}, body))
        return;
    const std::string state = stringField(body, "state");
    const std::string verifier = stringField(body, "verifier");
    const std::string nonce = stringField(body, "nonce");
    if (!isBase64Url(state, 43, 43) || !validVerifier(verifier)
        || (body.contains(QStringLiteral("nonce")) && !isBase64Url(nonce, 43, 43))) {
        answerError(res, 400, "invalid_request", "\"state\" and \"verifier\" are required and well-formed.");
        return;
    }
    const std::string tag = logTag(state);
    const std::optional<std::string> stored = m_store->get(state);
    Record record;
    if (!stored || !Record::decode(*stored, record)) {
        answerError(res, 400, "invalid_grant", "Unknown or expired sign-in.");
        return;
    }
    if (!constantTimeEquals(s256(verifier), record.challenge)) {
        Logger::warning("signin.poll_refused", {{"sign_in", tag}, {"reason", "verifier"}});
        answerError(res, 400, "invalid_grant", "The verifier does not match the challenge.");
        return;
    }
    if (record.stage == kPending || record.stage == kExchanging) {
        answerJson(res, 202, QJsonObject {{QStringLiteral("status"), QStringLiteral("pending")}});
        return;
    }
    if (record.stage == kDenied || record.stage == kFailed) {
        m_store->take(state, *stored);
        if (record.stage == kDenied)
            answerError(res, 400, "access_denied", "The user did not grant access.");
        else
            answerError(res, 400, "invalid_grant", "The sign-in could not be completed.");
        return;
    }
    if (record.port) {
        if (nonce.empty()) {
            // Approved in a browser, but the device that started the sign-in has not confirmed it yet.
            answerJson(res, 202, QJsonObject {{QStringLiteral("status"), QStringLiteral("pending")}});
            return;
        }
        if (!constantTimeEquals(s256(nonce), record.nonceHash)) {
            // Whoever polls with a wrong nonce did not receive the browser's redirect: the sign-in is void.
            m_store->take(state, *stored);
            Logger::warning("signin.poll_refused", {{"sign_in", tag}, {"reason", "nonce"}});
            answerError(res, 403, "access_denied", "This sign-in was not confirmed on the device that started it.");
            return;
        }
    }
    if (!m_store->take(state, *stored)) {
        answerError(res, 400, "invalid_grant", "Unknown or expired sign-in.");
        return;
    }
    Logger::info("signin.completed", {{"sign_in", tag}});
    answerJson(res, 200, record.tokens);
}

void SigninService::refresh(const httplib::Request &req, httplib::Response &res)
{
    if (!admit(m_refreshLimit, "refresh", req, res))
        return;
    QJsonObject body;
    if (!parseBody(req, res, {QStringLiteral("refresh_token")}, body))
        return;
    const std::string token = stringField(body, "refresh_token");
    if (!validOpaque(token, 4096)) {
        answerError(res, 400, "invalid_request", "\"refresh_token\" is required.");
        return;
    }
    const UpstreamAnswer answer
        = m_tokens.post(QJsonObject {{QStringLiteral("grant_type"), QStringLiteral("refresh_token")},
            {QStringLiteral("client_id"), QString::fromStdString(m_config.clientId)},
            {QStringLiteral("client_secret"), QString::fromStdString(m_config.clientSecret)},
            {QStringLiteral("refresh_token"), QString::fromStdString(token)}});
    if (answer.status == 0 || answer.status >= 500) {
        Logger::warning("refresh.upstream_unavailable", {{"upstream_status", std::to_string(answer.status)}});
        answerError(res, 502, "temporarily_unavailable", "Atlassian could not be reached. Try again shortly.");
        return;
    }
    const QJsonObject tokens = answer.status == 200 ? tokenFields(answer.body) : QJsonObject();
    if (tokens.isEmpty()) {
        const std::string error = answer.body.value(QStringLiteral("error")).toString().toStdString();
        Logger::info("refresh.refused", {{"upstream_status", std::to_string(answer.status)}});
        const int status = answer.status >= 400 && answer.status < 500 ? answer.status : 502;
        answerError(res, status, validErrorCode(error) ? error.c_str() : "invalid_grant",
            "The refresh token was not accepted. Connect again.");
        return;
    }
    // The rotated refresh token goes back to the app and nowhere else.
    Logger::info("refresh.completed");
    answerJson(res, 200, tokens);
}

void SigninService::health(httplib::Response &res)
{
    try {
        const std::size_t pending = m_store->size();
        answerJson(res, 200,
            QJsonObject {{QStringLiteral("status"), QStringLiteral("ok")},
                {QStringLiteral("store"), QString::fromStdString(m_store->kind())},
                {QStringLiteral("pending"), double(pending)}});
    } catch (const std::exception &) {
        answerJson(res, 503,
            QJsonObject {{QStringLiteral("status"), QStringLiteral("unavailable")},
                {QStringLiteral("store"), QString::fromStdString(m_store->kind())}});
    }
}

} // namespace signin
