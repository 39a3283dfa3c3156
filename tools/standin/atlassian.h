#pragma once

#include "server.h"

#include <QString>
#include <QStringList>

#include <memory>

// Atlassian's OAuth 2.0 (3LO) authorization server as a sign-in service sees it: the consent page at
// "/authorize" and the token endpoint "/oauth/token" (authorization-code and refresh-token grants, JSON bodies),
// on its own TLS port. Access tokens it issues are valid at the gateway of the `Server` given, so a client that
// signs in through it can go on to accessible-resources and worklogs.
namespace standin
{

struct OAuthClient {
    QString clientId;
    QString clientSecret;
    QStringList redirectUris; // exact matches only, as in the developer console
};

class Atlassian
{
public:
    // What the user does on the consent page.
    enum class Consent { Approve, Deny };

    explicit Atlassian(Server &gateway);
    ~Atlassian(); // stops
    Atlassian(const Atlassian &) = delete;
    Atlassian &operator=(const Atlassian &) = delete;

    // Serves on 127.0.0.1 with the given PEM certificate and key (the gateway's: one authority for all).
    bool start(const QString &certFile, const QString &keyFile, quint16 port = 0);
    void stop();
    quint16 port() const;
    QString authorizeUrl() const; // "https://127.0.0.1:PORT/authorize"
    QString tokenUrl() const; // "https://127.0.0.1:PORT/oauth/token"

    void addClient(const OAuthClient &client);
    // Who consents and to which scopes at most (default: the gateway's first user... set it explicitly).
    void setUser(const QString &accountId, const QStringList &scopes);
    void setConsent(Consent consent);
    void setTokenLifetime(qint64 seconds); // expires_in (default 3600)
    // A rotated refresh token keeps working this long; reuse after it revokes the family (default 600).
    void setRefreshReuseLeeway(qint64 seconds);
    void setCodeLifetime(qint64 seconds); // default 600

    QStringList liveRefreshTokens() const; // the newest token of every family that is not revoked
    int tokenRequests() const; // requests to /oauth/token so far
    // Every code, token and secret this server handed out or was given, for tests that look for leaks.
    QStringList issuedSecrets() const;

private:
    struct State;
    std::unique_ptr<State> d;
};

} // namespace standin
