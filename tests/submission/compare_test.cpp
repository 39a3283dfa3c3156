#include "servicefixture.h"

#include "diagnostics/diagnosticlog.h"
#include "worklogs/engine.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

namespace
{

QVariantMap draftWithKey(const QVariantMap &comparison, const QString &sourceKey)
{
    for (const QVariant &draft : comparison.value(QStringLiteral("drafts")).toList())
        if (draft.toMap().value(QStringLiteral("source_key")).toString() == sourceKey)
            return draft.toMap();
    return {};
}

} // namespace

class Compare : public ServiceFixture
{
};

TEST_F(Compare, FetchesEachIssueOnceAndReportsProgressPerIssue)
{
    m_server.setPageSize(2);
    for (int i = 0; i < 3; ++i)
        m_server.addWorklog({QStringLiteral("ABC-1"), kAccount, at(2, 8, i * 10), 300,
            standin::commentDocument(QStringLiteral("old")), {}, {}, {}});
    // A colleague's time on the same issue and day is neither the user's time nor a candidate match.
    m_server.addWorklog({QStringLiteral("ABC-1"), kOtherAccount, at(2, 10), 3600,
        standin::commentDocument(QStringLiteral("a")), {}, {}, {}});
    const QVariantList drafts = draftsOf({session(QStringLiteral("ABC-1"), at(2, 9), 3600, QStringLiteral("a"), 1),
                                             session(QStringLiteral("ABC-1"), at(2, 11), 1800, QStringLiteral("b"), 2),
                                             session(QStringLiteral("ABC-2"), at(2, 13), 900, QStringLiteral("c"), 3)},
        at(2, 12));
    ASSERT_EQ(drafts.size(), 3);

    QVariantList events;
    const QVariantMap result = compare(drafts, &events);
    ASSERT_FALSE(result.contains(QStringLiteral("error")))
        << qPrintable(result.value(QStringLiteral("error")).toString());
    EXPECT_EQ(result.value(QStringLiteral("account")).toString(), kAccount);
    EXPECT_EQ(requestCount(QStringLiteral("GET"), QStringLiteral("/issue/ABC-1/worklog$")), 2) << "two pages";
    EXPECT_EQ(requestCount(QStringLiteral("GET"), QStringLiteral("/issue/ABC-2/worklog$")), 1);
    EXPECT_EQ(states(events),
        (QStringList {QStringLiteral("start"), QStringLiteral("active"), QStringLiteral("page"), QStringLiteral("page"),
            QStringLiteral("complete"), QStringLiteral("active"), QStringLiteral("page"), QStringLiteral("complete")}));
    const QVariantMap start = events.first().toMap();
    EXPECT_EQ(start.value(QStringLiteral("total")).toLongLong(), 2) << "total counts issues, not drafts";
    const QVariantList items = start.value(QStringLiteral("items")).toList();
    ASSERT_EQ(items.size(), 2);
    EXPECT_EQ(items.at(0).toMap().value(QStringLiteral("source_keys")).toStringList().size(), 2);
    const QVariantMap secondPage = events.at(3).toMap();
    EXPECT_EQ(secondPage.value(QStringLiteral("page")).toLongLong(), 2);
    EXPECT_EQ(secondPage.value(QStringLiteral("pages")).toLongLong(), 2);
    EXPECT_EQ(events.last().toMap().value(QStringLiteral("completed")).toLongLong(), 2);

    const QVariantMap first = draftWithKey(result, drafts.at(0).toMap().value(QStringLiteral("source_key")).toString());
    // Hand-made time on the same day makes the draft one to review, still ticked.
    EXPECT_EQ(first.value(QStringLiteral("status")).toString(),
        QStringLiteral("Possible manual worklog — confirm match or review"));
    EXPECT_EQ(first.value(QStringLiteral("manual_matches")).toList().size(), 3);
    EXPECT_EQ(first.value(QStringLiteral("existing")).toLongLong(), 900);
    EXPECT_TRUE(first.value(QStringLiteral("include")).toBool());
    EXPECT_EQ(first.value(QStringLiteral("marker")).toString(), JRMarker(drafts.at(0).toMap(), kCloud, kAccount));
    const QVariantMap third = draftWithKey(result, drafts.at(2).toMap().value(QStringLiteral("source_key")).toString());
    EXPECT_EQ(third.value(QStringLiteral("status")).toString(), QStringLiteral("Ready"));

    const QVariantMap recorded = lastDiagnostic(QStringLiteral("jira_compare_completed"));
    EXPECT_EQ(recorded.value(QStringLiteral("count")).toInt(), 3);
    EXPECT_EQ(recorded.value(QStringLiteral("failed")).toInt(), 0);
}

TEST_F(Compare, IdentityFailureEndsTheStepBeforeAnyFetch)
{
    m_server.addFault(standin::Fault::scopeMismatch(QStringLiteral("GET"), QStringLiteral("/myself$")));
    QVariantList events;
    const QVariantMap result = compare(
        draftsOf({session(QStringLiteral("ABC-1"), at(2, 9), 3600, QStringLiteral("a"), 1)}, at(2, 12)), &events);
    EXPECT_EQ(
        result, (QVariantMap {{QStringLiteral("error"), QStringLiteral("Jira returned HTTP 401. Reconnect Jira.")}}));
    ASSERT_EQ(events.size(), 1) << "no \"start\" before the identity is known";
    EXPECT_EQ(events.first().toMap().value(QStringLiteral("state")).toString(), QStringLiteral("failed"));
    EXPECT_EQ(events.first().toMap().value(QStringLiteral("error")).toString(),
        QStringLiteral("Jira returned HTTP 401. Reconnect Jira."));
    EXPECT_EQ(requestCount(QStringLiteral("GET"), QStringLiteral("/worklog$")), 0);
    const QVariantMap recorded = lastDiagnostic(QStringLiteral("jira_compare_completed"));
    EXPECT_EQ(recorded.value(QStringLiteral("failed")).toInt(), 1);
    EXPECT_EQ(recorded.value(QStringLiteral("count")).toInt(), 0);
}

TEST_F(Compare, FailureOnALaterIssueDropsEveryResult)
{
    m_server.addFault(
        standin::Fault::serviceUnavailable(QStringLiteral("GET"), QStringLiteral("/issue/ABC-2/worklog$")));
    QVariantList events;
    const QVariantList drafts = draftsOf({session(QStringLiteral("ABC-1"), at(2, 9), 3600, QStringLiteral("a"), 1),
                                             session(QStringLiteral("ABC-2"), at(2, 11), 1800, QStringLiteral("b"), 2)},
        at(2, 12));
    const QVariantMap result = compare(drafts, &events);
    EXPECT_EQ(result.keys(), QStringList {QStringLiteral("error")});
    const QVariantMap failed = events.last().toMap();
    EXPECT_EQ(failed.value(QStringLiteral("state")).toString(), QStringLiteral("failed"));
    EXPECT_EQ(failed.value(QStringLiteral("issue")).toString(), QStringLiteral("ABC-2"));
    EXPECT_EQ(failed.value(QStringLiteral("completed")).toLongLong(), 1);
    EXPECT_EQ(lastDiagnostic(QStringLiteral("jira_compare_completed")).value(QStringLiteral("count")).toInt(), 1)
        << "only the drafts finished before the failure are counted";
}

TEST_F(Compare, ReceiptDecidesIssueCommentAndTimeShown)
{
    QVariantList drafts = draftsOf({session(QStringLiteral("ABC-1"), at(2, 9), 3600, QStringLiteral("a"), 1),
                                       session(QStringLiteral("ABC-1"), at(2, 11), 1200, QStringLiteral("b"), 2)},
        at(2, 12));
    const QVariantMap first = drafts.at(0).toMap();
    const QVariantMap second = drafts.at(1).toMap();
    // The first was sent to another issue, with a tagged comment and other seconds; the second with only
    // the former product's tag.
    QVariantMap payload = JRPayload(first, JRMarker(first, kCloud, kAccount));
    payload.insert(QStringLiteral("timeSpentSeconds"), 3000);
    payload.insert(QStringLiteral("comment"),
        standin::commentDocument(
            QStringLiteral("Fixed it\n[Hourloom:") + JRMarker(first, kCloud, kAccount) + QStringLiteral("]"))
            .toVariantMap());
    QVariantMap legacy = JRPayload(second, JRMarker(second, kCloud, kAccount));
    legacy.insert(QStringLiteral("comment"),
        standin::commentDocument(
            QStringLiteral("Review\n[Stintwatch Companion:") + JRMarker(second, kCloud, kAccount) + QStringLiteral("]"))
            .toVariantMap());
    m_service->store().saveReceipts({
        {JRMarker(first, kCloud, kAccount),
            QVariantMap {{QStringLiteral("state"), QStringLiteral("pending")},
                {QStringLiteral("issue"), QStringLiteral("OPS-7")}, {QStringLiteral("payload"), payload}}},
        {JRMarker(second, kCloud, kAccount),
            QVariantMap {{QStringLiteral("state"), QStringLiteral("posted")},
                {QStringLiteral("issue"), QStringLiteral("ABC-1")}, {QStringLiteral("payload"), legacy},
                {QStringLiteral("id"), QStringLiteral("1")}}},
    });

    QVariantList events;
    const QVariantMap result = compare(drafts, &events);
    EXPECT_EQ(requestCount(QStringLiteral("GET"), QStringLiteral("/issue/OPS-7/worklog$")), 1);
    // The announced queue already follows the receipt, so "total" counts the issue really fetched.
    QStringList queued;
    for (const QVariant &item : events.value(0).toMap().value(QStringLiteral("items")).toList())
        queued.append(item.toMap().value(QStringLiteral("issue")).toString());
    EXPECT_EQ(queued, (QStringList {QStringLiteral("OPS-7"), QStringLiteral("ABC-1")}));
    EXPECT_EQ(events.last().toMap().value(QStringLiteral("completed")).toLongLong(), 2);
    EXPECT_EQ(events.last().toMap().value(QStringLiteral("total")).toLongLong(), 2);
    const QVariantMap sentElsewhere = draftWithKey(result, first.value(QStringLiteral("source_key")).toString());
    EXPECT_EQ(sentElsewhere.value(QStringLiteral("issue")).toString(), QStringLiteral("OPS-7"));
    EXPECT_EQ(sentElsewhere.value(QStringLiteral("comment")).toString(), QStringLiteral("Fixed it"));
    EXPECT_EQ(sentElsewhere.value(QStringLiteral("post_seconds")).toLongLong(), 3000);
    EXPECT_EQ(sentElsewhere.value(QStringLiteral("assignment")).toString(), QStringLiteral("Submission recorded"));
    EXPECT_EQ(sentElsewhere.value(QStringLiteral("status")).toString(),
        QStringLiteral("Uncertain submission — review in Jira"));
    EXPECT_FALSE(sentElsewhere.value(QStringLiteral("include")).toBool());
    const QVariantMap formerName = draftWithKey(result, second.value(QStringLiteral("source_key")).toString());
    EXPECT_EQ(formerName.value(QStringLiteral("comment")).toString(), QStringLiteral("Review"));
    EXPECT_EQ(
        formerName.value(QStringLiteral("status")).toString(), QStringLiteral("Previously posted — review changes"));
}

TEST_F(Compare, ExclusionsRunningAndCompleteDraftsAreNeverTicked)
{
    QVariantMap running = session(QStringLiteral("ABC-1"), at(2, 9), 3600, QStringLiteral("a"), 1);
    running.insert(QStringLiteral("source_running"), true);
    QVariantMap logged = session(QStringLiteral("ABC-1"), at(2, 11), 1800, QStringLiteral("b"), 2);
    logged.insert(QStringLiteral("jira_logged_seconds"), 1800);
    const QVariantMap ignored = session(QStringLiteral("ABC-2"), at(2, 13), 900, QStringLiteral("c"), 3);
    const QVariantMap partlyManual = session(QStringLiteral("ABC-3"), at(2, 14), 3600, QStringLiteral("d"), 4);
    IssueAssignments assignments(m_directory);
    assignments.setExclusion({{QStringLiteral("kind"), QStringLiteral("ignore")}}, ignored, kCloud);
    assignments.setExclusion(
        {{QStringLiteral("kind"), QStringLiteral("manual")}, {QStringLiteral("issue"), QStringLiteral("ABC-3")},
            {QStringLiteral("worklog_id"), QStringLiteral("77")}, {QStringLiteral("seconds"), 600}},
        partlyManual, kCloud);

    // The window resolves sessions before building drafts; the comparison resolves them again.
    QVariantList sessions;
    for (const QVariantMap &item : {running, logged, ignored, partlyManual})
        sessions.append(assignments.resolve(item, kCloud));
    const QVariantMap result = compare(draftsOf(sessions, at(2, 12)));
    ASSERT_FALSE(result.contains(QStringLiteral("error")));
    const QVariantList drafts = result.value(QStringLiteral("drafts")).toList();
    ASSERT_EQ(drafts.size(), 4);
    QHash<QString, QVariantMap> byIssueAndStart;
    for (const QVariant &draft : drafts)
        EXPECT_FALSE(draft.toMap().value(QStringLiteral("include")).toBool()
            && draft.toMap().value(QStringLiteral("issue")) != QStringLiteral("ABC-3"));

    EXPECT_EQ(drafts.at(1).toMap().value(QStringLiteral("status")).toString(), QStringLiteral("Complete"));
    EXPECT_EQ(drafts.at(2).toMap().value(QStringLiteral("status")).toString(), QStringLiteral("Ignored for Jira"));
    EXPECT_FALSE(drafts.at(2).toMap().contains(QStringLiteral("marker")));
    const QVariantMap remainder = drafts.at(3).toMap();
    EXPECT_TRUE(remainder.value(QStringLiteral("jira_exclusion")).toMap().isEmpty())
        << "a manual match covering part of the time leaves the rest to post";
    EXPECT_EQ(remainder.value(QStringLiteral("status")).toString(), QStringLiteral("Ready"));
    EXPECT_TRUE(remainder.value(QStringLiteral("include")).toBool());
    EXPECT_EQ(remainder.value(QStringLiteral("post_seconds")).toLongLong(), 3000);
    EXPECT_EQ(requestCount(QStringLiteral("GET"), QStringLiteral("/issue/ABC-2/worklog$")), 0);
}
