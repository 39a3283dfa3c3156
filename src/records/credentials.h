#pragma once

// The keys of the Jira credentials record the secret store keeps (`OAuthSession`, `KeychainStore`), and of the
// messages exchanged with the sign-in service while obtaining and renewing it. The service's own spelling.
//
// When you add a key to the record, also change `OAuthSession::tokenRecord`, which builds it from the service's
// answer, and the check of that answer in oauthsession.cpp.

#include <QString>

namespace CredentialKey
{

// The bearer token for the API gateway and the token that renews it (rotated on every renewal).
inline const QString kAccessToken = QStringLiteral("access_token");
inline const QString kRefreshToken = QStringLiteral("refresh_token");
// The access token's lifetime in seconds, as the service answered it.
inline const QString kExpiresIn = QStringLiteral("expires_in");
// When the access token expires: seconds since 1970 (a double), from the local clock at the answer.
inline const QString kExpiresAt = QStringLiteral("expires_at");
// The origin of the sign-in service that issued the tokens; renewals go back to it.
inline const QString kBroker = QStringLiteral("broker");

} // namespace CredentialKey

// The fields of the sign-in exchange ("/oauth/start", "/oauth/poll") and of the loopback confirmation.
namespace SignInKey
{

// Start: the PKCE challenge and, when listening, the loopback port the service may confirm the device on.
inline const QString kChallenge = QStringLiteral("challenge");
inline const QString kPort = QStringLiteral("port");
// Start's answer: the sign-in's state and the authorization page to open.
inline const QString kState = QStringLiteral("state");
inline const QString kAuthorizationUrl = QStringLiteral("authorization_url");
// Poll: the PKCE verifier, and the nonce the loopback confirmation delivered.
inline const QString kVerifier = QStringLiteral("verifier");
inline const QString kNonce = QStringLiteral("nonce");

} // namespace SignInKey
