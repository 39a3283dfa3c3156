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
    for (const QVariant &draft : comparison.value(u"drafts"_s).toList())
        if (draft.toMap().value(u"source_key"_s).toString() == sourceKey)
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
        m_server.addWorklog(
            {u"ABC-1"_s, kAccount, at(2, 8, i * 10), 300, standin::commentDocument(u"old"_s), {}, {}, {}});
    // A colleague's time on the same issue and day is neither the user's time nor a candidate match.
    m_server.addWorklog({u"ABC-1"_s, kOtherAccount, at(2, 10), 3600, standin::commentDocument(u"a"_s), {}, {}, {}});
    const QVariantList drafts
        = draftsOf({session(u"ABC-1"_s, at(2, 9), 3600, u"a"_s, 1), session(u"ABC-1"_s, at(2, 11), 1800, u"b"_s, 2),
                       session(u"ABC-2"_s, at(2, 13), 900, u"c"_s, 3)},
            at(2, 12));
    ASSERT_EQ(drafts.size(), 3);

    QVariantList events;
    const QVariantMap result = compare(drafts, &events);
    ASSERT_FALSE(result.contains(u"error"_s)) << qPrintable(result.value(u"error"_s).toString());
    EXPECT_EQ(result.value(u"account"_s).toString(), kAccount);
    EXPECT_EQ(requestCount(u"GET"_s, u"/issue/ABC-1/worklog$"_s), 2) << "two pages";
    EXPECT_EQ(requestCount(u"GET"_s, u"/issue/ABC-2/worklog$"_s), 1);
    EXPECT_EQ(states(events),
        (QStringList {
            u"start"_s, u"active"_s, u"page"_s, u"page"_s, u"complete"_s, u"active"_s, u"page"_s, u"complete"_s}));
    const QVariantMap start = events.first().toMap();
    EXPECT_EQ(start.value(u"total"_s).toLongLong(), 2) << "total counts issues, not drafts";
    const QVariantList items = start.value(u"items"_s).toList();
    ASSERT_EQ(items.size(), 2);
    EXPECT_EQ(items.at(0).toMap().value(u"source_keys"_s).toStringList().size(), 2);
    const QVariantMap secondPage = events.at(3).toMap();
    EXPECT_EQ(secondPage.value(u"page"_s).toLongLong(), 2);
    EXPECT_EQ(secondPage.value(u"pages"_s).toLongLong(), 2);
    EXPECT_EQ(events.last().toMap().value(u"completed"_s).toLongLong(), 2);

    const QVariantMap first = draftWithKey(result, drafts.at(0).toMap().value(u"source_key"_s).toString());
    // Hand-made time on the same day makes the draft one to review, still ticked.
    EXPECT_EQ(first.value(u"status"_s).toString(), u"Possible manual worklog — confirm match or review"_s);
    EXPECT_EQ(first.value(u"manual_matches"_s).toList().size(), 3);
    EXPECT_EQ(first.value(u"existing"_s).toLongLong(), 900);
    EXPECT_TRUE(first.value(u"include"_s).toBool());
    EXPECT_EQ(first.value(u"marker"_s).toString(), JRMarker(drafts.at(0).toMap(), kCloud, kAccount));
    const QVariantMap third = draftWithKey(result, drafts.at(2).toMap().value(u"source_key"_s).toString());
    EXPECT_EQ(third.value(u"status"_s).toString(), u"Ready"_s);

    const QVariantMap recorded = lastDiagnostic(u"jira_compare_completed"_s);
    EXPECT_EQ(recorded.value(u"count"_s).toInt(), 3);
    EXPECT_EQ(recorded.value(u"failed"_s).toInt(), 0);
}

TEST_F(Compare, IdentityFailureEndsTheStepBeforeAnyFetch)
{
    m_server.addFault(standin::Fault::scopeMismatch(u"GET"_s, u"/myself$"_s));
    QVariantList events;
    const QVariantMap result = compare(draftsOf({session(u"ABC-1"_s, at(2, 9), 3600, u"a"_s, 1)}, at(2, 12)), &events);
    EXPECT_EQ(result, (QVariantMap {{u"error"_s, u"Jira returned HTTP 401. Reconnect Jira."_s}}));
    ASSERT_EQ(events.size(), 1) << "no \"start\" before the identity is known";
    EXPECT_EQ(events.first().toMap().value(u"state"_s).toString(), u"failed"_s);
    EXPECT_EQ(events.first().toMap().value(u"error"_s).toString(), u"Jira returned HTTP 401. Reconnect Jira."_s);
    EXPECT_EQ(requestCount(u"GET"_s, u"/worklog$"_s), 0);
    const QVariantMap recorded = lastDiagnostic(u"jira_compare_completed"_s);
    EXPECT_EQ(recorded.value(u"failed"_s).toInt(), 1);
    EXPECT_EQ(recorded.value(u"count"_s).toInt(), 0);
}

TEST_F(Compare, FailureOnALaterIssueDropsEveryResult)
{
    m_server.addFault(standin::Fault::serviceUnavailable(u"GET"_s, u"/issue/ABC-2/worklog$"_s));
    QVariantList events;
    const QVariantList drafts = draftsOf(
        {session(u"ABC-1"_s, at(2, 9), 3600, u"a"_s, 1), session(u"ABC-2"_s, at(2, 11), 1800, u"b"_s, 2)}, at(2, 12));
    const QVariantMap result = compare(drafts, &events);
    EXPECT_EQ(result.keys(), QStringList {u"error"_s});
    const QVariantMap failed = events.last().toMap();
    EXPECT_EQ(failed.value(u"state"_s).toString(), u"failed"_s);
    EXPECT_EQ(failed.value(u"issue"_s).toString(), u"ABC-2"_s);
    EXPECT_EQ(failed.value(u"completed"_s).toLongLong(), 1);
    EXPECT_EQ(lastDiagnostic(u"jira_compare_completed"_s).value(u"count"_s).toInt(), 1)
        << "only the drafts finished before the failure are counted";
}

TEST_F(Compare, ReceiptDecidesIssueCommentAndTimeShown)
{
    QVariantList drafts = draftsOf(
        {session(u"ABC-1"_s, at(2, 9), 3600, u"a"_s, 1), session(u"ABC-1"_s, at(2, 11), 1200, u"b"_s, 2)}, at(2, 12));
    const QVariantMap first = drafts.at(0).toMap();
    const QVariantMap second = drafts.at(1).toMap();
    // The first was sent to another issue, with a tagged comment and other seconds; the second with only
    // the former product's tag.
    QVariantMap payload = JRPayload(first, JRMarker(first, kCloud, kAccount));
    payload.insert(u"timeSpentSeconds"_s, 3000);
    payload.insert(u"comment"_s,
        standin::commentDocument(u"Fixed it\n[Hourloom:"_s + JRMarker(first, kCloud, kAccount) + u"]"_s)
            .toVariantMap());
    QVariantMap legacy = JRPayload(second, JRMarker(second, kCloud, kAccount));
    legacy.insert(u"comment"_s,
        standin::commentDocument(u"Review\n[Stintwatch Companion:"_s + JRMarker(second, kCloud, kAccount) + u"]"_s)
            .toVariantMap());
    m_service->store().saveReceipts({
        {JRMarker(first, kCloud, kAccount),
            QVariantMap {{u"state"_s, u"pending"_s}, {u"issue"_s, u"OPS-7"_s}, {u"payload"_s, payload}}},
        {JRMarker(second, kCloud, kAccount),
            QVariantMap {
                {u"state"_s, u"posted"_s}, {u"issue"_s, u"ABC-1"_s}, {u"payload"_s, legacy}, {u"id"_s, u"1"_s}}},
    });

    QVariantList events;
    const QVariantMap result = compare(drafts, &events);
    EXPECT_EQ(requestCount(u"GET"_s, u"/issue/OPS-7/worklog$"_s), 1);
    // The announced queue already follows the receipt, so "total" counts the issue really fetched.
    QStringList queued;
    for (const QVariant &item : events.value(0).toMap().value(u"items"_s).toList())
        queued.append(item.toMap().value(u"issue"_s).toString());
    EXPECT_EQ(queued, (QStringList {u"OPS-7"_s, u"ABC-1"_s}));
    EXPECT_EQ(events.last().toMap().value(u"completed"_s).toLongLong(), 2);
    EXPECT_EQ(events.last().toMap().value(u"total"_s).toLongLong(), 2);
    const QVariantMap sentElsewhere = draftWithKey(result, first.value(u"source_key"_s).toString());
    EXPECT_EQ(sentElsewhere.value(u"issue"_s).toString(), u"OPS-7"_s);
    EXPECT_EQ(sentElsewhere.value(u"comment"_s).toString(), u"Fixed it"_s);
    EXPECT_EQ(sentElsewhere.value(u"post_seconds"_s).toLongLong(), 3000);
    EXPECT_EQ(sentElsewhere.value(u"assignment"_s).toString(), u"Submission recorded"_s);
    EXPECT_EQ(sentElsewhere.value(u"status"_s).toString(), u"Uncertain submission — review in Jira"_s);
    EXPECT_FALSE(sentElsewhere.value(u"include"_s).toBool());
    const QVariantMap formerName = draftWithKey(result, second.value(u"source_key"_s).toString());
    EXPECT_EQ(formerName.value(u"comment"_s).toString(), u"Review"_s);
    EXPECT_EQ(formerName.value(u"status"_s).toString(), u"Previously posted — review changes"_s);
}

TEST_F(Compare, ExclusionsRunningAndCompleteDraftsAreNeverTicked)
{
    QVariantMap running = session(u"ABC-1"_s, at(2, 9), 3600, u"a"_s, 1);
    running.insert(u"source_running"_s, true);
    QVariantMap logged = session(u"ABC-1"_s, at(2, 11), 1800, u"b"_s, 2);
    logged.insert(u"jira_logged_seconds"_s, 1800);
    const QVariantMap ignored = session(u"ABC-2"_s, at(2, 13), 900, u"c"_s, 3);
    const QVariantMap partlyManual = session(u"ABC-3"_s, at(2, 14), 3600, u"d"_s, 4);
    IssueAssignments assignments(m_directory);
    assignments.setExclusion({{u"kind"_s, u"ignore"_s}}, ignored, kCloud);
    assignments.setExclusion(
        {{u"kind"_s, u"manual"_s}, {u"issue"_s, u"ABC-3"_s}, {u"worklog_id"_s, u"77"_s}, {u"seconds"_s, 600}},
        partlyManual, kCloud);

    // The window resolves sessions before building drafts; the comparison resolves them again.
    QVariantList sessions;
    for (const QVariantMap &item : {running, logged, ignored, partlyManual})
        sessions.append(assignments.resolve(item, kCloud));
    const QVariantMap result = compare(draftsOf(sessions, at(2, 12)));
    ASSERT_FALSE(result.contains(u"error"_s));
    const QVariantList drafts = result.value(u"drafts"_s).toList();
    ASSERT_EQ(drafts.size(), 4);
    QHash<QString, QVariantMap> byIssueAndStart;
    for (const QVariant &draft : drafts)
        EXPECT_FALSE(draft.toMap().value(u"include"_s).toBool() && draft.toMap().value(u"issue"_s) != u"ABC-3"_s);

    EXPECT_EQ(drafts.at(1).toMap().value(u"status"_s).toString(), u"Complete"_s);
    EXPECT_EQ(drafts.at(2).toMap().value(u"status"_s).toString(), u"Ignored for Jira"_s);
    EXPECT_FALSE(drafts.at(2).toMap().contains(u"marker"_s));
    const QVariantMap remainder = drafts.at(3).toMap();
    EXPECT_TRUE(remainder.value(u"jira_exclusion"_s).toMap().isEmpty())
        << "a manual match covering part of the time leaves the rest to post";
    EXPECT_EQ(remainder.value(u"status"_s).toString(), u"Ready"_s);
    EXPECT_TRUE(remainder.value(u"include"_s).toBool());
    EXPECT_EQ(remainder.value(u"post_seconds"_s).toLongLong(), 3000);
    EXPECT_EQ(requestCount(u"GET"_s, u"/issue/ABC-2/worklog$"_s), 0);
}
