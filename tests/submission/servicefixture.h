#pragma once

#include "qtprinters.h"

#include "jira/jiraclient.h"
#include "submission/worklogservice.h"

#include "standin/server.h"

#include <QDateTime>
#include <QString>
#include <QVariantList>
#include <QVariantMap>

#include <gtest/gtest.h>

#include <memory>

// A WorklogService talking real HTTPS to the local stand-in, with a signed-in user, one site and a few issues.
class ServiceFixture : public ::testing::Test
{
protected:
    static inline const QString kAccount = u"5b10aa0000000000000000aa"_s;
    static inline const QString kOtherAccount = u"5b10bb0000000000000000bb"_s;
    static inline const QString kCloud = u"11111111-2222-3333-4444-555555555555"_s;
    static inline const QString kDuplicateSession
        = u"Duplicate: A session in this worklog is already posted or has an uncertain submission. Check Jira again."_s;
    static inline const QString kDropped = u"JiraError: Network request failed. For a submitted worklog, the outcome "
                                           "may be unknown; check Jira again before any retry."_s;
    static inline const QString kUncertain = u"Uncertain submission — review in Jira"_s;

    struct PostOutcome {
        QVariantList posted;
        QString failure; // "<name>: <reason>", empty when the run succeeded
        QVariantList events;
    };

    void SetUp() override;
    void TearDown() override;

    // A finished session of the tracker, `seconds` long, starting at `start`.
    QVariantMap session(
        const QString &issue, const QDateTime &start, qint64 seconds, const QString &description, qint64 localId) const;
    static QDateTime at(int day, int hour, int minute = 0); // 2026-03-<day> local time
    // The "state" of each progress event, in order.
    static QStringList states(const QVariantList &events);
    QVariantList draftsOf(const QVariantList &sessions, const QDateTime &day) const;

    QVariantMap compare(const QVariantList &drafts, QVariantList *events = nullptr);
    // The ticked drafts of a comparison as the Worklogs window would post them.
    static QVariantList approved(const QVariantMap &comparison);
    PostOutcome post(const QVariantList &rows, const QString &account = kAccount, qint64 generation = 0,
        bool enforcePermissions = false);

    QVariantMap ledger() const;
    int requestCount(const QString &method, const QString &pattern) const;
    int worklogPosts() const { return requestCount(u"POST"_s, u"/worklog$"_s); }
    QVariantList jiraWorklogs(const QString &issue) const;
    static QString statusOf(const QVariantMap &comparison, const QString &sourceKey);

    // Jira never holds the same time twice: no marker on two worklogs, no session split over two worklogs,
    // and every receipt agrees with what Jira holds. Returns the number of marked worklogs.
    int expectJiraConsistentWithLedger(const QStringList &issues);

    // The product's promise: per tracked session, the seconds that all marked worklogs in Jira attribute to it
    // add up to no more than it tracked. Returns the number of sessions that break it.
    int expectNoSessionOverposted(const QVariantList &sessions, const QStringList &issues);
    // Jira creates, after the program gave up on it, the worklog of a POST it received (one that a dropped
    // connection never handled). Returns the new worklog's id.
    QString createLate(const standin::ReceivedRequest &post);

    standin::Server m_server;
    QString m_token;
    QString m_directory;
    std::unique_ptr<JiraClient> m_client;
    std::unique_ptr<WorklogService> m_service;
};

// The last record of the diagnostic event `name` in the current diagnostic log.
QVariantMap lastDiagnostic(const QString &name);

// The credential record that makes a fresh client use `token` without the secret store.
QVariantMap credentialRecord(const QString &token, const QString &broker);
