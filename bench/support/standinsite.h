#pragma once

// The Jira site the benchmarks that talk to the local stand-in share: the user, a colleague whose worklogs are
// not the user's, and one site granting the scopes Hourloom asks for.

#include "standin/server.h"

#include <QStringList>

namespace bench
{

inline const QString kAccount = QStringLiteral("5b10aa0000000000000000aa");
inline const QString kColleague = QStringLiteral("5b10bb0000000000000000bb");
inline const QString kCloud = QStringLiteral("11111111-2222-3333-4444-555555555555");

inline QStringList siteScopes()
{
    return {QStringLiteral("read:jira-work"), QStringLiteral("write:jira-work"), QStringLiteral("read:jira-user"),
        QStringLiteral("offline_access")};
}

// Adds the user, the colleague and the site to `server`.
inline void addSite(standin::Server &server)
{
    server.addUser(
        {kAccount, QStringLiteral("Ada Example"), QStringLiteral("Europe/Berlin"), {}, QStringLiteral("en_US")});
    server.addUser(
        {kColleague, QStringLiteral("Bo Example"), QStringLiteral("Europe/Berlin"), {}, QStringLiteral("en_US")});
    server.addSite({kCloud, QStringLiteral("example"), QStringLiteral("https://example.atlassian.net"), siteScopes()});
}

} // namespace bench
