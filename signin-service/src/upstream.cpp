#include "upstream.h"

#include <QJsonDocument>

#include <httplib.h>

namespace signin
{

TokenEndpoint::TokenEndpoint(const std::string &url, const std::string &caFile)
    : m_caFile(caFile)
{
    // The URL was validated at start: https://host[:port]/path
    const std::string rest = url.substr(std::string("https://").size());
    const auto slash = rest.find('/');
    std::string authority = rest.substr(0, slash);
    m_path = slash == std::string::npos ? "/" : rest.substr(slash);
    if (const auto colon = authority.rfind(':'); colon != std::string::npos) {
        m_port = std::stoi(authority.substr(colon + 1));
        authority = authority.substr(0, colon);
    }
    m_host = authority;
}

UpstreamAnswer TokenEndpoint::post(const QJsonObject &body) const
{
    httplib::SSLClient client(m_host, m_port);
    client.enable_server_certificate_verification(true);
    if (!m_caFile.empty())
        client.set_ca_cert_path(m_caFile.c_str());
    client.set_follow_location(false);
    client.set_connection_timeout(10);
    client.set_read_timeout(20);
    client.set_write_timeout(10);
    const QByteArray payload = QJsonDocument(body).toJson(QJsonDocument::Compact);
    const httplib::Headers headers {{"Accept", "application/json"}};
    auto result = client.Post(m_path.c_str(), headers, payload.constData(), size_t(payload.size()), "application/json");
    UpstreamAnswer answer;
    if (!result)
        return answer;
    answer.status = result->status;
    if (result->body.size() <= 64 * 1024) {
        const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(result->body));
        if (document.isObject())
            answer.body = document.object();
    }
    return answer;
}

QJsonObject tokenFields(const QJsonObject &answer)
{
    const QJsonValue access = answer.value(QStringLiteral("access_token"));
    const QJsonValue refresh = answer.value(QStringLiteral("refresh_token"));
    const QJsonValue expires = answer.value(QStringLiteral("expires_in"));
    if (!access.isString() || access.toString().isEmpty() || !refresh.isString() || refresh.toString().isEmpty()
        || !expires.isDouble() || expires.toDouble() <= 0)
        return {};
    QJsonObject fields {{QStringLiteral("access_token"), access}, {QStringLiteral("refresh_token"), refresh},
        {QStringLiteral("expires_in"), expires}};
    for (const QString &name : {QStringLiteral("scope"), QStringLiteral("token_type")}) {
        if (answer.value(name).isString())
            fields.insert(name, answer.value(name));
    }
    return fields;
}

} // namespace signin
