#include "servicefixture.h"

#include "submission/submissionlock.h"
#include "worklogs/engine.h"
#include "worklogs/namedfailure.h"

#include <QFile>

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
    const standin::ReceivedRequest dropped
        = m_server.requests(QStringLiteral("POST"), QStringLiteral("/worklog$")).last();

    // Checked again at once, before Jira shows the worklog: neither session may be posted.
    const QVariantMap again = compare(drafts);
    expectNotEligible(again);
    EXPECT_EQ(draftAt(again, 0).value(QStringLiteral("status")).toString(),
        QStringLiteral("Uncertain submission — review in Jira"));
    EXPECT_EQ(draftAt(again, 0).value(QStringLiteral("jira_receipt_state")).toString(), QStringLiteral("pending"));
    // A caller that trusts the first check and ticks the first session alone is refused all the same.
    EXPECT_EQ(post(JRWorklogsToPost({draftAt(first, 0)})).failure, kDuplicateSession);
    EXPECT_EQ(worklogPosts(), sent);

    const QString id = createLate(dropped);
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
    m_server.clearRequests();
    const QVariantMap again = compare(drafts);
    expectNotEligible(again);
    // The check also looked on ABC-1, where the receipt was sent, and found the worklog there.
    EXPECT_EQ(requestCount(QStringLiteral("GET"), QStringLiteral("/issue/ABC-1/worklog$")), 1);
    EXPECT_EQ(again.value(QStringLiteral("receipts_found")).toList().size(), 1);
    // Posted as a caller that never checked again would: ABC-2 holds nothing that day.
    EXPECT_EQ(post(JRWorklogsToPost(drafts)).failure, kDuplicateSession);
    EXPECT_EQ(worklogPosts(), 0);

    // That run recorded the receipt as posted: the session now shows as posted rather than uncertain.
    EXPECT_EQ(ledger().first().toMap().value(QStringLiteral("state")).toString(), QStringLiteral("posted"));
    const QVariantMap settled = compare(drafts);
    EXPECT_EQ(draftAt(settled, 0).value(QStringLiteral("status")).toString(),
        QStringLiteral("Previously posted — review changes"));
    expectNotEligible(settled);
    EXPECT_EQ(expectJiraConsistentWithLedger({kABC1, kABC2}), 1);
    EXPECT_EQ(expectNoSessionOverposted({tracked}, {kABC1, kABC2}), 0);
}

TEST_F(Guard, ReceiptIssueThatCannotBeReadLeavesTheMovedSessionUncertain)
{
    const QVariantMap tracked = session(kABC1, at(2, 9), 3600, QStringLiteral("Design"), 1);
    postUncertain(approved(compare(draftsOf({tracked}, at(2, 12)))));
    QVariantMap moved = tracked;
    moved.insert(QStringLiteral("issue"), kABC2);
    m_server.addFault(standin::Fault::statusReply(QStringLiteral("GET"), QStringLiteral("/issue/ABC-1/worklog$"), 404,
        R"({"errorMessages":["Issue does not exist or you do not have permission to see it."]})"));

    const QVariantMap again = compare(draftsOf({moved}, at(2, 12)));
    ASSERT_FALSE(again.contains(QStringLiteral("error")))
        << qPrintable(again.value(QStringLiteral("error")).toString());
    EXPECT_EQ(draftAt(again, 0).value(QStringLiteral("status")).toString(),
        QStringLiteral("Uncertain submission — review in Jira"));
    expectNotEligible(again);
    EXPECT_TRUE(again.value(QStringLiteral("receipts_found")).toList().isEmpty());
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

class GuardRun : public Guard
{
protected:
    // One hour on ABC-1 and one on ABC-2, checked.
    QVariantList checkedRows()
    {
        m_sessions = {session(kABC1, at(2, 9), 3600, QStringLiteral("Design"), 1),
            session(kABC2, at(2, 11), 3600, QStringLiteral("Review"), 2)};
        const QVariantList rows = approved(compare(draftsOf(m_sessions, at(2, 12))));
        EXPECT_EQ(rows.size(), 2);
        m_server.clearRequests();
        return rows;
    }

    QVariantList m_sessions;
};

TEST_F(GuardRun, TokenThatCannotBeRefreshedLeavesNoReceiptBehind)
{
    const QVariantList rows = checkedRows();
    QVariantMap record = credentialRecord(m_token, m_server.origin());
    record.insert(QStringLiteral("expires_at"), double(QDateTime::currentSecsSinceEpoch() + 10));
    m_client->queue().sync([&] { m_client->session().save(record); });
    // Each refresh hands out a token that is due again at once; the third, just before the first POST, fails.
    const QByteArray shortLived
        = QStringLiteral(R"({"access_token":"%1","refresh_token":"r","expires_in":30})").arg(m_token).toUtf8();
    m_server.addFault(standin::Fault::statusReply(
        QStringLiteral("POST"), QStringLiteral("^/oauth/refresh$"), 200, shortLived, {}, 2));
    m_server.addFault(standin::Fault::invalidGrant());

    const PostOutcome outcome = post(rows);
    EXPECT_EQ(outcome.failure, QStringLiteral("JiraError: Jira authorization expired. Connect again."));
    EXPECT_EQ(requestCount(QStringLiteral("POST"), QStringLiteral("^/oauth/refresh$")), 3);
    EXPECT_EQ(worklogPosts(), 0);
    EXPECT_TRUE(ledger().isEmpty()) << "nothing was sent, so nothing is uncertain";
}

TEST_F(GuardRun, LedgerEntryThatIsNotARecordShowsAsUncertain)
{
    const QVariantList rows = checkedRows();
    const QString marker = JRMarker(rows.first().toMap(), kCloud, kAccount);
    QFile file(m_service->store().path());
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(QStringLiteral(R"({"%1":"sent"})").arg(marker).toUtf8());
    file.close();

    const QVariantMap again = compare(draftsOf(m_sessions, at(2, 12)));
    EXPECT_EQ(draftAt(again, 0).value(QStringLiteral("status")).toString(),
        QStringLiteral("Uncertain submission — review in Jira"));
    EXPECT_EQ(draftAt(again, 0).value(QStringLiteral("comment")).toString(), QStringLiteral("Design"));
    EXPECT_EQ(approved(again).size(), 1);
    EXPECT_EQ(post(rows.mid(0, 1)).failure, kDuplicateSession);
}

TEST_F(GuardRun, LockIsHeldUntilTheRunsLastEventIsReported)
{
    const QVariantList rows = checkedRows();
    m_server.addWorklog({kABC1, kAccount, at(2, 17), 900, {}, {}, {}, {}});
    bool lockedWhileReporting = false;
    m_client->queue().sync([&] {
        try {
            m_service->postDrafts(rows, kCloud, kAccount, 0, [&](const QVariantMap &) {
                try {
                    SubmissionLock second(m_directory + QStringLiteral("/jira-submit.lock"));
                } catch (const NamedFailure &) {
                    lockedWhileReporting = true;
                }
            });
        } catch (const NamedFailure &) {
        }
    });
    EXPECT_TRUE(lockedWhileReporting);
    EXPECT_NO_THROW(SubmissionLock(m_directory + QStringLiteral("/jira-submit.lock")));
}

struct LateExclusion {
    const char *name;
    const char *kind;
    bool combined;
};

void PrintTo(const LateExclusion &exclusion, std::ostream *out)
{
    *out << exclusion.name;
}

class GuardLateExclusion : public Guard, public ::testing::WithParamInterface<LateExclusion>
{
};

// The rows carry the exclusions of the check; the ones set since then are in the assignments file only.
TEST_P(GuardLateExclusion, AddedAfterTheCheckStopsThePost)
{
    JRSetCombineDailyByIssue(GetParam().combined);
    const QVariantList sessions {session(kABC1, at(2, 9), 1800, QStringLiteral("Design"), 1),
        session(kABC1, at(2, 11), 1800, QStringLiteral("Review"), 2)};
    const QVariantList rows = approved(compare(draftsOf(sessions, at(2, 12))));
    ASSERT_EQ(rows.size(), GetParam().combined ? 1 : 2);
    IssueAssignments(m_directory)
        .setExclusion({{QStringLiteral("kind"), QString::fromLatin1(GetParam().kind)}, {QStringLiteral("issue"), kABC1},
                          {QStringLiteral("worklog_id"), QStringLiteral("10001")}, {QStringLiteral("seconds"), 600}},
            sessions.at(1).toMap(), kCloud);
    m_server.clearRequests();

    EXPECT_EQ(post(rows).failure, QStringLiteral("Excluded: This session is excluded from Jira. Check Jira again."));
    EXPECT_EQ(worklogPosts(), 0);
    EXPECT_TRUE(ledger().isEmpty());
}

INSTANTIATE_TEST_SUITE_P(Exclusions, GuardLateExclusion,
    ::testing::Values(LateExclusion {"IgnoredInACombinedRow", "ignore", true},
        LateExclusion {"ManualMatchInACombinedRow", "manual", true},
        LateExclusion {"IgnoredSingleRow", "ignore", false}),
    [](const ::testing::TestParamInfo<LateExclusion> &param) { return std::string(param.param.name); });
