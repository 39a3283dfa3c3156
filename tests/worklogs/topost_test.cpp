#include "worklogs/topost.h"

#include "support/testenv.h"
#include "worklogbuilders.h"
#include "worklogs/drafts.h"
#include "worklogs/durations.h"
#include "worklogs/marker.h"
#include "worklogs/preferences.h"
#include "worklogs/text.h"

#include <QRandomGenerator>

using namespace wl;

namespace
{

class ToPost : public EngineTest
{
protected:
    QDateTime at(int hour, int minute, int second = 0) const { return local(2026, 3, 2, hour, minute, second); }
    QVariantList build(const QVariantList &sessions) const { return JRBuildDrafts(sessions, at(12, 0)); }
    QVariantMap fragment(int minute, qint64 seconds, int id) const
    {
        const QVariantMap draft = wl::at(build({session(at(9, minute), 600000, "ABC-1", "f", id)}), 0);
        return with(draft, {{"fragment", true}, {"seconds", seconds}, {"post_seconds", seconds}});
    }
};

TEST_F(ToPost, CombinesADaysSessionsOfOneIssueIntoOneWorklog)
{
    const QVariantList drafts = build({session(at(11, 0), 1200000, "ABC-1", "c", 3),
        session(at(9, 0), 1200000, "ABC-1", "a", 1), session(at(10, 0), 1200000, "ABC-1", "b", 2)});
    const QVariantList out = JRWorklogsToPost(drafts);
    ASSERT_EQ(out.size(), 1);
    const QVariantMap combined = wl::at(out, 0);
    QStringList keys;
    for (const QVariant &draft : drafts)
        keys << str(draft.toMap(), "source_key");
    EXPECT_EQ(JRPostSeconds(combined), 3600);
    EXPECT_EQ(num(combined, "combined_count"), 3);
    EXPECT_EQ(get(combined, "started"), get(wl::at(drafts, 0), "started"));
    EXPECT_EQ(get(combined, "comment"), S("a"));
    EXPECT_EQ(get(combined, "source_keys").toStringList(), keys);
    EXPECT_EQ(str(combined, "marker_seed"), JRHash(keys.join(u'|')) + S("|0|ABC-1"));
    EXPECT_EQ(JRCoverage(combined),
        (QVariantMap {{keys[0], qint64(1200)}, {keys[1], qint64(1200)}, {keys[2], qint64(1200)}}));
    EXPECT_TRUE(JRValid(combined));
    // Each session's identity is listed once, whether it comes from the combined row or its own.
    EXPECT_EQ(JRSourceKeysForRows({combined, drafts[1], drafts[0]}), QStringList {str(combined, "source_key")} + keys);
}

// The marker of a combined worklog must change when any of its sessions gains time in Jira, so its seed holds
// the whole group's logged seconds, not those of the first session alone.
TEST_F(ToPost, CombinedDraftSumsEveryDraftsTimeAndMatches)
{
    QVariantList drafts = build({session(at(9, 0), 1200000, "ABC-1", "a", 1),
        with(session(at(10, 0), 1200000, "ABC-1", "b", 2), {{"jira_logged_seconds", 300}}),
        with(session(at(11, 0), 1200000, "ABC-1", "c", 3), {{"jira_logged_seconds", 600}})});
    ASSERT_EQ(drafts.size(), 3);
    drafts[0] = with(wl::at(drafts, 0), {{"manual_matches", QVariantList {S("m1")}}});
    drafts[2] = with(wl::at(drafts, 2), {{"manual_matches", QVariantList {S("m2"), S("m3")}}});
    const QVariantList out = JRWorklogsToPost(drafts);
    ASSERT_EQ(out.size(), 1);
    const QVariantMap combined = wl::at(out, 0);
    EXPECT_EQ(num(combined, "seconds"), 3600);
    EXPECT_EQ(num(combined, "logged_seconds"), 900);
    EXPECT_EQ(num(combined, "remaining_seconds"), 2700);
    EXPECT_EQ(JRPostSeconds(combined), 2700);
    EXPECT_EQ(str(combined, "marker_seed").section(u'|', 1), S("900|ABC-1"));
    EXPECT_EQ(get(combined, "manual_matches").toList(), (QVariantList {S("m1"), S("m2"), S("m3")}));
    EXPECT_EQ(get(combined, "source_amounts").toList(), (QVariantList {qint64(1200), qint64(900), qint64(600)}));
}

TEST_F(ToPost, FragmentsCountOnlyTogether)
{
    ASSERT_EQ(JRWorklogsToPost({fragment(0, 40, 1), fragment(5, 40, 2)}).size(), 1);
    EXPECT_EQ(JRPostSeconds(wl::at(JRWorklogsToPost({fragment(0, 40, 1), fragment(5, 40, 2)}), 0)), 60);
    EXPECT_TRUE(JRWorklogsToPost({fragment(0, 20, 1)}).isEmpty());
    EXPECT_TRUE(JRWorklogsToPost({fragment(0, 10, 1), fragment(5, 10, 2)}).isEmpty());
}

TEST_F(ToPost, KeepsASharedCustomCommentOnly)
{
    QVariantList sessions;
    for (int i = 1; i <= 2; ++i)
        sessions << with(session(at(8 + i, 0), 600000, "ABC-1", i == 1 ? "desc 1" : "desc 2", i),
            {{"comment", S("shared")}, {"comment_custom", true}});
    QVariantMap combined = wl::at(JRWorklogsToPost(build(sessions)), 0);
    EXPECT_EQ(get(combined, "comment"), S("shared"));
    EXPECT_EQ(get(combined, "comment_custom"), true);
    sessions[1] = with(sessions[1].toMap(), {{"comment_custom", false}});
    combined = wl::at(JRWorklogsToPost(build(sessions)), 0);
    EXPECT_EQ(get(combined, "comment"), S("desc 1"));
    EXPECT_EQ(get(combined, "comment_custom"), false);
}

TEST_F(ToPost, GroupsKeepTheOrderOfTheirFirstDraft)
{
    const QVariantList sessions {session(at(9, 0), 600000, "B-1", "x", 1), session(at(10, 0), 600000, "ABC-1", "y", 2),
        session(at(11, 0), 600000, "B-1", "z", 3), session(at(12, 0), 600000, "Unassigned", "w", 4)};
    const QVariantList out = JRWorklogsToPost(build(sessions));
    ASSERT_EQ(out.size(), 3);
    EXPECT_EQ(num(wl::at(out, 0), "combined_count"), 2);
    EXPECT_EQ(get(wl::at(out, 1), "issue"), S("ABC-1"));
    EXPECT_EQ(get(wl::at(out, 2), "issue"), S(""));
    JRSetCombineDailyByIssue(false);
    EXPECT_EQ(JRWorklogsToPost(build(sessions)), build(sessions));
}

TEST_F(ToPost, DayWindowAddsAnHourOnBothSides)
{
    QDateTime from, to;
    JRDayWindow({rec({{"started", JRISO(at(23, 50))}}), S("junk"), rec({{"started", S("bad")}}),
                    rec({{"started", JRISO(at(0, 10))}})},
        from, to);
    EXPECT_EQ(from, local(2026, 3, 1, 23, 0));
    EXPECT_EQ(to, local(2026, 3, 3, 1, 0));
    JRDayWindow({QVariantMap {}}, from, to);
    EXPECT_FALSE(from.isValid() || to.isValid());

    testenv::ScopedTimeZone zone("Europe/Berlin");
    JRDayWindow(
        {rec({{"started", S("2026-03-29T00:30:00.000+0100")}}), rec({{"started", S("2026-03-29T23:30:00.000+0200")}})},
        from, to);
    EXPECT_EQ(JRISO(from), S("2026-03-28T23:00:00.000+0100"));
    EXPECT_EQ(JRISO(to), S("2026-03-30T01:00:00.000+0200"));
    EXPECT_EQ(from.secsTo(to), 25 * 3600); // a 23-hour day plus the margins
}

// Over many generated days: no fragment is posted on its own, no combined worklog is under a minute, no
// session is posted twice, and no session with a postable minute is lost.
TEST_F(ToPost, InvariantsOverGeneratedDays)
{
    QRandomGenerator random(4242);
    const char *issues[] = {"ABC-1", "B-2", "Unassigned"};
    const char *descriptions[] = {"review", "deploy", "call"};
    for (int run = 0; run < 400; ++run) {
        JRSetCombineDailyByIssue(random.bounded(2) == 0);
        JRSetIgnoreShortSessions(random.bounded(3) != 0);
        QVariantList sessions;
        for (int i = random.bounded(1, 12); i > 0; --i) {
            const qint64 length
                = random.bounded(4) == 0 ? random.bounded(-2000, 60000) : random.bounded(60000, 7200000);
            QVariantMap s = session(at(random.bounded(24), random.bounded(60), random.bounded(60)), length,
                issues[random.bounded(3)], descriptions[random.bounded(3)], i);
            if (random.bounded(3) == 0)
                s = with(s,
                    {{"assignment", S("Description rule")}, {"aggregate_description", get(s, "description")},
                        {"aggregate_daily", random.bounded(2) == 0}});
            if (random.bounded(6) == 0)
                s.insert(S("jira_logged_seconds"), random.bounded(0, 4000));
            if (random.bounded(8) == 0)
                s.insert(S("jira_exclusion"), rec({{"kind", S("ignore")}}));
            sessions << s;
        }
        const QVariantList drafts = build(sessions);
        QHash<QString, int> posted;
        for (const QVariant &entry : JRWorklogsToPost(drafts)) {
            const QVariantMap draft = entry.toMap();
            ASSERT_FALSE(get(draft, "fragment").toBool()) << run;
            const QVariantList parts = get(draft, "source_keys").toList();
            if (parts.isEmpty()) {
                ASSERT_TRUE(drafts.contains(draft)) << run; // a single draft passes through unchanged
                ++posted[str(draft, "source_key")];
                continue;
            }
            ASSERT_TRUE(JRValid(draft) && JRPostSeconds(draft) % 60 == 0) << run;
            for (const QVariant &part : parts)
                ++posted[part.toString()];
        }
        for (const QVariant &entry : drafts) {
            const QVariantMap draft = entry.toMap();
            ASSERT_LE(posted.value(str(draft, "source_key")), 1) << run;
            if (!get(draft, "fragment").toBool() && JRPostSeconds(draft) >= 60) {
                ASSERT_EQ(posted.value(str(draft, "source_key")), 1) << run;
            }
        }
    }
}

} // namespace
