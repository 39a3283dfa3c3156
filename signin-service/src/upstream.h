#pragma once

#include <QJsonObject>

#include <string>

namespace signin
{

struct UpstreamAnswer {
    int status = 0; // 0: no answer (connection, TLS or time-out failure)
    QJsonObject body; // empty when the answer was not a JSON object
};

// Atlassian's token endpoint, over verified TLS, without following redirects.
class TokenEndpoint
{
public:
    TokenEndpoint(const std::string &url, const std::string &caFile);
    UpstreamAnswer post(const QJsonObject &body) const;

private:
    std::string m_host;
    int m_port = 443;
    std::string m_path;
    std::string m_caFile;
};

// The fields of a token answer that are handed to the app: the two tokens, their lifetime, scope and type.
// Empty when the answer lacks an access token, a refresh token or a positive lifetime.
QJsonObject tokenFields(const QJsonObject &answer);

} // namespace signin
