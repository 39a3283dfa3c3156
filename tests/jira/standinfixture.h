#pragma once

#include "jira/jiraclient.h"
#include "standin/server.h"

#include <QByteArray>
#include <QString>
#include <QUrl>
#include <QVariantMap>

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace jiratest
{

constexpr auto kAccount = "5b10aa0000000000000000aa";
constexpr auto kCloud = "c0ffee-1234";

QStringList allScopes();

// A secret-store service name of its own, so test processes that run side by side never share an item.
QString uniqueCredentialService();

// GET over TLS trusting `caFile`, the way a browser fetches a page; returns the HTTP status (0: no answer).
long fetchPage(const QUrl &url, const QString &caFile);

// Everything the diagnostic log holds so far, all files.
QByteArray diagnosticsText();

// Files under the test's HOME whose content contains `needle`.
QStringList filesContaining(const QByteArray &needle);

// A token record as the session stores it, for `token` issued by the stand-in.
QVariantMap tokenRecord(const QString &token, const QString &broker, double expiresIn = 3600,
    const QString &refreshToken = QStringLiteral("unused"));

// Starts the stand-in on a free port and points the program's endpoints at it.
class StandinTest : public ::testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;

    // Seeds one user, one site and the issues "ED-1" and "ED-2".
    void seedJira();

    // Approves the sign-in by fetching its authorization page on another thread, as a user's browser would.
    void approveInBackground(const QUrl &url);

    standin::Server m_server;

private:
    std::mutex m_mutex;
    std::vector<std::thread> m_fetches;
};

// The stand-in with a Jira client signed in as the seeded user with every scope, its token in a secret-store
// item of its own.
class SignedInTest : public StandinTest
{
protected:
    void SetUp() override;
    void TearDown() override;

    // Replaces the stored record with a token pair the stand-in issues for `scopes` (a refresh token included).
    void signIn(const QStringList &scopes);

    QString m_service;
    QString m_token;
    QString m_refreshToken;
    std::unique_ptr<JiraClient> m_client;
};

} // namespace jiratest
