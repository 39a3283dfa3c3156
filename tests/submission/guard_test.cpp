#include "servicefixture.h"

#include "worklogs/engine.h"

namespace
{

const QString kDuplicateSession = QStringLiteral("Duplicate: A session in this worklog is already posted or has an "
                                                 "uncertain submission. Check Jira again.");
const QString kDropped = QStringLiteral("JiraError: Network request failed. For a submitted worklog, the outcome may "
                                        "be unknown; check Jira again before any retry.");
const QString kABC1 = QStringLiteral("ABC-1");
const QString kABC2 = QStringLiteral("ABC-2");

QVariantMap draftAt(const QVariantMap &comparison, qsizetype index)
{
    return comparison.value(QStringLiteral("drafts")).toList().value(index).toMap();
}

} // namespace

// Whatever changes about a session between two attempts (its group, its issue, the time matched by hand), a
// worklog that may already hold its time keeps it from being posted again.
class Guard : public ServiceFixture
{
protected:
    // Posts `rows` while Jira stores the worklog but the answer is lost: the receipt stays "pending".
    void postUncertain(const QVariantList &rows)
    {
        m_server.addFault(standin::Fault::createThenDrop());
        ASSERT_EQ(post(rows).failure, kDropped);
        m_server.clearRequests();
    }

    void expectNotEligible(const QVariantMap &comparison)
    {
        ASSERT_FALSE(comparison.contains(QStringLiteral("error")));
        for (const QVariant &draft : comparison.value(QStringLiteral("drafts")).toList()) {
            EXPECT_FALSE(draft.toMap().value(QStringLiteral("eligible")).toBool())
                << qPrintable(draft.toMap().value(QStringLiteral("status")).toString());
            EXPECT_FALSE(draft.toMap().value(QStringLiteral("include")).toBool());
        }
    }
};

TEST_F(Guard, RegroupedSessionOfACombinedWorklogCreatedLateIsNeverPostedAgain)
{
    JRSetCombineDailyByIssue(true);
    const QVariantList sessions {session(kABC1, at(2, 9), 3600, QStringLiteral("Design"), 1),
        session(kABC1, at(2, 11), 1800, QStringLiteral("Review"), 2)};
    const QVariantList drafts = draftsOf(sessions, at(2, 12));
    const QVariantMap first = compare(drafts);
    const QVariantList combined = approved(first);
    ASSERT_EQ(combined.size(), 1);
    m_server.addFault(standin::Fault::drop(QStringLiteral("POST"), QStringLiteral("/worklog$")));
    ASSERT_EQ(post(combined).failure, kDropped);
    const int sent = worklogPosts();

    // Checked again at once, before Jira shows the worklog: neither session may be posted.
    const QVariantMap again = compare(drafts);
    expectNotEligible(again);
    EXPECT_EQ(draftAt(again, 0).value(QStringLiteral("status")).toString(),
        QStringLiteral("Uncertain submission — review in Jira"));
    EXPECT_EQ(draftAt(again, 0).value(QStringLiteral("jira_receipt_state")).toString(), QStringLiteral("pending"));
    // A caller that trusts the first check and ticks the first session alone is refused all the same.
    EXPECT_EQ(post(JRWorklogsToPost({draftAt(first, 0)})).failure, kDuplicateSession);
    EXPECT_EQ(worklogPosts(), sent);

    const QString id = createLastPostLate();
    ASSERT_FALSE(id.isEmpty());
    const QVariantMap late = compare(drafts);
    expectNotEligible(late);
    EXPECT_EQ(
        draftAt(late, 1).value(QStringLiteral("status")).toString(), QStringLiteral("Posted in a combined worklog"));
    const QVariantList found = late.value(QStringLiteral("receipts_found")).toList();
    ASSERT_EQ(found.size(), 1);
    EXPECT_EQ(found.first().toMap().value(QStringLiteral("id")).toString(), id);

    // The next post run records the proof: the receipt becomes "posted" with Jira's id, nothing is removed.
    const QVariantMap pending = ledger();
    EXPECT_TRUE(post({}).failure.isEmpty());
    const QVariantMap settled = ledger();
    ASSERT_EQ(settled.keys(), pending.keys());
    QVariantMap receipt = settled.first().toMap();
    EXPECT_EQ(receipt.value(QStringLiteral("state")).toString(), QStringLiteral("posted"));
    EXPECT_EQ(receipt.take(QStringLiteral("id")).toString(), id);
    receipt.insert(QStringLiteral("state"), QStringLiteral("pending"));
    EXPECT_EQ(receipt, pending.first().toMap()) << "only the state and the id change";
    EXPECT_EQ(post(JRWorklogsToPost({draftAt(first, 0)})).failure, kDuplicateSession);

    EXPECT_EQ(expectNoSessionOverposted(sessions, {kABC1}), 0);
    expectJiraConsistentWithLedger({kABC1});
}

TEST_F(Guard, SessionMovedToAnotherIssueAfterAnUncertainPostIsRefused)
{
    const QVariantMap tracked = session(kABC1, at(2, 9), 3600, QStringLiteral("Design"), 1);
    postUncertain(approved(compare(draftsOf({tracked}, at(2, 12)))));
    ASSERT_EQ(m_server.worklogCount(kABC1), 1);

    // The tracker's description (or a rule, or an edit) now points the same session at ABC-2.
    QVariantMap moved = tracked;
    moved.insert(QStringLiteral("issue"), kABC2);
    const QVariantList drafts = draftsOf({moved}, at(2, 12));
    expectNotEligible(compare(drafts));
    // Posted as a caller that never checked again would: ABC-2 holds nothing that day.
    EXPECT_EQ(post(JRWorklogsToPost(drafts)).failure, kDuplicateSession);
    EXPECT_EQ(worklogPosts(), 0);

    EXPECT_EQ(expectNoSessionOverposted({tracked}, {kABC1, kABC2}), 0);
}

TEST_F(Guard, ManualMatchAfterAnUncertainPostDoesNotReopenTheRest)
{
    const QVariantMap tracked = session(kABC1, at(2, 9), 3600, QStringLiteral("Design"), 1);
    postUncertain(approved(compare(draftsOf({tracked}, at(2, 12)))));

    // The user marks a ten-minute worklog made by hand as covering part of the session.
    const QString handMade = m_server.addWorklog({kABC1, kAccount, at(2, 15), 600, {}, {}, {}, {}});
    {
        IssueAssignments assignments(m_directory);
        assignments.setExclusion({{QStringLiteral("kind"), QStringLiteral("manual")}, {QStringLiteral("issue"), kABC1},
                                     {QStringLiteral("worklog_id"), handMade}, {QStringLiteral("seconds"), 600}},
            tracked, kCloud);
    }
    const QVariantMap resolved = IssueAssignments(m_directory).resolve(tracked, kCloud);
    const QVariantList drafts = draftsOf({resolved}, at(2, 12));
    ASSERT_EQ(drafts.first().toMap().value(QStringLiteral("remaining_seconds")).toLongLong(), 3000);
    const QVariantMap again = compare(drafts);
    expectNotEligible(again);

    QVariantMap row = drafts.first().toMap();
    row.insert(QStringLiteral("existing"), draftAt(again, 0).value(QStringLiteral("existing")));
    EXPECT_EQ(post(JRWorklogsToPost({row})).failure, kDuplicateSession);
    EXPECT_EQ(worklogPosts(), 0);

    EXPECT_EQ(expectNoSessionOverposted({tracked}, {kABC1}), 0);
    expectJiraConsistentWithLedger({kABC1});
}
