#include "worklogs/compare.h"

#include "support/testenv.h"
#include "worklogbuilders.h"
#include "worklogs/drafts.h"
#include "worklogs/durations.h"
#include "worklogs/manualmatches.h"
#include "worklogs/marker.h"
#include "worklogs/preferences.h"
#include "worklogs/text.h"

using namespace wl;

namespace
{

const QString kMe = S("me-123");

class Compare : public EngineTest
{
protected:
    void SetUp() override
    {
        EngineTest::SetUp();
        m_draft = at(JRBuildDrafts({session(m_start, 3600000)}, m_start), 0);
        m_marker = JRMarker(m_draft, S("cloud-1"), kMe);
    }
    // The worklog Jira lists after this draft was posted.
    QVariantMap posted(qint64 shiftMs = 0) const
    {
        return with(JRPayload(m_draft, m_marker),
            {{"id", S("20001")}, {"author", rec({{"accountId", kMe}})}, {"started", JRISO(m_start.addMSecs(shiftMs))}});
    }
    QVariantMap compare(const QVariantList &logs, const QVariantMap &receipt = {}) const
    {
        return JRCompare(m_draft, logs, kMe, m_marker, receipt);
    }
    QString status(const QVariantList &logs, const QVariantMap &receipt = {}) const
    {
        return str(compare(logs, receipt), "status");
    }
    QVariantMap expected(const char *status, bool eligible, qint64 existing) const
    {
        return rec({{"status", S(status)}, {"eligible", eligible}, {"existing", existing}});
    }

    QDateTime m_start = local(2026, 3, 2, 9, 0);
    QVariantMap m_draft;
    QString m_marker;
};

TEST_F(Compare, RecognisesItsOwnWorklogWithinOneSecond)
{
    EXPECT_EQ(compare({posted(900)}), expected("Already posted", false, 3600));
    EXPECT_EQ(status({posted(-999)}), S("Already posted"));
    EXPECT_EQ(status({posted(1000)}), S("Posted entry differs"));
    EXPECT_EQ(status({with(posted(), {{"timeSpentSeconds", 3540}})}), S("Posted entry differs"));
    const QVariantMap edited = with(posted(), {{"comment", document(S("edited in Jira"))}});
    EXPECT_EQ(status({edited}), S("Posted entry differs"));
    // The last marked worklog decides.
    EXPECT_EQ(status({edited, posted()}), S("Already posted"));
    EXPECT_EQ(status({posted(), edited}), S("Posted entry differs"));
    // The same list changed in place between two calls is read afresh.
    QVariantList logs {posted()};
    EXPECT_EQ(status(logs), S("Already posted"));
    logs[0] = edited;
    EXPECT_EQ(status(logs), S("Posted entry differs"));
    // Jira writes the start in the offset of the user's profile: instants are compared, not texts.
    const QString inKolkata = m_start.toOffsetFromUtc(19800).toString(S("yyyy-MM-dd'T'HH:mm:ss.zzz")) + S("+0530");
    EXPECT_EQ(status({with(posted(), {{"started", inKolkata}})}), S("Already posted"));
    // A receipt does not hide what Jira shows.
    EXPECT_EQ(status({posted()}, rec({{"state", S("posted")}})), S("Already posted"));
}

TEST_F(Compare, RecognisesTagsOfBothNames)
{
    const auto tagged = [&](const QVariantMap &draft, const QString &tag) {
        return with(JRPayloadWithTag(draft, tag), {{"author", rec({{"accountId", kMe}})}});
    };
    for (const QString &tag : {JRMarkerTag(m_marker), JRLegacyMarkerTag(m_marker)})
        EXPECT_EQ(status({tagged(m_draft, tag)}), S("Already posted")) << tag.toStdString();
    // Tagged before the title was known, when the comment still held the description.
    EXPECT_EQ(str(JRCompare(with(m_draft, {{"issue_title", S("Title")}}), {tagged(m_draft, JRMarkerTag(m_marker))}, kMe,
                      m_marker, {}),
                  "status"),
        S("Already posted"));
    // Another draft's tag is no hit here, and its time is not hand-made either.
    EXPECT_EQ(compare({worklog(kMe, JRISO(m_start), 600, S("x\n[Hourloom:other]"))}), expected("Ready", true, 600));
}

TEST_F(Compare, CombinedWorklogNeedsTwoSessionsIncludingThisOne)
{
    const QString key = str(m_draft, "source_key");
    const QVariantMap log = worklog(kMe, JRISO(m_start), 3600);
    EXPECT_EQ(status({withMarkerProperty(log, S("m"), QVariantMap {{key, 3600}})}), S("Ready"));
    EXPECT_EQ(compare({withMarkerProperty(log, S("m"), QVariantMap {{key, 1800}, {S("other"), 1800}})}),
        expected("Posted in a combined worklog", false, 3600));
}

// The draft's own marked worklog outranks a combined one, and both outrank a receipt.
TEST_F(Compare, MarkedBeatsCombinedBeatsReceipt)
{
    const QString key = str(m_draft, "source_key");
    const QVariantMap combined = withMarkerProperty(
        worklog(kMe, JRISO(m_start), 3600, S("x"), S("30001")), S("m"), QVariantMap {{key, 1800}, {S("other"), 1800}});
    EXPECT_EQ(status({combined, posted()}), S("Already posted"));
    EXPECT_EQ(status({posted(5000), combined}), S("Posted entry differs"));
    EXPECT_EQ(
        compare({combined}, rec({{"state", S("pending")}})), expected("Posted in a combined worklog", false, 3600));
}

TEST_F(Compare, ManualTimeOnTheDayAsksForReview)
{
    const QVariantList logs {worklog(kMe, JRISO(m_start.addSecs(3600)), 1800, S("a")),
        worklog(kMe, JRISO(m_start.addSecs(7200)), 1800), worklog(S("someone-else"), JRISO(m_start), 7200, S("theirs")),
        worklog(kMe, JRISO(m_start.addDays(1)), 7200, S("tomorrow"))};
    EXPECT_EQ(compare(logs), expected("Existing time — review before including", true, 3600));
    EXPECT_EQ(compare({logs[2], logs[3]}), expected("Ready", true, 0));
    EXPECT_EQ(compare({}, rec({{"state", S("posted")}})), expected("Previously posted — review changes", false, 0));
    EXPECT_EQ(compare({logs[0]}, rec({{"state", S("pending")}})),
        expected("Uncertain submission — review in Jira", false, 1800));
}

TEST_F(Compare, DayAccountingUsesTheLocalDayOfEachInstant)
{
    testenv::ScopedTimeZone zone("Asia/Kolkata");
    m_start = QDateTime(QDate(2026, 3, 2), QTime(10, 0));
    SetUp();
    // 20:00 UTC on the 2nd is 01:30 on the 3rd in Kolkata; 19:00 UTC on the 1st is 00:30 on the 2nd.
    EXPECT_EQ(num(compare({worklog(kMe, S("2026-03-02T20:00:00.000+0000"), 1800, S("x"))}), "existing"), 0);
    EXPECT_EQ(num(compare({worklog(kMe, S("2026-03-01T19:00:00.000+0000"), 1800, S("x"))}), "existing"), 1800);
}

TEST_F(Compare, ExcludedOrInvalidDraftsAreNotCompared)
{
    EXPECT_EQ(
        JRCompare(with(m_draft, {{"jira_exclusion", rec({{"kind", S("ignore")}})}}), {posted()}, kMe, m_marker, {}),
        expected("Ignored for Jira", false, 0));
    const QVariantMap empty = with(m_draft, {{"post_seconds", 0}});
    EXPECT_EQ(
        JRCompare(empty, {posted()}, kMe, m_marker, {}), expected("Assign issue / at least 1m, at most 24h", false, 0));
    JRSetIgnoreShortSessions(false);
    EXPECT_EQ(
        str(JRCompare(empty, {posted()}, kMe, m_marker, {}), "status"), S("Assign issue / rounds to 0m or over 24h"));
}

TEST_F(Compare, FingerprintChangesOnlyWithWhatIsPosted)
{
    const QString base = JRComparisonFingerprint(m_draft);
    EXPECT_EQ(
        JRComparisonFingerprint(with(m_draft, {{"status", S("Ready")}, {"include", true}, {"eligible", true}})), base);
    for (const auto &change : std::initializer_list<std::pair<const char *, QVariant>> {{"source_key", S("other")},
             {"marker_seed", S("other")}, {"post_seconds", 1800}, {"issue", S("XYZ-1")}, {"comment", S("other")},
             {"source_running", true}, {"started", JRISO(m_start.addSecs(1))},
             {"jira_exclusion", rec({{"kind", S("manual")}})}})
        EXPECT_NE(JRComparisonFingerprint(with(m_draft, {change})), base) << change.first;
}

TEST_F(Compare, ManualMatchesRankHandMadeWorklogsOfTheDay)
{
    const QVariantList logs {worklog(kMe, JRISO(m_start.addSecs(600)), 3600, S("Other"), S("1")),
        worklog(kMe, JRISO(m_start.addSecs(300)), 3600, S("Other"), S("2")),
        worklog(kMe, JRISO(m_start), 60, S("WORK"), S("3")), worklog(kMe, JRISO(m_start), 3600, S("wOrK"), S("4")),
        worklog(kMe, JRISO(m_start), 120, S("Work\n\n"), S("5")), worklog(kMe, JRISO(m_start), 60, S("  "), S("6")),
        worklog(S("other"), JRISO(m_start), 3600, S("Work"), S("7")),
        withMarkerProperty(worklog(kMe, JRISO(m_start), 3600, S("Work"), S("8")), S("m")),
        worklog(kMe, JRISO(m_start), 3600, S("Work\n[Hourloom:abc]"), S("9")),
        worklog(kMe, JRISO(m_start.addDays(1)), 3600, S("Work"), S("10")),
        worklog(kMe, JRISO(m_start), 3600, S("Work"), QString())};
    const QVariantList matches = JRManualMatches(m_draft, logs, kMe);
    QStringList ids, reasons;
    for (const QVariant &match : matches) {
        ids << str(match.toMap(), "id");
        reasons << str(match.toMap(), "reason");
    }
    EXPECT_EQ(ids, (QStringList {S("4"), S("2"), S("1"), S("3"), S("5"), S("6")}));
    EXPECT_EQ(reasons.mid(0, 5),
        (QStringList {S("Same duration and comment"), S("Same duration"), S("Same duration"), S("Same comment"),
            S("Same issue and day — verify coverage")}));
    EXPECT_EQ(at(matches, 0),
        rec({{"id", S("4")}, {"started", JRISO(m_start)}, {"seconds", qint64(3600)}, {"comment", S("wOrK")},
            {"score", 3}, {"reason", S("Same duration and comment")}}));
    // The worklog already linked is not offered again; a blank draft comment matches no blank comment.
    EXPECT_EQ(JRManualMatches(with(m_draft, {{"manual_worklog_id", S("4")}}), logs, kMe).size(), 5);
    EXPECT_EQ(num(at(JRManualMatches(with(m_draft, {{"comment", S("  ")}}), {logs[5]}, kMe), 0), "score"), 0);
    EXPECT_TRUE(JRManualMatches(with(m_draft, {{"started", S("soon")}}), logs, kMe).isEmpty());
}

} // namespace
