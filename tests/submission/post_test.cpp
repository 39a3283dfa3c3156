#include "servicefixture.h"

#include "childprocess.h"
#include "fsguards.h"
#include "submission/submissionlock.h"
#include "support/testenv.h"
#include "worklogs/engine.h"
#include "worklogs/namedfailure.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace
{

const QString kLockMessage = u"SubmissionLock: Another app instance is submitting worklogs, or the "
                             "submission lock is unavailable. Check Jira again later."_s;
const QString kDuplicateEntry
    = u"Duplicate: An entry is already posted or has an uncertain submission. Check Jira again."_s;
const QString kChanged = u"Changed: Jira time changed since the last check. Check Jira again."_s;

QString receiptState(const QVariantMap &ledger, const QString &marker)
{
    return ledger.value(marker).toMap().value(u"state"_s).toString();
}

} // namespace

class Post : public ServiceFixture
{
protected:
    // Three sessions of one day, compared and approved as the Worklogs window would post them.
    QVariantList threeApproved(const QString &secondIssue = u"ABC-1"_s)
    {
        m_drafts = draftsOf(
            {session(u"ABC-1"_s, at(2, 9), 3600, u"Design"_s, 1), session(secondIssue, at(2, 11), 1800, u"Review"_s, 2),
                session(u"ABC-2"_s, at(2, 13), 2700, u"Deploy"_s, 3)},
            at(2, 12));
        m_comparison = compare(m_drafts);
        EXPECT_FALSE(m_comparison.contains(u"error"_s)) << qPrintable(m_comparison.value(u"error"_s).toString());
        const QVariantList rows = approved(m_comparison);
        EXPECT_EQ(rows.size(), 3);
        m_server.clearRequests();
        return rows;
    }

    QString markerOf(const QVariantList &rows, int index) const
    {
        return JRMarker(rows.at(index).toMap(), kCloud, kAccount);
    }

    // A child process that posts `rows` and stops, killable, once the "pending" receipt of the first is saved.
    std::unique_ptr<ChildProcess> startChildPost(const QVariantList &rows)
    {
        const QJsonObject config {{u"directory"_s, m_directory}, {u"cloud"_s, kCloud}, {u"account"_s, kAccount},
            {u"generation"_s, 0},
            {u"credentials"_s, QJsonObject::fromVariantMap(credentialRecord(m_token, m_server.origin()))},
            {u"rows"_s, QJsonArray::fromVariantList(rows)}};
        const QString path = m_directory + u"/../child-config.json"_s;
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(QJsonDocument(config).toJson());
        file.close();
        return std::make_unique<ChildProcess>(QStringList {u"post"_s, path},
            QStringList {u"HOURLOOM_TEST_GATEWAY="_s + m_server.origin(),
                u"HOURLOOM_TEST_CA_FILE="_s + m_server.caFile(), u"HOURLOOM_TEST_NO_KEYCHAIN=1"_s});
    }

    QVariantList m_drafts;
    QVariantMap m_comparison;
};

TEST_F(Post, PostsEachWorklogWithReceiptsAndExactlyOneReadAndOneWritePerWorklog)
{
    const QVariantList rows = threeApproved();
    const PostOutcome outcome = post(rows);
    ASSERT_TRUE(outcome.failure.isEmpty()) << qPrintable(outcome.failure);
    EXPECT_EQ(outcome.posted.size(), 3);
    EXPECT_EQ(m_server.requests().size(), 1 + 2 * 3);
    EXPECT_EQ(states(outcome.events),
        (QStringList {u"submitting"_s, u"complete"_s, u"submitting"_s, u"complete"_s, u"submitting"_s, u"complete"_s}));
    const QVariantMap last = outcome.events.last().toMap();
    EXPECT_EQ(last.value(u"phase"_s).toString(), u"post"_s);
    EXPECT_EQ(last.value(u"issue"_s).toString(), u"ABC-2"_s);
    EXPECT_EQ(last.value(u"completed"_s).toLongLong(), 3);
    EXPECT_EQ(last.value(u"total"_s).toLongLong(), 3);
    EXPECT_EQ(last.value(u"source_keys"_s).toStringList(),
        QStringList {rows.at(2).toMap().value(u"source_key"_s).toString()});

    // The second worklog on ABC-1 that day passed its re-check although the first had just added an hour.
    const QVariantMap ledgerNow = ledger();
    ASSERT_EQ(ledgerNow.size(), 3);
    const QVariantMap receipt = ledgerNow.value(markerOf(rows, 0)).toMap();
    EXPECT_EQ(receipt.value(u"state"_s).toString(), u"posted"_s);
    EXPECT_EQ(receipt.value(u"issue"_s).toString(), u"ABC-1"_s);
    EXPECT_EQ(receipt.value(u"cloud"_s).toString(), kCloud);
    EXPECT_EQ(receipt.value(u"payload"_s).toMap(), JRPayload(rows.at(0).toMap(), markerOf(rows, 0)));
    EXPECT_EQ(receipt.value(u"coverage"_s).toMap(), JRCoverage(rows.at(0).toMap()));
    EXPECT_EQ(fileMode(m_service->store().path()), 0600);
    const QList<standin::ReceivedRequest> posts = m_server.requests(u"POST"_s, u"/worklog$"_s);
    ASSERT_EQ(posts.size(), 3);
    EXPECT_EQ(posts.first().queryItem(u"notifyUsers"_s), u"false"_s);
    EXPECT_EQ(QJsonDocument::fromJson(posts.first().body).object().toVariantMap(), receipt.value(u"payload"_s).toMap());
    EXPECT_EQ(expectJiraConsistentWithLedger({u"ABC-1"_s, u"ABC-2"_s}), 3);
    EXPECT_EQ(lastDiagnostic(u"jira_post_completed"_s),
        (QVariantMap {{u"event"_s, u"jira_post_completed"_s}, {u"count"_s, 3}, {u"failed"_s, 0},
            {u"time"_s, lastDiagnostic(u"jira_post_completed"_s).value(u"time"_s)}}));

    // Checking again recognises every worklog by its marker.
    const QVariantMap again = compare(m_drafts);
    for (const QVariant &draft : again.value(u"drafts"_s).toList()) {
        EXPECT_EQ(draft.toMap().value(u"status"_s).toString(), u"Already posted"_s);
        EXPECT_FALSE(draft.toMap().value(u"include"_s).toBool());
    }
    EXPECT_TRUE(approved(again).isEmpty());
}

TEST_F(Post, AnswerLostAfterCreationLeavesPendingAndTheWorklogIsRecognised)
{
    const QVariantList rows = threeApproved();
    m_server.addFault(standin::Fault::createThenDrop());
    const PostOutcome outcome = post(rows.mid(0, 1));
    EXPECT_EQ(outcome.failure, kDropped);
    EXPECT_EQ(states(outcome.events), (QStringList {u"submitting"_s, u"failed"_s}));
    EXPECT_EQ(lastDiagnostic(u"jira_post_completed"_s).value(u"failed"_s).toInt(), 1);
    EXPECT_EQ(receiptState(ledger(), markerOf(rows, 0)), u"pending"_s);
    EXPECT_EQ(m_server.worklogCount(u"ABC-1"_s), 1) << "Jira created it; the program never heard";

    m_server.clearRequests();
    EXPECT_EQ(post(rows.mid(0, 1)).failure, kDuplicateSession);
    EXPECT_EQ(worklogPosts(), 0);

    const QVariantMap again = compare(m_drafts);
    const QString status = statusOf(again, rows.at(0).toMap().value(u"source_key"_s).toString());
    EXPECT_TRUE(status == u"Already posted"_s || status == u"Posted entry differs"_s) << qPrintable(status);
    EXPECT_EQ(approved(again).size(), 2) << "only the two others remain to post";
    EXPECT_EQ(expectJiraConsistentWithLedger({u"ABC-1"_s}), 1);
}

TEST_F(Post, TimeOutOnTheSecondOfThreeStopsTheRun)
{
    const QVariantList rows = threeApproved(u"ABC-3"_s);
    // The answer never comes within the transport's 25 s limit for a whole transfer (the stand-in holds it far
    // longer), so the time-out does not race the answer however busy the machine is.
    m_server.addFault(standin::Fault::slow(u"POST"_s, u"/issue/ABC-3/worklog$"_s, 600000));
    const PostOutcome outcome = post(rows);
    EXPECT_EQ(outcome.failure, kDropped);
    EXPECT_EQ(receiptState(ledger(), markerOf(rows, 0)), u"posted"_s);
    EXPECT_EQ(receiptState(ledger(), markerOf(rows, 1)), u"pending"_s);
    EXPECT_FALSE(ledger().contains(markerOf(rows, 2)));
    EXPECT_EQ(requestCount(u"POST"_s, u"/issue/ABC-2/worklog$"_s), 0) << "the third is never sent";
    const QVariantMap failed = outcome.events.last().toMap();
    EXPECT_EQ(failed.value(u"state"_s).toString(), u"failed"_s);
    EXPECT_EQ(failed.value(u"issue"_s).toString(), u"ABC-3"_s);
    EXPECT_EQ(failed.value(u"completed"_s).toLongLong(), 1);
    const auto sent = m_server.requests(u"POST"_s, u"/issue/ABC-3/worklog$"_s);
    ASSERT_EQ(sent.size(), 1);

    m_server.clearRequests();
    EXPECT_EQ(post(rows).failure, kDuplicateSession);
    EXPECT_EQ(post(rows.mid(1, 1)).failure, kDuplicateSession);
    EXPECT_EQ(worklogPosts(), 0);
    // Jira creates the worklog after the program gave up on it.
    createLate(sent.first());
    ASSERT_EQ(m_server.worklogCount(u"ABC-3"_s), 1);
    expectJiraConsistentWithLedger({u"ABC-1"_s, u"ABC-2"_s, u"ABC-3"_s});
}

// A second process fails at once while the first holds the lock; the first, killed after its "pending"
// receipt, leaves nothing in Jira and its worklog uncertain.
TEST_F(Post, KilledRunLeavesItsWorklogUncertainAndASecondProcessFailsAtOnce)
{
    const QVariantList rows = threeApproved();
    std::unique_ptr<ChildProcess> child = startChildPost(rows);
    ASSERT_TRUE(child->waitForLine(u"submitting"_s)) << qPrintable(child->errors());
    m_server.clearRequests();
    const PostOutcome blocked = post(rows);
    EXPECT_EQ(blocked.failure, kLockMessage);
    EXPECT_EQ(m_server.requests().size(), 0);
    EXPECT_EQ(states(blocked.events), QStringList {u"failed"_s});
    child->kill();

    EXPECT_NO_THROW(SubmissionLock(m_directory + u"/jira-submit.lock"_s));
    EXPECT_EQ(m_server.worklogCount(u"ABC-1"_s), 0);
    const QVariantMap receipts = ledger();
    ASSERT_EQ(receipts.size(), 1);
    EXPECT_EQ(receiptState(receipts, markerOf(rows, 0)), u"pending"_s);
    const QVariantMap again = compare(m_drafts);
    EXPECT_EQ(statusOf(again, rows.at(0).toMap().value(u"source_key"_s).toString()), kUncertain);
    EXPECT_EQ(approved(again).size(), 2);
    EXPECT_EQ(post(rows).failure, kDuplicateSession);
    EXPECT_EQ(worklogPosts(), 0);
}

// A receipt that cannot be saved stops the run: before the first POST nothing is sent; after it, the worklog's
// receipt stays "pending" and nothing more is sent.
TEST_F(Post, LedgerThatCannotBeSavedStopsTheRun)
{
    const QVariantList rows = threeApproved();
    const QString kUnsaved = u"ReceiptError: Could not save submission history. Posting stopped."_s;
    {
        SubmissionLock created(m_directory + u"/jira-submit.lock"_s);
    }
    for (const int writableEvents : {0, 1}) {
        QStringList seen;
        QString failure;
        if (writableEvents == 0)
            QFile::setPermissions(m_directory, QFileDevice::ReadOwner | QFileDevice::ExeOwner);
        m_client->queue().sync([&] {
            ScopedPermissionChecks permissions;
            try {
                m_service->postDrafts(rows, kCloud, kAccount, 0, [&](const QVariantMap &event) {
                    seen.append(event.value(u"state"_s).toString());
                    if (seen.size() == writableEvents)
                        QFile::setPermissions(m_directory, QFileDevice::ReadOwner | QFileDevice::ExeOwner);
                });
            } catch (const NamedFailure &caught) {
                failure = caught.name() + u": "_s + caught.reason();
            }
        });
        QFile::setPermissions(m_directory, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
        EXPECT_EQ(failure, kUnsaved);
        EXPECT_EQ(worklogPosts(), writableEvents) << "later worklogs are not sent";
        EXPECT_EQ(seen.value(seen.size() - 1), u"failed"_s);
    }
    EXPECT_EQ(m_server.worklogCount(u"ABC-1"_s), 1);
    EXPECT_EQ(ledger().size(), 1);
    EXPECT_EQ(receiptState(ledger(), markerOf(rows, 0)), u"pending"_s);
    EXPECT_EQ(post(rows).failure, kDuplicateSession);
}

TEST_F(Post, TimeAddedInJiraSinceTheCheckIsRefusedAsChanged)
{
    const QVariantList rows = threeApproved();
    // Someone logs 15 minutes by hand on the first worklog's issue and day after the check.
    m_server.addWorklog({u"ABC-1"_s, kAccount, at(2, 17), 900, {}, {}, {}, {}});
    // Another author's time does not count.
    m_server.addWorklog({u"ABC-2"_s, kOtherAccount, at(2, 17), 900, {}, {}, {}, {}});

    const PostOutcome outcome = post(rows);
    EXPECT_EQ(outcome.failure, kChanged);
    EXPECT_EQ(worklogPosts(), 0);
    EXPECT_TRUE(ledger().isEmpty());

    // The third, on another issue, still posts; after checking again, so do the others.
    EXPECT_TRUE(post(rows.mid(2)).failure.isEmpty());
    const PostOutcome rest = post(approved(compare(m_drafts)));
    EXPECT_TRUE(rest.failure.isEmpty()) << qPrintable(rest.failure);
    EXPECT_EQ(rest.posted.size(), 2);
    EXPECT_EQ(expectJiraConsistentWithLedger({u"ABC-1"_s, u"ABC-2"_s}), 3);
}

TEST_F(Post, WorklogAlreadyInJiraWithoutAReceiptIsCaughtByTheRecheck)
{
    // The first worklog reaches Jira after the check without passing through this ledger (another
    // installation of the program on the same tracker data): only the fresh comparison can see it.
    const QVariantList rows = threeApproved();
    const QVariantMap row = rows.at(0).toMap();
    const QVariantMap payload = JRPayload(row, markerOf(rows, 0));
    m_server.addWorklog(
        {u"ABC-1"_s, kAccount, JRDate(row.value(u"started"_s)), payload.value(u"timeSpentSeconds"_s).toLongLong(),
            QJsonObject::fromVariantMap(payload.value(u"comment"_s).toMap()),
            QJsonArray::fromVariantList(payload.value(u"properties"_s).toList()), {}, {}});

    const PostOutcome outcome = post(rows);
    EXPECT_EQ(outcome.failure, kDuplicateEntry);
    EXPECT_EQ(states(outcome.events), QStringList {u"failed"_s});
    EXPECT_EQ(worklogPosts(), 0);
    EXPECT_TRUE(ledger().isEmpty()) << "no receipt is written for a worklog the re-check refused";
    EXPECT_EQ(m_server.worklogCount(u"ABC-1"_s), 1);
}

TEST_F(Post, EstimateFollowsThePreferenceUnlessTheCallerChooses)
{
    const bool saved = JRReduceEstimateOnPost();
    const QVariantList rows = threeApproved(u"ABC-3"_s); // three issues: no re-check sees another
    JRSetReduceEstimateOnPost(true);
    ASSERT_TRUE(post(rows.mid(0, 1)).failure.isEmpty());
    JRSetReduceEstimateOnPost(false);
    ASSERT_TRUE(post(rows.mid(1, 1)).failure.isEmpty());
    m_client->queue().sync(
        [&] { m_service->postDrafts(rows.mid(2, 1), kCloud, kAccount, 0, WorklogService::Estimate::Reduce); });
    JRSetReduceEstimateOnPost(saved);

    const QList<standin::ReceivedRequest> posts = m_server.requests(u"POST"_s, u"/worklog$"_s);
    ASSERT_EQ(posts.size(), 3);
    EXPECT_EQ(posts.at(0).queryItem(u"adjustEstimate"_s), u"auto"_s);
    EXPECT_EQ(posts.at(1).queryItem(u"adjustEstimate"_s), u"leave"_s);
    EXPECT_EQ(posts.at(2).queryItem(u"adjustEstimate"_s), u"auto"_s);
}

TEST_F(Post, RunThatNoLongerMatchesTheCheckIsRefusedBeforeAnythingIsSent)
{
    const QVariantList rows = threeApproved();
    QVariantList excluded = rows;
    QVariantMap row = excluded.at(1).toMap();
    QVariantMap sessionRecord = row.value(u"session"_s).toMap();
    sessionRecord.insert(u"jira_exclusion"_s, QVariantMap {{u"kind"_s, u"ignore"_s}});
    row.insert(u"session"_s, sessionRecord);
    excluded[1] = row;
    m_client->setGeneration(m_client->generation() + 1);
    const qint64 now = m_client->generation();

    const QList<std::tuple<const char *, QVariantList, QString, qint64, QString>> cases = {
        {"another account", rows, kOtherAccount, now, u"AccountChanged: Jira account changed. Check Jira again."_s},
        {"a reconnect", rows, kAccount, now - 1, u"ConnectionChanged: Jira connection changed. Check Jira again."_s},
        {"an excluded session", excluded, kAccount, now,
            u"Excluded: This session is excluded from Jira. Check Jira again."_s},
        {"the same marker twice", {rows.at(0), rows.at(1), rows.at(0)}, kAccount, now, kDuplicateSession},
    };
    for (const auto &[name, run, account, generation, message] : cases) {
        const PostOutcome outcome = post(run, account, generation);
        EXPECT_EQ(outcome.failure, message) << name;
        EXPECT_EQ(states(outcome.events), QStringList {u"failed"_s}) << name;
        EXPECT_TRUE(outcome.posted.isEmpty()) << name;
    }
    EXPECT_EQ(requestCount(u"GET"_s, u"/worklog$"_s), 0);
    EXPECT_EQ(worklogPosts(), 0);
    EXPECT_TRUE(ledger().isEmpty());
}

struct PostRefusal {
    const char *name;
    standin::Fault fault;
    const char *message;
};

void PrintTo(const PostRefusal &refusal, std::ostream *out)
{
    *out << refusal.name;
}

class PostRefused : public Post, public ::testing::WithParamInterface<PostRefusal>
{
};

TEST_P(PostRefused, KeepsThePendingReceiptAndTellsTheUserToCheckJira)
{
    const QVariantList rows = threeApproved();
    m_server.addFault(GetParam().fault);
    const PostOutcome outcome = post(rows);
    EXPECT_EQ(outcome.failure, QString::fromUtf8(GetParam().message));
    EXPECT_EQ(outcome.events.last().toMap().value(u"error"_s).toString(), outcome.failure.section(u": "_s, 1));
    EXPECT_EQ(receiptState(ledger(), markerOf(rows, 0)), u"pending"_s);
    EXPECT_EQ(ledger().size(), 1);
    EXPECT_EQ(m_server.worklogCount(u"ABC-1"_s), 0);

    const QVariantMap again = compare(m_drafts);
    EXPECT_EQ(statusOf(again, rows.at(0).toMap().value(u"source_key"_s).toString()), kUncertain);
    expectJiraConsistentWithLedger({u"ABC-1"_s, u"ABC-2"_s});
}

INSTANTIATE_TEST_SUITE_P(Statuses, PostRefused,
    ::testing::Values(
        PostRefusal {"TooManyRequests", standin::Fault::tooManyRequests(u"POST"_s, u"/worklog$"_s),
            "JiraError: Jira returned HTTP 429. Jira is limiting requests; wait a moment and check again."},
        PostRefusal {"TooManyRequestsHtml", standin::Fault::tooManyRequestsHtml(u"POST"_s, u"/worklog$"_s),
            "JiraError: Jira returned HTTP 429. Jira is limiting requests; wait a moment and check again."},
        PostRefusal {"ServiceUnavailable", standin::Fault::serviceUnavailable(u"POST"_s, u"/worklog$"_s),
            "JiraError: Jira returned HTTP 503. Review the issue and check Jira again before retrying."},
        PostRefusal {"CreatedWithoutId",
            standin::Fault::statusReply(u"POST"_s, u"/worklog$"_s, 201, "{\"self\":\"x\"}"),
            "JiraError: Submission outcome is unknown. Check Jira again before retrying."}),
    [](const ::testing::TestParamInfo<PostRefusal> &param) { return std::string(param.param.name); });

TEST_F(Post, CombinedWorklogCoversItsSessionsAndIsRecognisedPerSession)
{
    JRSetCombineDailyByIssue(true);
    const QVariantList drafts = draftsOf(
        {session(u"ABC-1"_s, at(2, 9), 3600, u"Design"_s, 1), session(u"ABC-1"_s, at(2, 11), 1800, u"Review"_s, 2)},
        at(2, 12));
    const QVariantList rows = approved(compare(drafts));
    ASSERT_EQ(rows.size(), 1);
    const PostOutcome outcome = post(rows);
    ASSERT_TRUE(outcome.failure.isEmpty()) << qPrintable(outcome.failure);

    const QVariantList inJira = jiraWorklogs(u"ABC-1"_s);
    ASSERT_EQ(inJira.size(), 1);
    EXPECT_EQ(inJira.first().toMap().value(u"timeSpentSeconds"_s).toLongLong(), 5400);
    EXPECT_EQ(JRLogSources(inJira.first().toMap()),
        (QVariantMap {{drafts.at(0).toMap().value(u"source_key"_s).toString(), 3600},
            {drafts.at(1).toMap().value(u"source_key"_s).toString(), 1800}}));

    const QVariantMap again = compare(drafts);
    for (const QVariant &draft : again.value(u"drafts"_s).toList())
        EXPECT_EQ(draft.toMap().value(u"status"_s).toString(), u"Posted in a combined worklog"_s);
    EXPECT_TRUE(approved(again).isEmpty());
}

TEST_F(Post, RunningDayTotalFollowsTheLocalCalendarAcrossZones)
{
    // Local midnight in Kolkata is 18:30 UTC and mid-morning in the Jira user's Auckland profile zone, so the
    // two worklogs fall on different dates in Jira's own answers yet on one local day.
    testenv::ScopedTimeZone zone("Asia/Kolkata");
    const QVariantList drafts = draftsOf(
        {session(u"ABC-1"_s, at(3, 0, 10), 1200, u"Early"_s, 1), session(u"ABC-1"_s, at(3, 23, 30), 1200, u"Late"_s, 2),
            session(u"ABC-1"_s, at(4, 0, 5), 600, u"Next"_s, 3)},
        at(3, 12));
    ASSERT_EQ(drafts.size(), 2) << "the session of the next day belongs to another day's drafts";
    m_server.addWorklog({u"ABC-1"_s, kAccount, at(2, 23, 50), 600, {}, {}, {}, {}}); // the day before
    const QVariantList rows = approved(compare(drafts));
    ASSERT_EQ(rows.size(), 2);
    EXPECT_EQ(rows.at(0).toMap().value(u"existing"_s).toLongLong(), 0);
    const PostOutcome outcome = post(rows);
    EXPECT_TRUE(outcome.failure.isEmpty()) << qPrintable(outcome.failure);
    EXPECT_EQ(outcome.posted.size(), 2);
}
