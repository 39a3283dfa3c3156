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

const QString kLockMessage = QStringLiteral("SubmissionLock: Another app instance is submitting worklogs, or the "
                                            "submission lock is unavailable. Check Jira again later.");
const QString kDuplicateSession = QStringLiteral("Duplicate: A session in this worklog is already posted or has an "
                                                 "uncertain submission. Check Jira again.");
const QString kDuplicateEntry
    = QStringLiteral("Duplicate: An entry is already posted or has an uncertain submission. Check Jira again.");
const QString kChanged = QStringLiteral("Changed: Jira time changed since the last check. Check Jira again.");
const QString kDropped = QStringLiteral("JiraError: Network request failed. For a submitted worklog, the outcome may "
                                        "be unknown; check Jira again before any retry.");
const QString kUncertain = QStringLiteral("Uncertain submission — review in Jira");

QString receiptState(const QVariantMap &ledger, const QString &marker)
{
    return ledger.value(marker).toMap().value(QStringLiteral("state")).toString();
}

} // namespace

class Post : public ServiceFixture
{
protected:
    // Three sessions of one day, compared and approved as the Worklogs window would post them.
    QVariantList threeApproved(const QString &secondIssue = QStringLiteral("ABC-1"))
    {
        m_drafts = draftsOf({session(QStringLiteral("ABC-1"), at(2, 9), 3600, QStringLiteral("Design"), 1),
                                session(secondIssue, at(2, 11), 1800, QStringLiteral("Review"), 2),
                                session(QStringLiteral("ABC-2"), at(2, 13), 2700, QStringLiteral("Deploy"), 3)},
            at(2, 12));
        m_comparison = compare(m_drafts);
        EXPECT_FALSE(m_comparison.contains(QStringLiteral("error")))
            << qPrintable(m_comparison.value(QStringLiteral("error")).toString());
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
        const QJsonObject config {{QStringLiteral("directory"), m_directory}, {QStringLiteral("cloud"), kCloud},
            {QStringLiteral("account"), kAccount}, {QStringLiteral("generation"), 0},
            {QStringLiteral("credentials"), QJsonObject::fromVariantMap(credentialRecord(m_token, m_server.origin()))},
            {QStringLiteral("rows"), QJsonArray::fromVariantList(rows)}};
        const QString path = m_directory + QStringLiteral("/../child-config.json");
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(QJsonDocument(config).toJson());
        file.close();
        return std::make_unique<ChildProcess>(QStringList {QStringLiteral("post"), path},
            QStringList {QStringLiteral("HOURLOOM_TEST_GATEWAY=") + m_server.origin(),
                QStringLiteral("HOURLOOM_TEST_CA_FILE=") + m_server.caFile(),
                QStringLiteral("HOURLOOM_TEST_NO_KEYCHAIN=1")});
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
        (QStringList {QStringLiteral("submitting"), QStringLiteral("complete"), QStringLiteral("submitting"),
            QStringLiteral("complete"), QStringLiteral("submitting"), QStringLiteral("complete")}));
    const QVariantMap last = outcome.events.last().toMap();
    EXPECT_EQ(last.value(QStringLiteral("phase")).toString(), QStringLiteral("post"));
    EXPECT_EQ(last.value(QStringLiteral("issue")).toString(), QStringLiteral("ABC-2"));
    EXPECT_EQ(last.value(QStringLiteral("completed")).toLongLong(), 3);
    EXPECT_EQ(last.value(QStringLiteral("total")).toLongLong(), 3);
    EXPECT_EQ(last.value(QStringLiteral("source_keys")).toStringList(),
        QStringList {rows.at(2).toMap().value(QStringLiteral("source_key")).toString()});

    // The second worklog on ABC-1 that day passed its re-check although the first had just added an hour.
    const QVariantMap ledgerNow = ledger();
    ASSERT_EQ(ledgerNow.size(), 3);
    const QVariantMap receipt = ledgerNow.value(markerOf(rows, 0)).toMap();
    EXPECT_EQ(receipt.value(QStringLiteral("state")).toString(), QStringLiteral("posted"));
    EXPECT_EQ(receipt.value(QStringLiteral("issue")).toString(), QStringLiteral("ABC-1"));
    EXPECT_EQ(receipt.value(QStringLiteral("cloud")).toString(), kCloud);
    EXPECT_EQ(receipt.value(QStringLiteral("payload")).toMap(), JRPayload(rows.at(0).toMap(), markerOf(rows, 0)));
    EXPECT_EQ(receipt.value(QStringLiteral("coverage")).toMap(), JRCoverage(rows.at(0).toMap()));
    EXPECT_EQ(fileMode(m_service->store().path()), 0600);
    const QList<standin::ReceivedRequest> posts
        = m_server.requests(QStringLiteral("POST"), QStringLiteral("/worklog$"));
    ASSERT_EQ(posts.size(), 3);
    EXPECT_EQ(posts.first().queryItem(QStringLiteral("notifyUsers")), QStringLiteral("false"));
    EXPECT_EQ(QJsonDocument::fromJson(posts.first().body).object().toVariantMap(),
        receipt.value(QStringLiteral("payload")).toMap());
    EXPECT_EQ(expectJiraConsistentWithLedger({QStringLiteral("ABC-1"), QStringLiteral("ABC-2")}), 3);
    EXPECT_EQ(lastDiagnostic(QStringLiteral("jira_post_completed")),
        (QVariantMap {{QStringLiteral("event"), QStringLiteral("jira_post_completed")}, {QStringLiteral("count"), 3},
            {QStringLiteral("failed"), 0},
            {QStringLiteral("time"),
                lastDiagnostic(QStringLiteral("jira_post_completed")).value(QStringLiteral("time"))}}));

    // Checking again recognises every worklog by its marker.
    const QVariantMap again = compare(m_drafts);
    for (const QVariant &draft : again.value(QStringLiteral("drafts")).toList()) {
        EXPECT_EQ(draft.toMap().value(QStringLiteral("status")).toString(), QStringLiteral("Already posted"));
        EXPECT_FALSE(draft.toMap().value(QStringLiteral("include")).toBool());
    }
    EXPECT_TRUE(approved(again).isEmpty());
}

TEST_F(Post, AnswerLostAfterCreationLeavesPendingAndTheWorklogIsRecognised)
{
    const QVariantList rows = threeApproved();
    m_server.addFault(standin::Fault::createThenDrop());
    const PostOutcome outcome = post(rows.mid(0, 1));
    EXPECT_EQ(outcome.failure, kDropped);
    EXPECT_EQ(states(outcome.events), (QStringList {QStringLiteral("submitting"), QStringLiteral("failed")}));
    EXPECT_EQ(lastDiagnostic(QStringLiteral("jira_post_completed")).value(QStringLiteral("failed")).toInt(), 1);
    EXPECT_EQ(receiptState(ledger(), markerOf(rows, 0)), QStringLiteral("pending"));
    EXPECT_EQ(m_server.worklogCount(QStringLiteral("ABC-1")), 1) << "Jira created it; the program never heard";

    m_server.clearRequests();
    EXPECT_EQ(post(rows.mid(0, 1)).failure, kDuplicateSession);
    EXPECT_EQ(worklogPosts(), 0);

    const QVariantMap again = compare(m_drafts);
    const QString status = statusOf(again, rows.at(0).toMap().value(QStringLiteral("source_key")).toString());
    EXPECT_TRUE(status == QStringLiteral("Already posted") || status == QStringLiteral("Posted entry differs"))
        << qPrintable(status);
    EXPECT_EQ(approved(again).size(), 2) << "only the two others remain to post";
    EXPECT_EQ(expectJiraConsistentWithLedger({QStringLiteral("ABC-1")}), 1);
}

TEST_F(Post, TimeOutOnTheSecondOfThreeStopsTheRun)
{
    const QVariantList rows = threeApproved(QStringLiteral("ABC-3"));
    // The answer never comes within the transport's 25 s limit for a whole transfer (the stand-in holds it far
    // longer), so the time-out does not race the answer however busy the machine is.
    m_server.addFault(standin::Fault::slow(QStringLiteral("POST"), QStringLiteral("/issue/ABC-3/worklog$"), 600000));
    const PostOutcome outcome = post(rows);
    EXPECT_EQ(outcome.failure, kDropped);
    EXPECT_EQ(receiptState(ledger(), markerOf(rows, 0)), QStringLiteral("posted"));
    EXPECT_EQ(receiptState(ledger(), markerOf(rows, 1)), QStringLiteral("pending"));
    EXPECT_FALSE(ledger().contains(markerOf(rows, 2)));
    EXPECT_EQ(requestCount(QStringLiteral("POST"), QStringLiteral("/issue/ABC-2/worklog$")), 0)
        << "the third is never sent";
    const QVariantMap failed = outcome.events.last().toMap();
    EXPECT_EQ(failed.value(QStringLiteral("state")).toString(), QStringLiteral("failed"));
    EXPECT_EQ(failed.value(QStringLiteral("issue")).toString(), QStringLiteral("ABC-3"));
    EXPECT_EQ(failed.value(QStringLiteral("completed")).toLongLong(), 1);
    const auto sent = m_server.requests(QStringLiteral("POST"), QStringLiteral("/issue/ABC-3/worklog$"));
    ASSERT_EQ(sent.size(), 1);

    m_server.clearRequests();
    EXPECT_EQ(post(rows).failure, kDuplicateSession);
    EXPECT_EQ(post(rows.mid(1, 1)).failure, kDuplicateSession);
    EXPECT_EQ(worklogPosts(), 0);
    // Jira creates the worklog after the program gave up on it.
    createLate(sent.first());
    ASSERT_EQ(m_server.worklogCount(QStringLiteral("ABC-3")), 1);
    expectJiraConsistentWithLedger({QStringLiteral("ABC-1"), QStringLiteral("ABC-2"), QStringLiteral("ABC-3")});
}

TEST_F(Post, KilledAfterThePendingReceiptLeavesNothingInJiraAndAsksToCheck)
{
    const QVariantList rows = threeApproved();
    std::unique_ptr<ChildProcess> child = startChildPost(rows);
    ASSERT_TRUE(child->waitForLine(QStringLiteral("submitting"))) << qPrintable(child->errors());
    child->kill();

    EXPECT_EQ(worklogPosts(), 0);
    EXPECT_EQ(m_server.worklogCount(QStringLiteral("ABC-1")), 0);
    const QVariantMap receipts = ledger();
    ASSERT_EQ(receipts.size(), 1);
    EXPECT_EQ(receiptState(receipts, markerOf(rows, 0)), QStringLiteral("pending"));

    const QVariantMap again = compare(m_drafts);
    EXPECT_EQ(statusOf(again, rows.at(0).toMap().value(QStringLiteral("source_key")).toString()), kUncertain);
    EXPECT_EQ(approved(again).size(), 2);
    EXPECT_EQ(post(rows).failure, kDuplicateSession);
}

TEST_F(Post, SecondProcessFailsAtOnceWithTheLockMessageAndSendsNothing)
{
    const QVariantList rows = threeApproved();
    std::unique_ptr<ChildProcess> child = startChildPost(rows);
    ASSERT_TRUE(child->waitForLine(QStringLiteral("submitting"))) << qPrintable(child->errors());
    m_server.clearRequests();

    const PostOutcome blocked = post(rows);
    EXPECT_EQ(blocked.failure, kLockMessage);
    EXPECT_EQ(m_server.requests().size(), 0);
    EXPECT_EQ(states(blocked.events), QStringList {QStringLiteral("failed")});

    child->kill();
    EXPECT_NO_THROW(SubmissionLock(m_directory + QStringLiteral("/jira-submit.lock")));
    EXPECT_EQ(post(rows).failure, kDuplicateSession) << "the killed run's first worklog stays uncertain";
    EXPECT_EQ(worklogPosts(), 0);
}

// The ledger's own tests cover every kind of damage; here: a post run reads it before anything is sent.
TEST_F(Post, LedgerThatCannotBeReadOrWrittenSendsNothing)
{
    const QVariantList rows = threeApproved();
    const QString path = m_service->store().path();
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("{\"abc\":");
    file.close();
    PostOutcome outcome = post(rows, kAccount, 0, true);
    EXPECT_EQ(outcome.failure,
        QStringLiteral("ReceiptError: Submission history is unreadable. Posting is blocked to prevent duplicates."));
    EXPECT_EQ(requestCount(QStringLiteral("GET"), QStringLiteral("/worklog$")), 0);
    EXPECT_EQ(fileBytes(path), QByteArray("{\"abc\":"));
    ASSERT_TRUE(QFile::remove(path));

    {
        SubmissionLock created(m_directory + QStringLiteral("/jira-submit.lock"));
    }
    QFile::setPermissions(m_directory, QFileDevice::ReadOwner | QFileDevice::ExeOwner);
    outcome = post(rows, kAccount, 0, true);
    QFile::setPermissions(m_directory, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);

    EXPECT_EQ(outcome.failure, QStringLiteral("ReceiptError: Could not save submission history. Posting stopped."));
    EXPECT_EQ(worklogPosts(), 0);
    EXPECT_TRUE(ledger().isEmpty());
}

TEST_F(Post, PostedReceiptThatCannotBeSavedStaysPendingAndStopsTheRun)
{
    const QVariantList rows = threeApproved();
    const QFileDevice::Permissions writable = QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner;
    QString failure;
    QStringList seen;
    m_client->queue().sync([&] {
        ScopedPermissionChecks permissions;
        try {
            // The folder turns read-only while the first POST is on its way: its confirmation cannot be saved.
            m_service->postDrafts(rows, kCloud, kAccount, 0, [&](const QVariantMap &event) {
                seen.append(event.value(QStringLiteral("state")).toString());
                if (seen.size() == 1)
                    QFile::setPermissions(m_directory, QFileDevice::ReadOwner | QFileDevice::ExeOwner);
            });
        } catch (const NamedFailure &caught) {
            failure = caught.name() + QStringLiteral(": ") + caught.reason();
        }
    });
    QFile::setPermissions(m_directory, writable);

    EXPECT_EQ(failure, QStringLiteral("ReceiptError: Could not save submission history. Posting stopped."));
    EXPECT_EQ(seen, (QStringList {QStringLiteral("submitting"), QStringLiteral("failed")}));
    EXPECT_EQ(worklogPosts(), 1) << "later worklogs are not sent";
    EXPECT_EQ(m_server.worklogCount(QStringLiteral("ABC-1")), 1);
    EXPECT_EQ(receiptState(ledger(), markerOf(rows, 0)), QStringLiteral("pending"));
    EXPECT_EQ(post(rows).failure, kDuplicateSession);
}

TEST_F(Post, TimeAddedInJiraSinceTheCheckIsRefusedAsChanged)
{
    const QVariantList rows = threeApproved();
    // Someone logs 15 minutes by hand on the first worklog's issue and day after the check.
    m_server.addWorklog({QStringLiteral("ABC-1"), kAccount, at(2, 17), 900, {}, {}, {}, {}});
    // Another author's time does not count.
    m_server.addWorklog({QStringLiteral("ABC-2"), kOtherAccount, at(2, 17), 900, {}, {}, {}, {}});

    const PostOutcome outcome = post(rows);
    EXPECT_EQ(outcome.failure, kChanged);
    EXPECT_EQ(worklogPosts(), 0);
    EXPECT_TRUE(ledger().isEmpty());

    // The third, on another issue, still posts; after checking again, so do the others.
    EXPECT_TRUE(post(rows.mid(2)).failure.isEmpty());
    const PostOutcome rest = post(approved(compare(m_drafts)));
    EXPECT_TRUE(rest.failure.isEmpty()) << qPrintable(rest.failure);
    EXPECT_EQ(rest.posted.size(), 2);
    EXPECT_EQ(expectJiraConsistentWithLedger({QStringLiteral("ABC-1"), QStringLiteral("ABC-2")}), 3);
}

TEST_F(Post, WorklogAlreadyInJiraWithoutAReceiptIsCaughtByTheRecheck)
{
    // The first worklog reaches Jira after the check without passing through this ledger (another
    // installation of the program on the same tracker data): only the fresh comparison can see it.
    const QVariantList rows = threeApproved();
    const QVariantMap row = rows.at(0).toMap();
    const QVariantMap payload = JRPayload(row, markerOf(rows, 0));
    m_server.addWorklog({QStringLiteral("ABC-1"), kAccount, JRDate(row.value(QStringLiteral("started"))),
        payload.value(QStringLiteral("timeSpentSeconds")).toLongLong(),
        QJsonObject::fromVariantMap(payload.value(QStringLiteral("comment")).toMap()),
        QJsonArray::fromVariantList(payload.value(QStringLiteral("properties")).toList()), {}, {}});

    const PostOutcome outcome = post(rows);
    EXPECT_EQ(outcome.failure, kDuplicateEntry);
    EXPECT_EQ(states(outcome.events), QStringList {QStringLiteral("failed")});
    EXPECT_EQ(worklogPosts(), 0);
    EXPECT_TRUE(ledger().isEmpty()) << "no receipt is written for a worklog the re-check refused";
    EXPECT_EQ(m_server.worklogCount(QStringLiteral("ABC-1")), 1);
}

TEST_F(Post, EstimateFollowsThePreferenceUnlessTheCallerChooses)
{
    const bool saved = JRReduceEstimateOnPost();
    const QVariantList rows = threeApproved(QStringLiteral("ABC-3")); // three issues: no re-check sees another
    JRSetReduceEstimateOnPost(true);
    ASSERT_TRUE(post(rows.mid(0, 1)).failure.isEmpty());
    JRSetReduceEstimateOnPost(false);
    ASSERT_TRUE(post(rows.mid(1, 1)).failure.isEmpty());
    m_client->queue().sync(
        [&] { m_service->postDrafts(rows.mid(2, 1), kCloud, kAccount, 0, WorklogService::Estimate::Reduce); });
    JRSetReduceEstimateOnPost(saved);

    const QList<standin::ReceivedRequest> posts
        = m_server.requests(QStringLiteral("POST"), QStringLiteral("/worklog$"));
    ASSERT_EQ(posts.size(), 3);
    EXPECT_EQ(posts.at(0).queryItem(QStringLiteral("adjustEstimate")), QStringLiteral("auto"));
    EXPECT_EQ(posts.at(1).queryItem(QStringLiteral("adjustEstimate")), QStringLiteral("leave"));
    EXPECT_EQ(posts.at(2).queryItem(QStringLiteral("adjustEstimate")), QStringLiteral("auto"));
}

TEST_F(Post, RunThatNoLongerMatchesTheCheckIsRefusedBeforeAnythingIsSent)
{
    const QVariantList rows = threeApproved();
    QVariantList excluded = rows;
    QVariantMap row = excluded.at(1).toMap();
    QVariantMap sessionRecord = row.value(QStringLiteral("session")).toMap();
    sessionRecord.insert(
        QStringLiteral("jira_exclusion"), QVariantMap {{QStringLiteral("kind"), QStringLiteral("ignore")}});
    row.insert(QStringLiteral("session"), sessionRecord);
    excluded[1] = row;
    m_client->setGeneration(m_client->generation() + 1);
    const qint64 now = m_client->generation();

    const QList<std::tuple<const char *, QVariantList, QString, qint64, QString>> cases = {
        {"another account", rows, kOtherAccount, now,
            QStringLiteral("AccountChanged: Jira account changed. Check Jira again.")},
        {"a reconnect", rows, kAccount, now - 1,
            QStringLiteral("ConnectionChanged: Jira connection changed. Check Jira again.")},
        {"an excluded session", excluded, kAccount, now,
            QStringLiteral("Excluded: This session is excluded from Jira. Check Jira again.")},
        {"the same marker twice", {rows.at(0), rows.at(1), rows.at(0)}, kAccount, now, kDuplicateSession},
    };
    for (const auto &[name, run, account, generation, message] : cases) {
        const PostOutcome outcome = post(run, account, generation);
        EXPECT_EQ(outcome.failure, message) << name;
        EXPECT_EQ(states(outcome.events), QStringList {QStringLiteral("failed")}) << name;
        EXPECT_TRUE(outcome.posted.isEmpty()) << name;
    }
    EXPECT_EQ(requestCount(QStringLiteral("GET"), QStringLiteral("/worklog$")), 0);
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
    EXPECT_EQ(outcome.events.last().toMap().value(QStringLiteral("error")).toString(),
        outcome.failure.section(QStringLiteral(": "), 1));
    EXPECT_EQ(receiptState(ledger(), markerOf(rows, 0)), QStringLiteral("pending"));
    EXPECT_EQ(ledger().size(), 1);
    EXPECT_EQ(m_server.worklogCount(QStringLiteral("ABC-1")), 0);

    const QVariantMap again = compare(m_drafts);
    EXPECT_EQ(statusOf(again, rows.at(0).toMap().value(QStringLiteral("source_key")).toString()), kUncertain);
    expectJiraConsistentWithLedger({QStringLiteral("ABC-1"), QStringLiteral("ABC-2")});
}

INSTANTIATE_TEST_SUITE_P(Statuses, PostRefused,
    ::testing::Values(
        PostRefusal {"TooManyRequests",
            standin::Fault::tooManyRequests(QStringLiteral("POST"), QStringLiteral("/worklog$")),
            "JiraError: Jira returned HTTP 429. Jira is limiting requests; wait a moment and check again."},
        PostRefusal {"TooManyRequestsHtml",
            standin::Fault::tooManyRequestsHtml(QStringLiteral("POST"), QStringLiteral("/worklog$")),
            "JiraError: Jira returned HTTP 429. Jira is limiting requests; wait a moment and check again."},
        PostRefusal {"ServiceUnavailable",
            standin::Fault::serviceUnavailable(QStringLiteral("POST"), QStringLiteral("/worklog$")),
            "JiraError: Jira returned HTTP 503. Review the issue and check Jira again before retrying."},
        PostRefusal {"CreatedWithoutId",
            standin::Fault::statusReply(QStringLiteral("POST"), QStringLiteral("/worklog$"), 201, "{\"self\":\"x\"}"),
            "JiraError: Submission outcome is unknown. Check Jira again before retrying."}),
    [](const ::testing::TestParamInfo<PostRefusal> &param) { return std::string(param.param.name); });

TEST_F(Post, CombinedWorklogCoversItsSessionsAndIsRecognisedPerSession)
{
    JRSetCombineDailyByIssue(true);
    const QVariantList drafts
        = draftsOf({session(QStringLiteral("ABC-1"), at(2, 9), 3600, QStringLiteral("Design"), 1),
                       session(QStringLiteral("ABC-1"), at(2, 11), 1800, QStringLiteral("Review"), 2)},
            at(2, 12));
    const QVariantList rows = approved(compare(drafts));
    ASSERT_EQ(rows.size(), 1);
    const PostOutcome outcome = post(rows);
    ASSERT_TRUE(outcome.failure.isEmpty()) << qPrintable(outcome.failure);

    const QVariantList inJira = jiraWorklogs(QStringLiteral("ABC-1"));
    ASSERT_EQ(inJira.size(), 1);
    EXPECT_EQ(inJira.first().toMap().value(QStringLiteral("timeSpentSeconds")).toLongLong(), 5400);
    EXPECT_EQ(JRLogSources(inJira.first().toMap()),
        (QVariantMap {{drafts.at(0).toMap().value(QStringLiteral("source_key")).toString(), 3600},
            {drafts.at(1).toMap().value(QStringLiteral("source_key")).toString(), 1800}}));

    const QVariantMap again = compare(drafts);
    for (const QVariant &draft : again.value(QStringLiteral("drafts")).toList())
        EXPECT_EQ(
            draft.toMap().value(QStringLiteral("status")).toString(), QStringLiteral("Posted in a combined worklog"));
    EXPECT_TRUE(approved(again).isEmpty());
}

TEST_F(Post, RunningDayTotalFollowsTheLocalCalendarAcrossZones)
{
    // Local midnight in Kolkata is 18:30 UTC and mid-morning in the Jira user's Auckland profile zone, so the
    // two worklogs fall on different dates in Jira's own answers yet on one local day.
    testenv::ScopedTimeZone zone("Asia/Kolkata");
    const QVariantList drafts
        = draftsOf({session(QStringLiteral("ABC-1"), at(3, 0, 10), 1200, QStringLiteral("Early"), 1),
                       session(QStringLiteral("ABC-1"), at(3, 23, 30), 1200, QStringLiteral("Late"), 2),
                       session(QStringLiteral("ABC-1"), at(4, 0, 5), 600, QStringLiteral("Next"), 3)},
            at(3, 12));
    ASSERT_EQ(drafts.size(), 2) << "the session of the next day belongs to another day's drafts";
    m_server.addWorklog({QStringLiteral("ABC-1"), kAccount, at(2, 23, 50), 600, {}, {}, {}, {}}); // the day before
    const QVariantList rows = approved(compare(drafts));
    ASSERT_EQ(rows.size(), 2);
    EXPECT_EQ(rows.at(0).toMap().value(QStringLiteral("existing")).toLongLong(), 0);
    const PostOutcome outcome = post(rows);
    EXPECT_TRUE(outcome.failure.isEmpty()) << qPrintable(outcome.failure);
    EXPECT_EQ(outcome.posted.size(), 2);
}
