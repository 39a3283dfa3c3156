#pragma once

// The local Jira stand-in as the whole application meets it: one user in Berlin, one site, a few issues, and
// what a finished browser sign-in leaves in the secret store.

#include "app/ui/jirareviewwindowcontroller.h"
#include "jira/jiraclient.h"
#include "standin/server.h"
#include "worklogs/preferences.h"

#include <QDateTime>
#include <QStringList>
#include <QVariantMap>

namespace signedin
{

inline const QString kAccount = QStringLiteral("5b10aa0000000000000000aa");
inline const QString kCloud = QStringLiteral("11111111-2222-3333-4444-555555555555");
inline const QStringList kScopes {QStringLiteral("read:jira-work"), QStringLiteral("write:jira-work"),
    QStringLiteral("read:jira-user"), QStringLiteral("offline_access")};

// Starts `server` with the issues `keys` (summary "Summary of <key>") and points the program at it; comparing
// on open and combining by issue are off so that a test decides when Jira is asked.
inline bool startJira(standin::Server &server, const QStringList &keys)
{
    server.addUser(
        {kAccount, QStringLiteral("Ada Example"), QStringLiteral("Europe/Berlin"), {}, QStringLiteral("en_US")});
    server.addSite({kCloud, QStringLiteral("example"), QStringLiteral("https://example.atlassian.net"), kScopes});
    for (const QString &key : keys)
        server.addIssue({key, {}, QStringLiteral("Summary of ") + key, {}, {}});
    if (!server.start())
        return false;
    qputenv("HOURLOOM_TEST_GATEWAY", server.origin().toUtf8());
    qputenv("HOURLOOM_TEST_CA_FILE", server.caFile().toUtf8());
    JRSetCombineDailyByIssue(false);
    JRSetAutoCompareOnOpen(false);
    return true;
}

// Stores the tokens of a sign-in at `server` for the Worklogs window's client.
inline void signIn(standin::Server &server, JiraReviewWindowController *review)
{
    const QVariantMap record {{QStringLiteral("access_token"), server.issueAccessToken(kAccount, kScopes, 24 * 3600)},
        {QStringLiteral("refresh_token"), QStringLiteral("unused")}, {QStringLiteral("expires_in"), 3600},
        {QStringLiteral("broker"), server.origin()},
        {QStringLiteral("expires_at"), double(QDateTime::currentSecsSinceEpoch() + 3600)}};
    JiraClient &client = review->jiraClient();
    client.queue().sync([&] { client.session().save(record); });
}

} // namespace signedin
