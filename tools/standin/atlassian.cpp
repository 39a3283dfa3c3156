#include "atlassian.h"

#include "serverstate.h"

#include <QHash>
#include <QJsonDocument>
#include <QUrl>
#include <QUrlQuery>

#include <httplib.h>

#include <mutex>
#include <thread>

// The answers follow Atlassian's documented shapes: a refused refresh is 403 invalid_grant with "Unknown or
// invalid refresh token."; bad client credentials 401 access_denied "Unauthorized" (seen); a refused code 403
// invalid_grant; a declined consent returns to the redirect URI with error=access_denied.
namespace standin
{

namespace
{

struct Code {
    QString clientId;
    QString redirectUri;
    QStringList scopes;
    QString accountId;
    QDateTime expires;
    bool used = false;
    QString family; // set once exchanged: reuse revokes what it yielded
};

struct Refresh {
    QString clientId;
    QString accountId;
    QStringList scopes;
    QString family;
    QDateTime rotatedAt; // invalid: the family's live token
};

QJsonObject oauthError(const QString &error, const QString &description)
{
    return {{QStringLiteral("error"), error}, {QStringLiteral("error_description"), description}};
}

} // namespace

struct Atlassian::State {
    explicit State(Server &server)
        : gateway(server)
    {
    }

    Server &gateway;
    mutable std::mutex mutex;
    std::unique_ptr<httplib::SSLServer> http;
    std::thread thread;
    quint16 port = 0;

    QHash<QString, OAuthClient> clients;
    QString accountId;
    QStringList userScopes {kReadWork, kWriteWork, kReadUser, kOffline};
    Consent consent = Consent::Approve;
    qint64 tokenLifetime = 3600;
    qint64 reuseLeeway = 600;
    qint64 codeLifetime = 600;
    QHash<QString, Code> codes;
    QHash<QString, Refresh> refreshTokens;
    QHash<QString, QStringList> familyAccess; // family -> access tokens issued in it
    int tokenRequests = 0;
    QStringList issued;

    void authorize(const httplib::Request &req, httplib::Response &res);
    void token(const httplib::Request &req, httplib::Response &res);
    QJsonObject issue(
        const QString &clientId, const QString &account, const QStringList &scopes, const QString &family);
    void revokeFamily(const QString &family);
};

void Atlassian::State::authorize(const httplib::Request &req, httplib::Response &res)
{
    auto param = [&](const char *name) { return fromStd(req.get_param_value(name)); };
    const auto client = clients.constFind(param("client_id"));
    // An unknown client or an unregistered callback is never redirected to: the page itself says so.
    if (client == clients.constEnd() || !client->redirectUris.contains(param("redirect_uri"))) {
        answer(res, 400,
            "<html><body><h1>Something went wrong</h1><p>Invalid client or callback URL.</p></body></html>",
            "text/html;charset=UTF-8");
        return;
    }
    QUrl target(param("redirect_uri"));
    QUrlQuery query;
    const QStringList requested = param("scope").split(QLatin1Char(' '), Qt::SkipEmptyParts);
    QString problem;
    if (param("audience") != QLatin1String("api.atlassian.com"))
        problem = QStringLiteral("invalid_request");
    else if (param("response_type") != QLatin1String("code"))
        problem = QStringLiteral("unsupported_response_type");
    else if (requested.isEmpty())
        problem = QStringLiteral("invalid_scope");
    else if (consent == Consent::Deny || accountId.isEmpty())
        problem = QStringLiteral("access_denied");
    if (!problem.isEmpty()) {
        query.addQueryItem(QStringLiteral("error"), problem);
        query.addQueryItem(QStringLiteral("error_description"),
            problem == QLatin1String("access_denied") ? QStringLiteral("User did not authorize the request")
                                                      : QStringLiteral("The request is not valid."));
    } else {
        QStringList granted;
        for (const QString &scope : requested) {
            if (userScopes.contains(scope))
                granted.append(scope);
        }
        const QString code = randomHex(32);
        codes.insert(code,
            {client->clientId, param("redirect_uri"), granted, accountId,
                QDateTime::currentDateTimeUtc().addSecs(codeLifetime), false, QString()});
        issued.append(code);
        query.addQueryItem(QStringLiteral("code"), code);
    }
    if (req.has_param("state"))
        query.addQueryItem(QStringLiteral("state"), param("state"));
    target.setQuery(query);
    res.set_redirect(target.toString(QUrl::FullyEncoded).toStdString(), 302);
}

QJsonObject Atlassian::State::issue(
    const QString &clientId, const QString &account, const QStringList &scopes, const QString &family)
{
    const QString access = gateway.issueAccessToken(account, scopes, tokenLifetime);
    familyAccess[family].append(access);
    issued.append(access);
    QJsonObject tokens {{QStringLiteral("access_token"), access}, {QStringLiteral("expires_in"), double(tokenLifetime)},
        {QStringLiteral("scope"), scopes.join(QLatin1Char(' '))},
        {QStringLiteral("token_type"), QStringLiteral("Bearer")}};
    if (scopes.contains(kOffline)) {
        const QString refresh = randomHex(32);
        refreshTokens.insert(refresh, {clientId, account, scopes, family, QDateTime()});
        issued.append(refresh);
        tokens.insert(QStringLiteral("refresh_token"), refresh);
    }
    return tokens;
}

void Atlassian::State::revokeFamily(const QString &family)
{
    for (auto it = refreshTokens.begin(); it != refreshTokens.end();)
        it = it->family == family ? refreshTokens.erase(it) : std::next(it);
    for (const QString &access : familyAccess.take(family))
        gateway.revokeAccessToken(access);
}

void Atlassian::State::token(const httplib::Request &req, httplib::Response &res)
{
    ++tokenRequests;
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(req.body));
    if (!document.isObject()) {
        answerJson(res, 400, oauthError(QStringLiteral("invalid_request"), QStringLiteral("Invalid request body.")));
        return;
    }
    const QJsonObject body = document.object();
    auto field = [&](const char *name) { return body.value(QLatin1String(name)).toString(); };
    const QString grantType = field("grant_type");
    if (grantType != QLatin1String("authorization_code") && grantType != QLatin1String("refresh_token")) {
        answerJson(
            res, 400, oauthError(QStringLiteral("unsupported_grant_type"), QStringLiteral("Unsupported grant type.")));
        return;
    }
    const auto client = clients.constFind(field("client_id"));
    if (client == clients.constEnd() || client->clientSecret.isEmpty()
        || field("client_secret") != client->clientSecret) {
        answerJson(res, 401, oauthError(QStringLiteral("access_denied"), QStringLiteral("Unauthorized")));
        return;
    }

    if (grantType == QLatin1String("authorization_code")) {
        static const QJsonObject invalidCode
            = oauthError(QStringLiteral("invalid_grant"), QStringLiteral("Invalid authorization code"));
        auto code = codes.find(field("code"));
        if (code == codes.end() || code->clientId != client->clientId) {
            answerJson(res, 403, invalidCode);
            return;
        }
        if (code->used) {
            // A code presented twice was intercepted somewhere: what it yielded is revoked.
            revokeFamily(code->family);
            answerJson(res, 403, invalidCode);
            return;
        }
        if (code->redirectUri != field("redirect_uri") || code->expires < QDateTime::currentDateTimeUtc()) {
            answerJson(res, 403, invalidCode);
            return;
        }
        code->used = true;
        code->family = randomHex(8);
        answerJson(res, 200, issue(client->clientId, code->accountId, code->scopes, code->family));
        return;
    }

    static const QJsonObject invalidRefresh
        = oauthError(QStringLiteral("invalid_grant"), QStringLiteral("Unknown or invalid refresh token."));
    const auto it = refreshTokens.constFind(field("refresh_token"));
    if (it == refreshTokens.constEnd() || it->clientId != client->clientId) {
        answerJson(res, 403, invalidRefresh);
        return;
    }
    const Refresh used = *it;
    const QDateTime now = QDateTime::currentDateTimeUtc();
    if (!rotateFamily(refreshTokens, used, now, reuseLeeway)) {
        revokeFamily(used.family);
        answerJson(res, 403, invalidRefresh);
        return;
    }
    answerJson(res, 200, issue(used.clientId, used.accountId, used.scopes, used.family));
}

Atlassian::Atlassian(Server &gateway)
    : d(std::make_unique<State>(gateway))
{
}

Atlassian::~Atlassian()
{
    stop();
}

bool Atlassian::start(const QString &certFile, const QString &keyFile, quint16 port)
{
    if (d->http)
        return true;
    auto http = std::make_unique<httplib::SSLServer>(certFile.toStdString().c_str(), keyFile.toStdString().c_str());
    if (!http->is_valid())
        return false;
    http->set_keep_alive_timeout(1);
    http->Get("/authorize", [this](const httplib::Request &req, httplib::Response &res) {
        std::lock_guard lock(d->mutex);
        d->authorize(req, res);
    });
    http->Post("/oauth/token", [this](const httplib::Request &req, httplib::Response &res) {
        std::lock_guard lock(d->mutex);
        d->token(req, res);
    });
    const int bound
        = port == 0 ? http->bind_to_any_port("127.0.0.1") : (http->bind_to_port("127.0.0.1", port) ? int(port) : -1);
    if (bound <= 0)
        return false;
    d->port = quint16(bound);
    httplib::SSLServer *raw = http.get();
    d->http = std::move(http);
    d->thread = std::thread([raw] { raw->listen_after_bind(); });
    for (int i = 0; i < 5000 && !raw->is_running(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return true;
}

void Atlassian::stop()
{
    if (!d->http)
        return;
    d->http->stop();
    if (d->thread.joinable())
        d->thread.join();
    d->http.reset();
}

quint16 Atlassian::port() const
{
    return d->port;
}

QString Atlassian::authorizeUrl() const
{
    return QStringLiteral("https://127.0.0.1:%1/authorize").arg(d->port);
}

QString Atlassian::tokenUrl() const
{
    return QStringLiteral("https://127.0.0.1:%1/oauth/token").arg(d->port);
}

void Atlassian::addClient(const OAuthClient &client)
{
    std::lock_guard lock(d->mutex);
    d->clients.insert(client.clientId, client);
    d->issued.append(client.clientSecret);
}

void Atlassian::setUser(const QString &accountId, const QStringList &scopes)
{
    std::lock_guard lock(d->mutex);
    d->accountId = accountId;
    d->userScopes = scopes;
}

void Atlassian::setConsent(Consent consent)
{
    std::lock_guard lock(d->mutex);
    d->consent = consent;
}

void Atlassian::setTokenLifetime(qint64 seconds)
{
    std::lock_guard lock(d->mutex);
    d->tokenLifetime = seconds;
}

void Atlassian::setRefreshReuseLeeway(qint64 seconds)
{
    std::lock_guard lock(d->mutex);
    d->reuseLeeway = seconds;
}

void Atlassian::setCodeLifetime(qint64 seconds)
{
    std::lock_guard lock(d->mutex);
    d->codeLifetime = seconds;
}

QStringList Atlassian::liveRefreshTokens() const
{
    std::lock_guard lock(d->mutex);
    QStringList live;
    for (auto it = d->refreshTokens.cbegin(); it != d->refreshTokens.cend(); ++it) {
        if (!it->rotatedAt.isValid())
            live.append(it.key());
    }
    return live;
}

int Atlassian::tokenRequests() const
{
    std::lock_guard lock(d->mutex);
    return d->tokenRequests;
}

QStringList Atlassian::issuedSecrets() const
{
    std::lock_guard lock(d->mutex);
    return d->issued;
}

} // namespace standin
