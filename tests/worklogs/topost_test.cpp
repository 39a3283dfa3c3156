#include "worklogs/topost.h"

#include "support/testenv.h"
#include "worklogbuilders.h"
#include "worklogs/drafts.h"
#include "worklogs/marker.h"
#include "worklogs/preferences.h"

#include <QRandomGenerator>
#include <QSet>

using namespace wl;

namespace
{

const QString kIssue = QStringLiteral("ABC-1");

class ToPost : public EngineTest
{
protected:
    QDateTime at(int hour, int minute, int second = 0) const { return local(2026, 3, 2, hour, minute, second); }
    QVariantList build(const QVariantList &sessions) const { return JRBuildDrafts(sessions, at(12, 0)); }
};

TEST_F(ToPost, CombinesADaysSessionsOfOneIssueIntoOneWorklog)
{
    const QVariantList drafts = build({session(at(11, 0), 1200000, kIssue, QStringLiteral("c"), 3),
        session(at(9, 0), 1200000, kIssue, QStringLiteral("a"), 1),
        session(at(10, 0), 1200000, kIssue, QStringLiteral("b"), 2)});
    const QVariantList out = JRWorklogsToPost(drafts);
    ASSERT_EQ(out.size(), 1);
    const QVariantMap combined = first(out);
    EXPECT_EQ(JRPostSeconds(combined), 3600);
    EXPECT_EQ(combined.value(QStringLiteral("combined_count")).toInt(), 3);
    EXPECT_EQ(combined.value(QStringLiteral("started")), drafts[0].toMap().value(QStringLiteral("started")));
    EXPECT_EQ(combined.value(QStringLiteral("comment")), QStringLiteral("a"));
    EXPECT_FALSE(combined.value(QStringLiteral("comment_custom")).toBool());
    QStringList keys;
    for (const QVariant &draft : drafts)
        keys << draft.toMap().value(QStringLiteral("source_key")).toString();
    EXPECT_EQ(combined.value(QStringLiteral("source_keys")).toStringList(), keys);
    EXPECT_EQ(combined.value(QStringLiteral("source_key")), JRHash(keys.join(u'|')));
    EXPECT_EQ(
        combined.value(QStringLiteral("marker_seed")).toString(), JRHash(keys.join(u'|')) + QStringLiteral("|0|ABC-1"));
    const QVariantMap coverage = JRCoverage(combined);
    ASSERT_EQ(coverage.size(), 3);
    for (const QString &key : keys)
        EXPECT_EQ(coverage.value(key).toLongLong(), 1200);
    EXPECT_TRUE(JRValid(combined));
}

TEST_F(ToPost, FragmentsCountOnlyTogether)
{
    const auto fragment = [&](int minute, qint64 seconds, int id) {
        QVariantMap draft
            = first(JRBuildDrafts({session(at(9, minute), 600000, kIssue, QStringLiteral("f"), id)}, at(12, 0)));
        draft.insert(QStringLiteral("fragment"), true);
        draft.insert(QStringLiteral("seconds"), seconds);
        draft.insert(QStringLiteral("post_seconds"), seconds);
        return draft;
    };
    QVariantList out = JRWorklogsToPost({fragment(0, 40, 1), fragment(5, 40, 2)});
    ASSERT_EQ(out.size(), 1);
    EXPECT_EQ(JRPostSeconds(first(out)), 60);
    EXPECT_FALSE(first(out).value(QStringLiteral("fragment")).toBool());
    EXPECT_TRUE(JRWorklogsToPost({fragment(0, 20, 1)}).isEmpty());
    EXPECT_TRUE(JRWorklogsToPost({fragment(0, 10, 1), fragment(5, 10, 2)}).isEmpty());

    // Built from sessions: two 40 s pieces of one group make a postable minute.
    out = JRWorklogsToPost(build({session(at(9, 0), 40000, kIssue, QStringLiteral("x"), 1),
        session(at(9, 5), 40000, kIssue, QStringLiteral("y"), 2)}));
    ASSERT_EQ(out.size(), 1);
    EXPECT_EQ(JRPostSeconds(first(out)), 60);
}

TEST_F(ToPost, KeepsASharedCustomCommentOnly)
{
    QVariantList sessions;
    for (int i = 1; i <= 2; ++i) {
        QVariantMap s = session(at(8 + i, 0), 600000, kIssue, QStringLiteral("desc %1").arg(i), i);
        s.insert(QStringLiteral("comment"), QStringLiteral("shared"));
        s.insert(QStringLiteral("comment_custom"), true);
        sessions << s;
    }
    QVariantMap combined = first(JRWorklogsToPost(build(sessions)));
    EXPECT_EQ(combined.value(QStringLiteral("comment")), QStringLiteral("shared"));
    EXPECT_TRUE(combined.value(QStringLiteral("comment_custom")).toBool());

    QVariantMap second = sessions[1].toMap();
    second.insert(QStringLiteral("comment_custom"), false);
    sessions[1] = second;
    combined = first(JRWorklogsToPost(build(sessions)));
    EXPECT_EQ(combined.value(QStringLiteral("comment")), QStringLiteral("desc 1"));
    EXPECT_FALSE(combined.value(QStringLiteral("comment_custom")).toBool());
}

TEST_F(ToPost, WithoutCombiningEveryNonFragmentIsItsOwnWorklog)
{
    JRSetCombineDailyByIssue(false);
    const QVariantList drafts = build({session(at(9, 0), 600000, kIssue, QStringLiteral("a"), 1),
        session(at(10, 0), 600000, kIssue, QStringLiteral("b"), 2),
        session(at(11, 0), 600000, QStringLiteral("DEF-2"), QStringLiteral("c"), 3)});
    EXPECT_EQ(JRWorklogsToPost(drafts), drafts);
}

TEST_F(ToPost, GroupsKeepTheOrderOfTheirFirstDraft)
{
    const QVariantList drafts = build({session(at(9, 0), 600000, QStringLiteral("B-1"), QStringLiteral("x"), 1),
        session(at(10, 0), 600000, kIssue, QStringLiteral("y"), 2),
        session(at(11, 0), 600000, QStringLiteral("B-1"), QStringLiteral("z"), 3),
        session(at(12, 0), 600000, QStringLiteral("Unassigned"), QStringLiteral("w"), 4)});
    const QVariantList out = JRWorklogsToPost(drafts);
    ASSERT_EQ(out.size(), 3);
    EXPECT_EQ(out[0].toMap().value(QStringLiteral("combined_count")).toInt(), 2);
    EXPECT_EQ(out[1].toMap().value(QStringLiteral("issue")), kIssue);
    EXPECT_EQ(out[2].toMap().value(QStringLiteral("issue")), QStringLiteral(""));
}

TEST_F(ToPost, DayWindowAddsAnHourOnBothSides)
{
    QDateTime from, to;
    JRDayWindow({QVariantMap {{QStringLiteral("started"), JRISO(at(23, 50))}}, QStringLiteral("junk"),
                    QVariantMap {{QStringLiteral("started"), QStringLiteral("bad")}},
                    QVariantMap {{QStringLiteral("started"), JRISO(at(0, 10))}}},
        from, to);
    EXPECT_EQ(from, local(2026, 3, 1, 23, 0));
    EXPECT_EQ(to, local(2026, 3, 3, 1, 0));

    JRDayWindow({QVariantMap {}}, from, to);
    EXPECT_FALSE(from.isValid());
    EXPECT_FALSE(to.isValid());
}

TEST_F(ToPost, DayWindowAcrossTheClockChange)
{
    testenv::ScopedTimeZone zone("Europe/Berlin");
    QDateTime from, to;
    JRDayWindow({QVariantMap {{QStringLiteral("started"), QStringLiteral("2026-03-29T00:30:00.000+0100")}},
                    QVariantMap {{QStringLiteral("started"), QStringLiteral("2026-03-29T23:30:00.000+0200")}}},
        from, to);
    EXPECT_EQ(JRISO(from), QStringLiteral("2026-03-28T23:00:00.000+0100"));
    EXPECT_EQ(JRISO(to), QStringLiteral("2026-03-30T01:00:00.000+0200"));
    // The window is 23 h of that day plus the margins.
    EXPECT_EQ(from.secsTo(to), 25 * 3600);
}

TEST_F(ToPost, SourceKeysListEachSessionOnce)
{
    const QVariantList drafts = build({session(at(9, 0), 600000, kIssue, QStringLiteral("a"), 1),
        session(at(10, 0), 600000, kIssue, QStringLiteral("b"), 2)});
    const QVariantMap combined = first(JRWorklogsToPost(drafts));
    const QStringList keys = JRSourceKeysForRows({combined, drafts[1], drafts[0]});
    EXPECT_EQ(keys,
        (QStringList {combined.value(QStringLiteral("source_key")).toString(),
            drafts[0].toMap().value(QStringLiteral("source_key")).toString(),
            drafts[1].toMap().value(QStringLiteral("source_key")).toString()}));
}

// Over many generated days: no fragment is posted on its own, no combined worklog is under a minute, no
// session is posted twice, and no session with a postable minute is lost.
TEST_F(ToPost, InvariantsOverGeneratedDays)
{
    QRandomGenerator random(4242);
    const QStringList issues {kIssue, QStringLiteral("B-2"), QStringLiteral("Unassigned")};
    const QStringList descriptions {QStringLiteral("review"), QStringLiteral("deploy"), QStringLiteral("call")};
    for (int run = 0; run < 400; ++run) {
        JRSetCombineDailyByIssue(random.bounded(2) == 0);
        JRSetIgnoreShortSessions(random.bounded(3) != 0);
        QVariantList sessions;
        const int count = random.bounded(1, 12);
        for (int i = 0; i < count; ++i) {
            const qint64 length
                = random.bounded(4) == 0 ? random.bounded(-2000, 60000) : random.bounded(60000, 7200000);
            QVariantMap s = session(at(random.bounded(0, 23), random.bounded(0, 60), random.bounded(0, 60)), length,
                issues[random.bounded(issues.size())], descriptions[random.bounded(descriptions.size())], i + 1);
            if (random.bounded(3) == 0) {
                s.insert(QStringLiteral("assignment"), QStringLiteral("Description rule"));
                s.insert(QStringLiteral("aggregate_description"), s.value(QStringLiteral("description")));
                s.insert(QStringLiteral("aggregate_daily"), random.bounded(2) == 0);
            }
            if (random.bounded(6) == 0)
                s.insert(QStringLiteral("jira_logged_seconds"), random.bounded(0, 4000));
            if (random.bounded(8) == 0)
                s.insert(
                    QStringLiteral("jira_exclusion"), QVariantMap {{QStringLiteral("kind"), QStringLiteral("ignore")}});
            sessions << s;
        }
        const QVariantList drafts = build(sessions);
        const QVariantList out = JRWorklogsToPost(drafts);

        QHash<QString, int> posted;
        for (const QVariant &entry : out) {
            const QVariantMap draft = entry.toMap();
            ASSERT_FALSE(draft.value(QStringLiteral("fragment")).toBool()) << run;
            const QVariantList parts = draft.value(QStringLiteral("source_keys")).toList();
            if (parts.isEmpty()) {
                // A single draft passes through unchanged.
                ASSERT_TRUE(drafts.contains(draft)) << run;
                ++posted[draft.value(QStringLiteral("source_key")).toString()];
            } else {
                ASSERT_GE(JRPostSeconds(draft), 60) << run;
                ASSERT_EQ(JRPostSeconds(draft) % 60, 0) << run;
                ASSERT_TRUE(JRValid(draft)) << run;
                for (const QVariant &part : parts)
                    ++posted[part.toString()];
            }
        }
        for (const QVariant &entry : drafts) {
            const QVariantMap draft = entry.toMap();
            const QString key = draft.value(QStringLiteral("source_key")).toString();
            ASSERT_LE(posted.value(key), 1) << run;
            if (!draft.value(QStringLiteral("fragment")).toBool() && JRPostSeconds(draft) >= 60) {
                ASSERT_EQ(posted.value(key), 1) << run;
            }
        }
    }
}

} // namespace
