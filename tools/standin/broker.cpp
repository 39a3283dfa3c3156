#include "serverstate.h"

#include "jiraformat.h"

#include <QCryptographicHash>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QUrl>
#include <QUrlQuery>

#include <algorithm>

// The sign-in service: the PKCE handshake and rotating refresh tokens.
namespace standin
{

QJsonObject Server::State::issueTokens(
    const QString &accountId, const QStringList &scopes, const QStringList &cloudIds, const QString &family)
{
    const QString access = QStringLiteral("standin-at-") + randomHex(24);
    accessTokens.insert(
        access, {accountId, scopes, cloudIds, QDateTime::currentDateTimeUtc().addSecs(tokenLifetime), family});
    QJsonObject answerObject {{QStringLiteral("access_token"), access},
        {QStringLiteral("expires_in"), double(tokenLifetime)}, {QStringLiteral("scope"), scopes.join(QLatin1Char(' '))},
        {QStringLiteral("token_type"), QStringLiteral("Bearer")}};
    if (scopes.contains(kOffline)) {
        const QString refresh = QStringLiteral("standin-rt-") + randomHex(24);
        refreshTokens.insert(refresh, {accountId, scopes, cloudIds, family, QDateTime()});
        answerObject.insert(QStringLiteral("refresh_token"), refresh);
    }
    return answerObject;
}

void Server::State::oauthStart(const httplib::Request &req, httplib::Response &res)
{
    const QJsonObject body = QJsonDocument::fromJson(QByteArray::fromStdString(req.body)).object();
    const QString challenge = body.value(QStringLiteral("challenge")).toString();
    // The base64url form of a SHA-256 digest: 43 characters that decode to exactly 32 bytes.
    static const QRegularExpression challengePattern(QStringLiteral("^[A-Za-z0-9_-]{43}$"));
    const auto decoded = QByteArray::fromBase64Encoding(challenge.toLatin1(),
        QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals | QByteArray::AbortOnBase64DecodingErrors);
    if (!challengePattern.match(challenge).hasMatch() || !decoded || decoded.decoded.size() != 32
        || base64Url(decoded.decoded) != challenge) {
        answerJson(res, 400,
            QJsonObject {{QStringLiteral("error"), QStringLiteral("invalid_request")},
                {QStringLiteral("error_description"), QStringLiteral("A S256 challenge is required.")}});
        return;
    }
    const QString state = randomHex(16);
    signIns.insert(state, {challenge, SignIn::Stage::Pending, QDateTime::currentDateTimeUtc()});
    const QString base
        = authUrlBase.isEmpty() ? QStringLiteral("https://%1:%2/authorize").arg(authHost).arg(port) : authUrlBase;
    QUrlQuery query;
    query.addQueryItem(QStringLiteral("audience"), QStringLiteral("api.atlassian.com"));
    query.addQueryItem(QStringLiteral("client_id"), QStringLiteral("standin-client"));
    query.addQueryItem(QStringLiteral("scope"), grantScopes.join(QLatin1Char(' ')));
    query.addQueryItem(QStringLiteral("redirect_uri"), QStringLiteral("https://127.0.0.1:%1/callback").arg(port));
    query.addQueryItem(QStringLiteral("state"), state);
    query.addQueryItem(QStringLiteral("response_type"), QStringLiteral("code"));
    query.addQueryItem(QStringLiteral("prompt"), QStringLiteral("consent"));
    answerJson(res, 200,
        QJsonObject {{QStringLiteral("state"), state},
            {QStringLiteral("authorization_url"),
                QString(base + QLatin1Char('?') + query.toString(QUrl::FullyEncoded))}});
}

void Server::State::authorize(const httplib::Request &req, httplib::Response &res)
{
    const QString state = fromStd(req.get_param_value("state"));
    auto it = signIns.find(state);
    if (it != signIns.end() && it->started.secsTo(QDateTime::currentDateTimeUtc()) >= signInLifetime)
        it->stage = SignIn::Stage::Done; // expired: the link no longer works
    if (it == signIns.end() || it->stage != SignIn::Stage::Pending) {
        answer(
            res, 400, "<html><body><h1>This sign-in link is not valid.</h1></body></html>", "text/html;charset=UTF-8");
        return;
    }
    it->stage = SignIn::Stage::Approved;
    answer(res, 200, "<html><body><h1>Access granted</h1><p>You can return to Hourloom.</p></body></html>",
        "text/html;charset=UTF-8");
}

void Server::State::oauthPoll(const httplib::Request &req, httplib::Response &res)
{
    const QJsonObject body = QJsonDocument::fromJson(QByteArray::fromStdString(req.body)).object();
    const QString state = body.value(QStringLiteral("state")).toString();
    const QString verifier = body.value(QStringLiteral("verifier")).toString();
    auto it = signIns.find(state);
    // A sign-in not completed within its lifetime is forgotten, approved or not.
    if (it != signIns.end() && it->stage != SignIn::Stage::Done
        && it->started.secsTo(QDateTime::currentDateTimeUtc()) >= signInLifetime)
        it->stage = SignIn::Stage::Done;
    if (it == signIns.end() || it->stage == SignIn::Stage::Done) {
        answerJson(res, 400,
            QJsonObject {{QStringLiteral("error"), QStringLiteral("invalid_grant")},
                {QStringLiteral("error_description"), QStringLiteral("Unknown or expired sign-in.")}});
        return;
    }
    const QString expected = base64Url(QCryptographicHash::hash(verifier.toUtf8(), QCryptographicHash::Sha256));
    if (expected != it->challenge) {
        answerJson(res, 400,
            QJsonObject {{QStringLiteral("error"), QStringLiteral("invalid_grant")},
                {QStringLiteral("error_description"), QStringLiteral("The verifier does not match the challenge.")}});
        return;
    }
    if (it->stage == SignIn::Stage::Pending) {
        answerJson(res, 202, QJsonObject {{QStringLiteral("status"), QStringLiteral("pending")}});
        return;
    }
    if (it->stage == SignIn::Stage::Denied) {
        it->stage = SignIn::Stage::Done;
        answerJson(res, 400,
            QJsonObject {{QStringLiteral("error"), QStringLiteral("access_denied")},
                {QStringLiteral("error_description"), QStringLiteral("The user denied access.")}});
        return;
    }
    const QString account = !grantAccount.isEmpty() ? grantAccount : userOrder.value(0);
    if (account.isEmpty()) {
        answerJson(res, 500, QJsonObject {{QStringLiteral("error"), QStringLiteral("server_error")}});
        return;
    }
    it->stage = SignIn::Stage::Done;
    answerJson(res, 200, issueTokens(account, grantScopes, {}, randomHex(8)));
}

void Server::State::oauthRefresh(const httplib::Request &req, httplib::Response &res)
{
    static const QJsonObject invalidGrant {{QStringLiteral("error"), QStringLiteral("invalid_grant")},
        {QStringLiteral("error_description"), QStringLiteral("Unknown or invalid refresh token.")}};
    const QJsonObject body = QJsonDocument::fromJson(QByteArray::fromStdString(req.body)).object();
    const QString token = body.value(QStringLiteral("refresh_token")).toString();
    const auto it = refreshTokens.constFind(token);
    if (token.isEmpty() || it == refreshTokens.constEnd()) {
        answerJson(res, 403, invalidGrant);
        return;
    }
    const RefreshToken used = *it;
    const QDateTime now = QDateTime::currentDateTimeUtc();
    if (!rotateFamily(refreshTokens, used, now, reuseLeeway)) {
        // The whole family goes, access tokens included.
        for (auto r = refreshTokens.begin(); r != refreshTokens.end();)
            r = r->family == used.family ? refreshTokens.erase(r) : std::next(r);
        for (auto a = accessTokens.begin(); a != accessTokens.end();)
            a = a->family == used.family ? accessTokens.erase(a) : std::next(a);
        answerJson(res, 403, invalidGrant);
        return;
    }
    answerJson(res, 200, issueTokens(used.accountId, used.scopes, used.cloudIds, used.family));
}

} // namespace standin
