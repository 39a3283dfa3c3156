#include "worklogs/drafts.h"

#include "support/testenv.h"
#include "worklogbuilders.h"
#include "worklogs/durations.h"
#include "worklogs/preferences.h"
#include "worklogs/text.h"

using namespace wl;

namespace
{

const QVariantMap kIgnored = rec({{"kind", S("ignore")}});
QVariantMap manual(const QVariant &seconds = {})
{
    return rec({{"kind", S("manual")}, {"issue", S("ABC-1")}, {"worklog_id", S("10001")}, {"seconds", seconds}});
}

class Drafts : public EngineTest
{
protected:
    QDateTime m_day = local(2026, 3, 2, 12, 0);
    QDateTime at(int hour, int minute, int second = 0) const { return local(2026, 3, 2, hour, minute, second); }
    QVariantList build(const QVariantList &sessions) const { return JRBuildDrafts(sessions, m_day); }
    QVariantMap only(const QVariantMap &session) const
    {
        const QVariantList drafts = build({session});
        EXPECT_EQ(drafts.size(), 1);
        return wl::at(drafts, 0);
    }
};

TEST_F(Drafts, BuildsOneSortedDraftPerSessionOfTheLocalDay)
{
    const QVariantMap s = session(at(9, 0), 3600000);
    const QVariantList drafts = build({s, session(at(23, 59, 30), 600000, "ABC-1", "late", 2),
        session(local(2026, 3, 3, 0, 0), 600000, "ABC-1", "next day", 3),
        session(at(0, 0), 600000, "ABC-1", "early", 4)});
    ASSERT_EQ(drafts.size(), 3);
    EXPECT_EQ(str(wl::at(drafts, 0), "comment"), S("early"));
    EXPECT_EQ(str(wl::at(drafts, 2), "comment"), S("late"));
    const QVariantMap d = wl::at(drafts, 1);
    EXPECT_EQ(d.size(), 24);
    EXPECT_EQ(str(d, "marker_seed"), JRSourceKey(s) + S("|0|ABC-1"));
    EXPECT_EQ(num(d, "post_seconds"), 3600);
    EXPECT_EQ(JRDate(get(d, "started")), at(9, 0));
    EXPECT_EQ(str(d, "status"), S("Not checked yet"));
    EXPECT_TRUE(JRValid(d));
}

TEST_F(Drafts, RoundsToMinutesAndKeepsShortPiecesOnlyAsFragments)
{
    EXPECT_EQ(num(only(session(at(9, 0), 89000)), "seconds"), 60);
    EXPECT_EQ(num(only(session(at(9, 0), 90000)), "seconds"), 120);
    EXPECT_TRUE(build({session(at(9, 0), 59999)}).isEmpty());
    const QVariantList pair
        = build({session(at(9, 0), 59999, "ABC-1", "a", 1), session(at(10, 0), 600000, "ABC-1", "b", 2)});
    ASSERT_EQ(pair.size(), 2);
    EXPECT_EQ(get(wl::at(pair, 0), "fragment"), true);
    EXPECT_EQ(num(wl::at(pair, 0), "seconds"), 59);
    EXPECT_TRUE(JRValid(wl::at(pair, 0)));
    // An ignored session cannot make another piece of its group a fragment.
    const QVariantList ignored = build(
        {with(session(at(10, 0), 600000, "ABC-1", "b", 2), {{"jira_exclusion", kIgnored}}), session(at(9, 0), 59999)});
    ASSERT_EQ(ignored.size(), 1);
    EXPECT_EQ(str(wl::at(ignored, 0), "status"), S("Ignored for Jira"));
    // A fragment that is in Jira at all is wholly in Jira: its rest is never posted again.
    const QVariantMap partly
        = wl::at(build({with(session(at(9, 0), 40000, "ABC-1", "a", 1), {{"jira_logged_seconds", 20}}),
                     session(at(10, 0), 600000, "ABC-1", "b", 2)}),
            0);
    EXPECT_EQ(num(partly, "logged_seconds"), 40);
    EXPECT_EQ(num(partly, "post_seconds"), 0);
    EXPECT_EQ(str(partly, "status"), S("Complete"));
    JRSetCombineDailyByIssue(false);
    EXPECT_EQ(
        build({session(at(9, 0), 59999, "ABC-1", "a", 1), session(at(10, 0), 600000, "ABC-1", "b", 2)}).size(), 1);

    JRSetIgnoreShortSessions(false);
    const QVariantList shorts
        = build({session(at(9, 0), -5000, "ABC-1", "open", 1), session(at(9, 2), 20000, "ABC-1", "s", 2)});
    ASSERT_EQ(shorts.size(), 2);
    EXPECT_EQ(num(wl::at(shorts, 0), "source_milliseconds"), 0);
    EXPECT_FALSE(JRValid(wl::at(shorts, 1))); // 20 s rounds to 0m
}

TEST_F(Drafts, OnlyTimeNotYetInJiraRemains)
{
    const QVariantMap s = with(session(at(9, 0), 3600000), {{"jira_logged_seconds", 1800}});
    QVariantMap d = only(s);
    EXPECT_EQ(num(d, "logged_seconds"), 1800);
    EXPECT_EQ(num(d, "post_seconds"), 1800);
    EXPECT_EQ(str(d, "marker_seed").section(u'|', 1, 1), S("1800"));
    EXPECT_EQ(str(only(with(s, {{"source_running", true}})), "status"), S("Tracking / not finalized"));
    EXPECT_EQ(str(only(with(s, {{"jira_logged_seconds", 99999}})), "status"), S("Complete"));
    // A damaged negative value never inflates what is posted.
    EXPECT_EQ(num(only(with(s, {{"jira_logged_seconds", -600}})), "post_seconds"), 3600);

    d = only(with(s, {{"jira_logged_seconds", QVariant()}, {"jira_exclusion", manual()}}));
    EXPECT_EQ(num(d, "remaining_seconds"), 0);
    EXPECT_EQ(str(d, "status"), S("Complete"));
    EXPECT_EQ(get(d, "jira_exclusion").toMap(), manual());
    d = only(with(s, {{"jira_logged_seconds", QVariant()}, {"jira_exclusion", manual(600)}}));
    EXPECT_EQ(num(d, "remaining_seconds"), 3000);
    EXPECT_TRUE(get(d, "jira_exclusion").toMap().isEmpty());
    EXPECT_EQ(str(d, "manual_worklog_id"), S("10001"));

    d = only(with(s, {{"jira_exclusion", kIgnored}}));
    EXPECT_EQ(num(d, "post_seconds"), 0);
    EXPECT_EQ(str(d, "status"), S("Ignored for Jira"));
    EXPECT_EQ(str(only(with(s, {{"jira_exclusion", kIgnored}, {"jira_receipt_state", S("pending")}})), "status"),
        S("Submission uncertain"));
}

TEST_F(Drafts, CommentAndIssueFollowTheSession)
{
    const QVariantMap s = session(at(9, 0), 3600000);
    EXPECT_EQ(get(only(with(s, {{"comment", S("")}})), "comment"), S(""));
    const QVariantMap titled = with(s, {{"issue_title", S("Login fails")}});
    EXPECT_EQ(get(only(titled), "comment"), S(""));
    EXPECT_EQ(get(only(with(titled, {{"comment", S("mine")}, {"comment_custom", true}})), "comment"), S("mine"));
    EXPECT_EQ(get(only(with(titled, {{"assignment", S("Description rule")}})), "comment"), S("Work"));

    const QVariantMap unassigned = only(session(at(9, 0), 3600000, "Unassigned"));
    EXPECT_EQ(get(unassigned, "issue"), S(""));
    EXPECT_FALSE(JRValid(unassigned));
    EXPECT_TRUE(JRCombineKey(unassigned).isNull());

    // The source key names the session, not its content; the server id wins once there is one.
    const QString startMs = QString::number(at(9, 0).toMSecsSinceEpoch());
    EXPECT_EQ(
        JRSourceKey(with(s, {{"end_ms", 1}, {"issue", S("X-2")}})), JRHash(S("user_activity|7|local:1|") + startMs));
    EXPECT_EQ(
        JRSourceKey(with(s, {{"api_id", 555}, {"local_id", 9}})), JRHash(S("user_activity|7|api:555|") + startMs));
}

TEST_F(Drafts, CombineKeysFollowTheDailyPreferenceAndRules)
{
    const auto ruled = [&](int id, const char *description, bool daily) {
        return with(session(at(9 + id, 0), 600000, "ABC-1", description, id),
            {{"assignment", S("Description rule")}, {"aggregate_description", S(description).toLower()},
                {"aggregate_daily", daily}});
    };
    const QVariantList sessions {ruled(1, "Review", false), ruled(2, "Review", false), ruled(3, "Deploy", true),
        session(at(13, 0), 600000, "ABC-1", "x", 4)};
    QVariantList drafts = build(sessions);
    const QString day = QString::number(local(2026, 3, 2, 0, 0).toSecsSinceEpoch());
    EXPECT_EQ(JRCombineKey(wl::at(drafts, 0)), S("ABC-1|review|") + day);
    EXPECT_EQ(JRCombineKey(wl::at(drafts, 1)), JRCombineKey(wl::at(drafts, 0)));
    EXPECT_EQ(JRCombineKey(wl::at(drafts, 3)), S("ABC-1|") + day);
    JRSetCombineDailyByIssue(false);
    drafts = build(sessions);
    EXPECT_TRUE(JRCombineKey(wl::at(drafts, 0)).isNull());
    EXPECT_EQ(JRCombineKey(wl::at(drafts, 2)), S("ABC-1|deploy|") + day);
    EXPECT_TRUE(JRCombineKey(wl::at(drafts, 3)).isNull());
    EXPECT_TRUE(JRCombineKey(with(wl::at(drafts, 2), {{"source_running", true}})).isNull());
    EXPECT_TRUE(JRCombineKey(with(wl::at(drafts, 2), {{"jira_exclusion", kIgnored}})).isNull());
}

TEST_F(Drafts, ClockChangeNightsAndHalfHourZonesUseTheLocalDay)
{
    {
        testenv::ScopedTimeZone zone("Europe/Berlin");
        for (const QDate day : {QDate(2026, 3, 29), QDate(2026, 10, 25)}) {
            const QVariantList drafts
                = JRBuildDrafts({session(QDateTime(day, QTime(0, 30)), 3 * 3600000, "ABC-1", "a", 1),
                                    session(QDateTime(day, QTime(23, 30)), 1800000, "ABC-1", "b", 2),
                                    session(QDateTime(day.addDays(-1), QTime(23, 59)), 600000, "ABC-1", "c", 3)},
                    QDateTime(day, QTime(12, 0)));
            ASSERT_EQ(drafts.size(), 2);
            EXPECT_EQ(str(wl::at(drafts, 0), "started"),
                day.toString(Qt::ISODate) + (day.month() == 3 ? S("T00:30:00.000+0100") : S("T00:30:00.000+0200")));
            EXPECT_EQ(JRCombineKey(wl::at(drafts, 0)), JRCombineKey(wl::at(drafts, 1)));
            EXPECT_EQ(JRCombineKey(wl::at(drafts, 0)).section(u'|', -1).toLongLong(),
                QDateTime(day, QTime(0, 0)).toSecsSinceEpoch());
        }
    }
    testenv::ScopedTimeZone zone("Asia/Kolkata");
    // 00:10 in Kolkata is still the previous day in UTC.
    const QVariantMap s = session(QDateTime(QDate(2026, 3, 1), QTime(18, 40), Qt::UTC), 600000);
    EXPECT_EQ(str(wl::at(JRBuildDrafts({s}, QDateTime(QDate(2026, 3, 2), QTime(12, 0))), 0), "started"),
        S("2026-03-02T00:10:00.000+0530"));
    EXPECT_TRUE(JRBuildDrafts({s}, QDateTime(QDate(2026, 3, 1), QTime(12, 0))).isEmpty());
}

TEST(ExclusionStatus, NamesTheManualWorklog)
{
    EXPECT_EQ(JRExclusionStatus({}), S(""));
    EXPECT_EQ(JRExclusionStatus(manual()), S("Manually logged · ABC-1 / worklog 10001"));
    EXPECT_EQ(JRExclusionStatus(rec({{"kind", S("odd")}})), S("Ignored for Jira"));
}

struct ValidCase {
    const char *name;
    QVariantMap changes;
    bool ignoreShort;
    bool valid;
};
void PrintTo(const ValidCase &c, std::ostream *os)
{
    *os << c.name;
}
class Validity : public EngineTest, public ::testing::WithParamInterface<ValidCase>
{
};
TEST_P(Validity, NeedsKeySecondsWithinADayAndADate)
{
    JRSetIgnoreShortSessions(GetParam().ignoreShort);
    QVariantMap draft = rec({{"issue", S("ABC-1")}, {"post_seconds", 600}, {"seconds", 600},
        {"started", S("2026-03-02T09:00:00.000+0100")}});
    for (auto it = GetParam().changes.constBegin(); it != GetParam().changes.constEnd(); ++it) {
        if (it.value().isValid())
            draft.insert(it.key(), it.value());
        else
            draft.remove(it.key());
    }
    EXPECT_EQ(JRValid(draft), GetParam().valid);
}
INSTANTIATE_TEST_SUITE_P(Table, Validity,
    ::testing::Values(ValidCase {"full day", rec({{"post_seconds", 86400}}), true, true},
        ValidCase {"over a day", rec({{"post_seconds", 86401}}), true, false},
        ValidCase {"negative", rec({{"post_seconds", -60}}), true, false},
        ValidCase {"fraction", rec({{"post_seconds", 600.5}}), true, false},
        ValidCase {"digit text", rec({{"post_seconds", S("600")}}), true, true},
        ValidCase {"signed text", rec({{"post_seconds", S("+600")}}), true, false},
        ValidCase {"huge", rec({{"post_seconds", S("99999999999999999999999")}}), true, false},
        ValidCase {"seconds when no post", {{S("post_seconds"), QVariant()}, {S("seconds"), 120}}, true, true},
        ValidCase {"under a minute", rec({{"post_seconds", 59}}), true, false},
        ValidCase {"under a minute allowed", rec({{"post_seconds", 59}}), false, true},
        ValidCase {"zero allowed", rec({{"post_seconds", 0}}), false, false},
        ValidCase {"fragment", rec({{"post_seconds", 1}, {"fragment", true}}), true, true},
        ValidCase {"lower-case key", rec({{"issue", S("abc-1")}}), true, false},
        ValidCase {"key with line end", rec({{"issue", S("ABC-1\n")}}), true, false},
        ValidCase {"bad date", rec({{"started", S("2026-03-02")}}), true, false}));

} // namespace
