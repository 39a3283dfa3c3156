#include "servicefixture.h"

#include "submission/submissionlock.h"
#include "worklogs/engine.h"
#include "worklogs/namedfailure.h"

#include <QFile>

namespace
{

const QString kABC1 = u"ABC-1"_s;
const QString kABC2 = u"ABC-2"_s;

QVariantMap draftAt(const QVariantMap &comparison, qsizetype index)
{
    return comparison.value(u"drafts"_s).toList().value(index).toMap();
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
        ASSERT_FALSE(comparison.contains(u"error"_s));
        for (const QVariant &draft : comparison.value(u"drafts"_s).toList()) {
            EXPECT_FALSE(draft.toMap().value(u"eligible"_s).toBool())
                << qPrintable(draft.toMap().value(u"status"_s).toString());
            EXPECT_FALSE(draft.toMap().value(u"include"_s).toBool());
        }
    }
};

TEST_F(Guard, RegroupedSessionOfACombinedWorklogCreatedLateIsNeverPostedAgain)
{
    JRSetCombineDailyByIssue(true);
    const QVariantList sessions {
        session(kABC1, at(2, 9), 3600, u"Design"_s, 1), session(kABC1, at(2, 11), 1800, u"Review"_s, 2)};
    const QVariantList drafts = draftsOf(sessions, at(2, 12));
    const QVariantMap first = compare(drafts);
    const QVariantList combined = approved(first);
    ASSERT_EQ(combined.size(), 1);
    m_server.addFault(standin::Fault::drop(u"POST"_s, u"/worklog$"_s));
    ASSERT_EQ(post(combined).failure, kDropped);
    const int sent = worklogPosts();
    const standin::ReceivedRequest dropped = m_server.requests(u"POST"_s, u"/worklog$"_s).last();

    // Checked again at once, before Jira shows the worklog: neither session may be posted.
    const QVariantMap again = compare(drafts);
    expectNotEligible(again);
    EXPECT_EQ(draftAt(again, 0).value(u"status"_s).toString(), kUncertain);
    EXPECT_EQ(draftAt(again, 0).value(u"jira_receipt_state"_s).toString(), u"pending"_s);
    // A caller that trusts the first check and ticks the first session alone is refused all the same.
    EXPECT_EQ(post(JRWorklogsToPost({draftAt(first, 0)})).failure, kDuplicateSession);
    EXPECT_EQ(worklogPosts(), sent);

    const QString id = createLate(dropped);
    ASSERT_FALSE(id.isEmpty());
    const QVariantMap late = compare(drafts);
    expectNotEligible(late);
    EXPECT_EQ(draftAt(late, 1).value(u"status"_s).toString(), u"Posted in a combined worklog"_s);
    const QVariantList found = late.value(u"receipts_found"_s).toList();
    ASSERT_EQ(found.size(), 1);
    EXPECT_EQ(found.first().toMap().value(u"id"_s).toString(), id);

    // The next post run records the proof: the receipt becomes "posted" with Jira's id, nothing is removed.
    const QVariantMap pending = ledger();
    EXPECT_TRUE(post({}).failure.isEmpty());
    const QVariantMap settled = ledger();
    ASSERT_EQ(settled.keys(), pending.keys());
    QVariantMap receipt = settled.first().toMap();
    EXPECT_EQ(receipt.value(u"state"_s).toString(), u"posted"_s);
    EXPECT_EQ(receipt.take(u"id"_s).toString(), id);
    receipt.insert(u"state"_s, u"pending"_s);
    EXPECT_EQ(receipt, pending.first().toMap()) << "only the state and the id change";
    EXPECT_EQ(post(JRWorklogsToPost({draftAt(first, 0)})).failure, kDuplicateSession);

    EXPECT_EQ(expectNoSessionOverposted(sessions, {kABC1}), 0);
    expectJiraConsistentWithLedger({kABC1});
}

TEST_F(Guard, SessionMovedToAnotherIssueAfterAnUncertainPostIsRefused)
{
    const QVariantMap tracked = session(kABC1, at(2, 9), 3600, u"Design"_s, 1);
    postUncertain(approved(compare(draftsOf({tracked}, at(2, 12)))));
    ASSERT_EQ(m_server.worklogCount(kABC1), 1);

    // The tracker's description (or a rule, or an edit) now points the same session at ABC-2.
    QVariantMap moved = tracked;
    moved.insert(u"issue"_s, kABC2);
    const QVariantList drafts = draftsOf({moved}, at(2, 12));
    m_server.clearRequests();
    const QVariantMap again = compare(drafts);
    expectNotEligible(again);
    // The check also looked on ABC-1, where the receipt was sent, and found the worklog there.
    EXPECT_EQ(requestCount(u"GET"_s, u"/issue/ABC-1/worklog$"_s), 1);
    EXPECT_EQ(again.value(u"receipts_found"_s).toList().size(), 1);
    // Posted as a caller that never checked again would: ABC-2 holds nothing that day.
    EXPECT_EQ(post(JRWorklogsToPost(drafts)).failure, kDuplicateSession);
    EXPECT_EQ(worklogPosts(), 0);

    // That run recorded the receipt as posted: the session now shows as posted rather than uncertain.
    EXPECT_EQ(ledger().first().toMap().value(u"state"_s).toString(), u"posted"_s);
    const QVariantMap settled = compare(drafts);
    EXPECT_EQ(draftAt(settled, 0).value(u"status"_s).toString(), u"Previously posted — review changes"_s);
    expectNotEligible(settled);
    EXPECT_EQ(expectJiraConsistentWithLedger({kABC1, kABC2}), 1);
    EXPECT_EQ(expectNoSessionOverposted({tracked}, {kABC1, kABC2}), 0);
}

TEST_F(Guard, ReceiptIssueThatCannotBeReadLeavesTheMovedSessionUncertain)
{
    const QVariantMap tracked = session(kABC1, at(2, 9), 3600, u"Design"_s, 1);
    postUncertain(approved(compare(draftsOf({tracked}, at(2, 12)))));
    QVariantMap moved = tracked;
    moved.insert(u"issue"_s, kABC2);
    m_server.addFault(standin::Fault::statusReply(u"GET"_s, u"/issue/ABC-1/worklog$"_s, 404,
        R"({"errorMessages":["Issue does not exist or you do not have permission to see it."]})"));

    const QVariantMap again = compare(draftsOf({moved}, at(2, 12)));
    ASSERT_FALSE(again.contains(u"error"_s)) << qPrintable(again.value(u"error"_s).toString());
    EXPECT_EQ(draftAt(again, 0).value(u"status"_s).toString(), kUncertain);
    expectNotEligible(again);
    EXPECT_TRUE(again.value(u"receipts_found"_s).toList().isEmpty());
}

TEST_F(Guard, ManualMatchAfterAnUncertainPostDoesNotReopenTheRest)
{
    const QVariantMap tracked = session(kABC1, at(2, 9), 3600, u"Design"_s, 1);
    postUncertain(approved(compare(draftsOf({tracked}, at(2, 12)))));

    // The user marks a ten-minute worklog made by hand as covering part of the session.
    const QString handMade = m_server.addWorklog({kABC1, kAccount, at(2, 15), 600, {}, {}, {}, {}});
    {
        IssueAssignments assignments(m_directory);
        assignments.setExclusion(
            {{u"kind"_s, u"manual"_s}, {u"issue"_s, kABC1}, {u"worklog_id"_s, handMade}, {u"seconds"_s, 600}}, tracked,
            kCloud);
    }
    const QVariantMap resolved = IssueAssignments(m_directory).resolve(tracked, kCloud);
    const QVariantList drafts = draftsOf({resolved}, at(2, 12));
    ASSERT_EQ(drafts.first().toMap().value(u"remaining_seconds"_s).toLongLong(), 3000);
    const QVariantMap again = compare(drafts);
    expectNotEligible(again);

    QVariantMap row = drafts.first().toMap();
    row.insert(u"existing"_s, draftAt(again, 0).value(u"existing"_s));
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
        m_sessions = {session(kABC1, at(2, 9), 3600, u"Design"_s, 1), session(kABC2, at(2, 11), 3600, u"Review"_s, 2)};
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
    record.insert(u"expires_at"_s, double(QDateTime::currentSecsSinceEpoch() + 10));
    m_client->queue().sync([&] { m_client->session().save(record); });
    // Each refresh hands out a token that is due again at once; the third, just before the first POST, fails.
    const QByteArray shortLived
        = uR"({"access_token":"%1","refresh_token":"r","expires_in":30})"_s.arg(m_token).toUtf8();
    m_server.addFault(standin::Fault::statusReply(u"POST"_s, u"^/oauth/refresh$"_s, 200, shortLived, {}, 2));
    m_server.addFault(standin::Fault::invalidGrant());

    const PostOutcome outcome = post(rows);
    EXPECT_EQ(outcome.failure, u"JiraError: Jira authorization expired. Connect again."_s);
    EXPECT_EQ(requestCount(u"POST"_s, u"^/oauth/refresh$"_s), 3);
    EXPECT_EQ(worklogPosts(), 0);
    EXPECT_TRUE(ledger().isEmpty()) << "nothing was sent, so nothing is uncertain";
}

TEST_F(GuardRun, LedgerEntryThatIsNotARecordShowsAsUncertain)
{
    const QVariantList rows = checkedRows();
    const QString marker = JRMarker(rows.first().toMap(), kCloud, kAccount);
    QFile file(m_service->store().path());
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(uR"({"%1":"sent"})"_s.arg(marker).toUtf8());
    file.close();

    const QVariantMap again = compare(draftsOf(m_sessions, at(2, 12)));
    EXPECT_EQ(draftAt(again, 0).value(u"status"_s).toString(), kUncertain);
    EXPECT_EQ(draftAt(again, 0).value(u"comment"_s).toString(), u"Design"_s);
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
                    SubmissionLock second(m_directory + u"/jira-submit.lock"_s);
                } catch (const NamedFailure &) {
                    lockedWhileReporting = true;
                }
            });
        } catch (const NamedFailure &) {
        }
    });
    EXPECT_TRUE(lockedWhileReporting);
    EXPECT_NO_THROW(SubmissionLock(m_directory + u"/jira-submit.lock"_s));
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
    const QVariantList sessions {
        session(kABC1, at(2, 9), 1800, u"Design"_s, 1), session(kABC1, at(2, 11), 1800, u"Review"_s, 2)};
    const QVariantList rows = approved(compare(draftsOf(sessions, at(2, 12))));
    ASSERT_EQ(rows.size(), GetParam().combined ? 1 : 2);
    IssueAssignments(m_directory)
        .setExclusion({{u"kind"_s, QString::fromLatin1(GetParam().kind)}, {u"issue"_s, kABC1},
                          {u"worklog_id"_s, u"10001"_s}, {u"seconds"_s, 600}},
            sessions.at(1).toMap(), kCloud);
    m_server.clearRequests();

    EXPECT_EQ(post(rows).failure, u"Excluded: This session is excluded from Jira. Check Jira again."_s);
    EXPECT_EQ(worklogPosts(), 0);
    EXPECT_TRUE(ledger().isEmpty());
}

INSTANTIATE_TEST_SUITE_P(Exclusions, GuardLateExclusion,
    ::testing::Values(LateExclusion {"IgnoredInACombinedRow", "ignore", true},
        LateExclusion {"ManualMatchInACombinedRow", "manual", true},
        LateExclusion {"IgnoredSingleRow", "ignore", false}),
    [](const ::testing::TestParamInfo<LateExclusion> &param) { return std::string(param.param.name); });
