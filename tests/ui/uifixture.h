#pragma once

#include "app/ui/jirareviewwindowcontroller.h"
#include "app/ui/reviewmodel.h"

#include "standin/server.h"
#include "submission/qtprinters.h"

#include <QDateTime>
#include <QVariantList>
#include <QVariantMap>

#include <gtest/gtest.h>

#include <memory>

// Tracker sessions as the monitor publishes them.
namespace uitest
{
QVariantMap session(const QString &issue, const QDateTime &start, qint64 seconds, const QString &description,
    qint64 localId, bool running = false);
// A realistic working day: a dozen sessions on four issues, one unassigned, one under a minute.
QVariantList realisticDay(const QDate &day);
// `count` sessions spread over the seven days ending with `last`, on `issues` issues.
QVariantList generatedSessions(int count, const QDate &last, int issues, int days = 7);
} // namespace uitest

// A Worklogs window whose Jira client talks real HTTPS to the local stand-in, signed in, with one site.
class WindowFixture : public ::testing::Test
{
protected:
    static inline const QString kAccount = QStringLiteral("5b10aa0000000000000000aa");
    static inline const QString kCloud = QStringLiteral("11111111-2222-3333-4444-555555555555");

    static QString credentialService();
    void SetUp() override;
    void TearDown() override;

    // Shows the sessions, lets the window pick the site, and waits until Jira was checked.
    void openChecked(const QVariantList &sessions);
    bool waitIdle(int timeoutMs = 30000);
    ReviewModel *model() const;
    int rowOf(const QString &description) const;
    QVariantMap rowFor(const QString &description) const;
    QModelIndex indexFor(const QString &description, int column) const;

    standin::Server m_server;
    QString m_directory;
    std::unique_ptr<JiraReviewWindowController> m_controller;
};
