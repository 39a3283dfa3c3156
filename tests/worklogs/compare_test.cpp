#include "worklogs/compare.h"

#include "support/testenv.h"
#include "worklogbuilders.h"
#include "worklogs/drafts.h"
#include "worklogs/manualmatches.h"
#include "worklogs/marker.h"
#include "worklogs/preferences.h"

using namespace wl;

namespace
{

const QString kMe = QStringLiteral("me-123");
const QString kCloud = QStringLiteral("cloud-1");

class Compare : public EngineTest
{
protected:
    void SetUp() override
    {
        EngineTest::SetUp();
        m_draft = first(JRBuildDrafts({session(m_start, 3600000)}, m_start));
        m_marker = JRMarker(m_draft, kCloud, kMe);
    }
    // The worklog Jira would list after this draft was posted.
    QVariantMap posted(qint64 shiftMs = 0) const
    {
        QVariantMap log = JRPayload(m_draft, m_marker);
        log.insert(QStringLiteral("id"), QStringLiteral("20001"));
        log.insert(QStringLiteral("author"), QVariantMap {{QStringLiteral("accountId"), kMe}});
        log.insert(QStringLiteral("started"), JRISO(m_start.addMSecs(shiftMs)));
        return log;
    }
    QVariantMap compare(const QVariantList &logs, const QVariantMap &receipt = {}) const
    {
        return JRCompare(m_draft, logs, kMe, m_marker, receipt);
    }
    static QString status(const QVariantMap &result) { return result.value(QStringLiteral("status")).toString(); }

    QDateTime m_start = local(2026, 3, 2, 9, 0);
    QVariantMap m_draft;
    QString m_marker;
};

TEST_F(Compare, RecognisesItsOwnWorklogWithinOneSecond)
{
    QVariantMap result = compare({posted(900)});
    EXPECT_EQ(status(result), QStringLiteral("Already posted"));
    EXPECT_FALSE(result.value(QStringLiteral("eligible")).toBool());
    EXPECT_EQ(result.value(QStringLiteral("existing")).toLongLong(), 3600);
    EXPECT_EQ(status(compare({posted(-999)})), QStringLiteral("Already posted"));
    EXPECT_EQ(status(compare({posted(1000)})), QStringLiteral("Posted entry differs"));

    QVariantMap shorter = posted();
    shorter.insert(QStringLiteral("timeSpentSeconds"), 3540);
    EXPECT_EQ(status(compare({shorter})), QStringLiteral("Posted entry differs"));
    QVariantMap edited = posted();
    edited.insert(QStringLiteral("comment"), document(QStringLiteral("edited in Jira")));
    EXPECT_EQ(status(compare({edited})), QStringLiteral("Posted entry differs"));
    // The last marked worklog decides.
    EXPECT_EQ(status(compare({edited, posted()})), QStringLiteral("Already posted"));
    EXPECT_EQ(status(compare({posted(), edited})), QStringLiteral("Posted entry differs"));
}

TEST_F(Compare, MatchesInstantsWhateverOffsetJiraWrites)
{
    // Jira writes the start in the offset of the user's profile, not the local one.
    QVariantMap log = posted();
    const QDateTime inKolkata = m_start.toOffsetFromUtc(19800);
    log.insert(QStringLiteral("started"),
        QString(inKolkata.toString(QStringLiteral("yyyy-MM-dd'T'HH:mm:ss.zzz")) + QStringLiteral("+0530")));
    EXPECT_EQ(status(compare({log})), QStringLiteral("Already posted"));
}

TEST_F(Compare, RecognisesTagsOfBothNames)
{
    for (const QString &tag : {JRMarkerTag(m_marker), JRLegacyMarkerTag(m_marker)}) {
        QVariantMap log = JRPayloadWithTag(m_draft, tag);
        log.insert(QStringLiteral("author"), QVariantMap {{QStringLiteral("accountId"), kMe}});
        EXPECT_EQ(status(compare({log})), QStringLiteral("Already posted")) << tag.toStdString();
    }
    // Tagged before the title was known: the comment still held the description.
    QVariantMap titled = m_draft;
    titled.insert(QStringLiteral("issue_title"), QStringLiteral("Title"));
    QVariantMap log = JRPayloadWithTag(m_draft, JRMarkerTag(m_marker));
    log.insert(QStringLiteral("author"), QVariantMap {{QStringLiteral("accountId"), kMe}});
    EXPECT_EQ(status(JRCompare(titled, {log}, kMe, m_marker, {})), QStringLiteral("Already posted"));
    // Another draft's tag is no hit here, and its time is not hand-made time either.
    const QVariantMap foreign = worklog(kMe, JRISO(m_start), 600, QStringLiteral("x\n[Hourloom:other]"));
    const QVariantMap result = compare({foreign});
    EXPECT_EQ(status(result), QStringLiteral("Ready"));
    EXPECT_EQ(result.value(QStringLiteral("existing")).toLongLong(), 600);
}

TEST_F(Compare, CombinedWorklogNeedsTwoSessionsIncludingThisOne)
{
    const QString key = m_draft.value(QStringLiteral("source_key")).toString();
    const QVariantMap alone
        = withMarkerProperty(worklog(kMe, JRISO(m_start), 3600), QStringLiteral("m"), {{key, 3600}});
    EXPECT_EQ(status(compare({alone})), QStringLiteral("Ready"));
    const QVariantMap combined = withMarkerProperty(
        worklog(kMe, JRISO(m_start), 3600), QStringLiteral("m"), {{key, 1800}, {QStringLiteral("other"), 1800}});
    const QVariantMap result = compare({combined});
    EXPECT_EQ(status(result), QStringLiteral("Posted in a combined worklog"));
    EXPECT_FALSE(result.value(QStringLiteral("eligible")).toBool());
}

TEST_F(Compare, ManualTimeOnTheDayAsksForReview)
{
    const QVariantList logs {worklog(kMe, JRISO(m_start.addSecs(3600)), 1800, QStringLiteral("a")),
        worklog(kMe, JRISO(m_start.addSecs(7200)), 1800),
        worklog(QStringLiteral("someone-else"), JRISO(m_start), 7200, QStringLiteral("theirs")),
        worklog(kMe, JRISO(m_start.addDays(1)), 7200, QStringLiteral("tomorrow"))};
    const QVariantMap result = compare(logs);
    EXPECT_EQ(status(result), QStringLiteral("Existing time — review before including"));
    EXPECT_TRUE(result.value(QStringLiteral("eligible")).toBool());
    EXPECT_EQ(result.value(QStringLiteral("existing")).toLongLong(), 3600);

    const QVariantMap ready = compare({logs[2]});
    EXPECT_EQ(status(ready), QStringLiteral("Ready"));
    EXPECT_TRUE(ready.value(QStringLiteral("eligible")).toBool());
    EXPECT_EQ(ready.value(QStringLiteral("existing")).toLongLong(), 0);
}

TEST_F(Compare, DayAccountingUsesTheLocalDayOfEachInstant)
{
    testenv::ScopedTimeZone zone("Asia/Kolkata");
    m_start = QDateTime(QDate(2026, 3, 2), QTime(10, 0));
    SetUp();
    // 20:00 UTC on the 2nd is 01:30 on the 3rd in Kolkata: another day.
    const QVariantMap lateUtc = worklog(kMe, QStringLiteral("2026-03-02T20:00:00.000+0000"), 1800, QStringLiteral("x"));
    EXPECT_EQ(compare({lateUtc}).value(QStringLiteral("existing")).toLongLong(), 0);
    const QVariantMap earlyUtc
        = worklog(kMe, QStringLiteral("2026-03-01T19:00:00.000+0000"), 1800, QStringLiteral("x"));
    EXPECT_EQ(compare({earlyUtc}).value(QStringLiteral("existing")).toLongLong(), 1800);
}

TEST_F(Compare, ReceiptsBlockEligibility)
{
    const QVariantMap postedReceipt {{QStringLiteral("state"), QStringLiteral("posted")}};
    QVariantMap result = compare({}, postedReceipt);
    EXPECT_EQ(status(result), QStringLiteral("Previously posted — review changes"));
    EXPECT_FALSE(result.value(QStringLiteral("eligible")).toBool());
    EXPECT_EQ(result.value(QStringLiteral("existing")).toLongLong(), 0);

    result = compare({worklog(kMe, JRISO(m_start), 600, QStringLiteral("manual"))},
        {{QStringLiteral("state"), QStringLiteral("pending")}});
    EXPECT_EQ(status(result), QStringLiteral("Uncertain submission — review in Jira"));
    EXPECT_FALSE(result.value(QStringLiteral("eligible")).toBool());
    EXPECT_EQ(result.value(QStringLiteral("existing")).toLongLong(), 600);

    EXPECT_EQ(status(compare({posted()}, postedReceipt)), QStringLiteral("Already posted"));
}

TEST_F(Compare, ExcludedOrInvalidDraftsAreNotCompared)
{
    QVariantMap excluded = m_draft;
    excluded.insert(QStringLiteral("jira_exclusion"), QVariantMap {{QStringLiteral("kind"), QStringLiteral("ignore")}});
    QVariantMap result = JRCompare(excluded, {posted()}, kMe, m_marker, {});
    EXPECT_EQ(result,
        (QVariantMap {{QStringLiteral("status"), QStringLiteral("Ignored for Jira")},
            {QStringLiteral("eligible"), false}, {QStringLiteral("existing"), qint64(0)}}));

    QVariantMap empty = m_draft;
    empty.insert(QStringLiteral("post_seconds"), 0);
    EXPECT_EQ(status(JRCompare(empty, {posted()}, kMe, m_marker, {})),
        QStringLiteral("Assign issue / at least 1m, at most 24h"));
    JRSetIgnoreShortSessions(false);
    EXPECT_EQ(status(JRCompare(empty, {posted()}, kMe, m_marker, {})),
        QStringLiteral("Assign issue / rounds to 0m or over 24h"));
}

TEST_F(Compare, FingerprintChangesOnlyWithWhatIsPosted)
{
    const QString base = JRComparisonFingerprint(m_draft);
    QVariantMap same = m_draft;
    same.insert(QStringLiteral("status"), QStringLiteral("Ready"));
    same.insert(QStringLiteral("include"), true);
    same.insert(QStringLiteral("eligible"), true);
    EXPECT_EQ(JRComparisonFingerprint(same), base);
    const std::pair<const char *, QVariant> changes[] = {{"post_seconds", 1800}, {"issue", QStringLiteral("XYZ-1")},
        {"comment", QStringLiteral("other")}, {"source_running", true}, {"started", JRISO(m_start.addSecs(1))},
        {"jira_exclusion", QVariantMap {{QStringLiteral("kind"), QStringLiteral("manual")}}}};
    for (const auto &[key, value] : changes) {
        QVariantMap changed = m_draft;
        changed.insert(QString::fromLatin1(key), value);
        EXPECT_NE(JRComparisonFingerprint(changed), base) << key;
    }
}

class ManualMatches : public Compare
{
};

TEST_F(ManualMatches, RanksHandMadeWorklogsOfTheDay)
{
    const QString comment = m_draft.value(QStringLiteral("comment")).toString(); // "Work"
    const QVariantList logs {
        worklog(kMe, JRISO(m_start.addSecs(600)), 3600, QStringLiteral("Other"), QStringLiteral("1")),
        worklog(kMe, JRISO(m_start.addSecs(300)), 3600, QStringLiteral("Other"), QStringLiteral("2")),
        worklog(kMe, JRISO(m_start), 60, QStringLiteral("WORK"), QStringLiteral("3")),
        worklog(kMe, JRISO(m_start), 3600, QStringLiteral("wOrK"), QStringLiteral("4")),
        worklog(kMe, JRISO(m_start), 120, QStringLiteral("Work\n\n"), QStringLiteral("5")),
        worklog(QStringLiteral("other"), JRISO(m_start), 3600, comment, QStringLiteral("6")),
        withMarkerProperty(worklog(kMe, JRISO(m_start), 3600, comment, QStringLiteral("7")), QStringLiteral("m")),
        worklog(kMe, JRISO(m_start), 3600, QStringLiteral("Work\n[Hourloom:abc]"), QStringLiteral("8")),
        worklog(kMe, JRISO(m_start.addDays(1)), 3600, comment, QStringLiteral("9")),
        worklog(kMe, JRISO(m_start), 3600, comment, QString()),
    };
    const QVariantList matches = JRManualMatches(m_draft, logs, kMe);
    QStringList ids;
    for (const QVariant &match : matches)
        ids << match.toMap().value(QStringLiteral("id")).toString();
    EXPECT_EQ(ids,
        (QStringList {
            QStringLiteral("4"), QStringLiteral("2"), QStringLiteral("1"), QStringLiteral("3"), QStringLiteral("5")}));
    const QVariantMap best = matches.value(0).toMap();
    EXPECT_EQ(best.value(QStringLiteral("score")).toInt(), 3);
    EXPECT_EQ(best.value(QStringLiteral("reason")), QStringLiteral("Same duration and comment"));
    EXPECT_EQ(best.value(QStringLiteral("comment")), QStringLiteral("wOrK"));
    EXPECT_EQ(best.value(QStringLiteral("seconds")).toLongLong(), 3600);
    EXPECT_EQ(best.size(), 6);
    EXPECT_EQ(matches.value(1).toMap().value(QStringLiteral("reason")), QStringLiteral("Same duration"));
    EXPECT_EQ(matches.value(3).toMap().value(QStringLiteral("reason")), QStringLiteral("Same comment"));
    EXPECT_EQ(matches.value(4).toMap().value(QStringLiteral("reason")),
        QStringLiteral("Same issue and day — verify coverage"));

    // The worklog already linked is not offered again.
    QVariantMap linked = m_draft;
    linked.insert(QStringLiteral("manual_worklog_id"), QStringLiteral("4"));
    EXPECT_EQ(JRManualMatches(linked, logs, kMe).size(), 4);
}

TEST_F(ManualMatches, BlankCommentsNeverMatch)
{
    QVariantMap blank = m_draft;
    blank.insert(QStringLiteral("comment"), QStringLiteral("  "));
    const QVariantList matches = JRManualMatches(blank, {worklog(kMe, JRISO(m_start), 60, QStringLiteral("  "))}, kMe);
    ASSERT_EQ(matches.size(), 1);
    EXPECT_EQ(matches.first().toMap().value(QStringLiteral("score")).toInt(), 0);
    QVariantMap undated = m_draft;
    undated.insert(QStringLiteral("started"), QStringLiteral("soon"));
    EXPECT_TRUE(JRManualMatches(undated, {worklog(kMe, JRISO(m_start), 60)}, kMe).isEmpty());
}

} // namespace
