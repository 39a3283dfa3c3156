#include "worklogs/marker.h"

#include "worklogbuilders.h"
#include "worklogs/drafts.h"
#include "worklogs/durations.h"
#include "worklogs/preferences.h"
#include "worklogs/text.h"

#include <QRandomGenerator>

using namespace wl;

namespace
{

QVariantMap combinedDraft(const QVariantList &amounts, qint64 post)
{
    QVariantList keys;
    for (int i = 0; i < amounts.size(); ++i)
        keys << S("k%1").arg(i);
    return rec(
        {{"source_key", S("group")}, {"source_keys", keys}, {"source_amounts", amounts}, {"post_seconds", post}});
}

QMap<QString, qint64> split(const QVariantMap &draft)
{
    QMap<QString, qint64> result;
    const QVariantMap coverage = JRCoverage(draft);
    for (auto it = coverage.constBegin(); it != coverage.constEnd(); ++it)
        result.insert(it.key(), it.value().toLongLong());
    return result;
}
using Split = QMap<QString, qint64>;

class Marker : public EngineTest
{
};

// Over many generated sessions: the same draft, site and account always give the same marker, and more time
// already in Jira or another issue give a new one.
TEST_F(Marker, StableForARetryNewForChangedTimeOrIssue)
{
    QRandomGenerator random(99);
    const QDateTime day = local(2026, 3, 2, 12, 0);
    for (int run = 0; run < 2000; ++run) {
        const QVariantMap s = with(session(local(2026, 3, 2, random.bounded(24), random.bounded(60)),
                                       random.bounded(3720000, 7200000), "ABC-1", "w", random.bounded(1, 1000000)),
            {{"jira_logged_seconds", random.bounded(0, 60) * 60}});
        const auto marker = [&](const QVariantMap &session) {
            return JRMarker(JRBuildDrafts({session}, day).value(0).toMap(), S("cloud"), S("acct"));
        };
        const QString base = marker(s);
        ASSERT_EQ(marker(s), base);
        ASSERT_NE(marker(with(s, {{"jira_logged_seconds", num(s, "jira_logged_seconds") + 60}})), base) << run;
        ASSERT_NE(marker(with(s, {{"issue", S("ABC-2")}})), base) << run;
    }
    const QVariantMap draft = rec({{"source_key", S("sk")}, {"marker_seed", S("seed")}});
    EXPECT_EQ(JRMarker(draft, S("c"), S("a")), JRHash(S("c|a|seed")));
    EXPECT_NE(JRMarker(draft, S("c2"), S("a")), JRMarker(draft, S("c"), S("a")));
    EXPECT_EQ(JRMarker(with(draft, {{"marker_seed", {}}}), S("c"), S("a")), JRHash(S("c|a|sk")));
}

TEST(Coverage, SplitsPostedSecondsOverSessionsInOrder)
{
    const QString k0 = S("k0"), k1 = S("k1"), k2 = S("k2");
    EXPECT_EQ(split(combinedDraft({600, 600, 600}, 1500)), (Split {{k0, 600}, {k1, 600}, {k2, 300}}));
    EXPECT_EQ(split(combinedDraft({600, 600, 600}, 1200)), (Split {{k0, 600}, {k1, 600}}));
    EXPECT_EQ(split(combinedDraft({600, -50, 600}, 1500)), (Split {{k0, 600}, {k2, 900}}));
    EXPECT_EQ(split(combinedDraft({40, 40}, 120)), (Split {{k0, 40}, {k1, 80}}));
    EXPECT_EQ(split(rec({{"source_key", S("one")}, {"post_seconds", 0}})), (Split {{S("one"), 0}}));
    // Without amounts: each session's tracked time less what Jira already holds.
    const QVariantMap bySessions = with(combinedDraft({1, 2}, 1000),
        {{"source_amounts", {}},
            {"source_sessions",
                QVariantList {rec({{"start_ms", 0}, {"end_ms", 700999}, {"jira_logged_seconds", 100}}),
                    rec({{"start_ms", 0}, {"end_ms", 900000}})}}});
    EXPECT_EQ(split(bySessions), (Split {{k0, 600}, {k1, 400}}));
}

// For any combined draft the split hands out exactly the posted seconds, no share below one second, and no
// session more than its amount except the last, which takes the rest.
TEST(Coverage, NeverExceedsThePostedSeconds)
{
    QRandomGenerator random(20260302);
    for (int run = 0; run < 5000; ++run) {
        const int count = random.bounded(1, 7);
        QVariantList amounts;
        for (int i = 0; i < count; ++i)
            amounts << qint64(random.bounded(-120, 4000));
        const qint64 post = random.bounded(-60, 20000);
        qint64 sum = 0;
        const Split shares = split(combinedDraft(amounts, post));
        for (auto it = shares.constBegin(); it != shares.constEnd(); ++it) {
            ASSERT_GE(it.value(), 1);
            const int index = it.key().mid(1).toInt();
            ASSERT_TRUE(index == count - 1 || it.value() <= amounts[index].toLongLong());
            sum += it.value();
        }
        ASSERT_EQ(sum, std::max<qint64>(post, 0)) << run;
    }
}

TEST(Payload, CarriesMarkerAndCommentOnlyWhenThereIsOne)
{
    QVariantMap draft = rec({{"source_key", S("sk")}, {"post_seconds", 1800},
        {"started", S("2026-03-02T09:00:00.000+0100")}, {"comment", S("Fix login\nsecond line")}});
    QVariantMap body = JRPayload(draft, S("m1"));
    EXPECT_EQ(get(body, "started"), get(draft, "started"));
    EXPECT_EQ(num(body, "timeSpentSeconds"), 1800);
    EXPECT_EQ(get(body, "comment").toMap(), document(S("Fix login\nsecond line")));
    EXPECT_EQ(JRLogMarker(body), S("m1"));
    EXPECT_EQ(JRLogSources(body), rec({{"sk", qint64(1800)}}));

    // A known title without own comment or activity: no comment, and the tag alone when tagged.
    draft.insert(S("issue_title"), S("Login fails"));
    EXPECT_FALSE(JRPayload(draft, S("m1")).contains(S("comment")));
    const QVariantMap tagged = JRPayloadWithTag(draft, JRMarkerTag(S("m1")));
    EXPECT_EQ(JRText(get(tagged, "comment")), S("[Hourloom:m1]"));
    EXPECT_FALSE(tagged.contains(S("properties")));
    draft.insert(S("comment_custom"), true);
    const QString legacy = JRText(get(JRPayloadWithTag(draft, JRLegacyMarkerTag(S("m1"))), "comment"));
    EXPECT_EQ(legacy, S("Fix login\nsecond line\n[Stintwatch Companion:m1]"));
    EXPECT_EQ(JRCommentFromText(legacy), S("Fix login\nsecond line"));
}

TEST(LogMarker, TakesTheFirstWellFormedProperty)
{
    const auto property = [](const char *key, const QVariant &value) {
        return rec({{"key", S(key)}, {"value", value}});
    };
    const QVariantMap good = rec({{"marker", S("good")}, {"sources", rec({{"a", 60}, {"b", 60}})}});
    const QVariantMap log = rec({{"properties",
        QVariantList {S("junk"), property("other", good), property("hourloom", S("not a dictionary")),
            property("hourloom", rec({{"marker", S("")}})), property("hourloom", good),
            property("hourloom", rec({{"marker", S("later")}}))}}});
    EXPECT_EQ(JRLogMarker(log), S("good"));
    EXPECT_EQ(JRLogSources(log).size(), 2);
    EXPECT_TRUE(JRLogMarker(rec({{"properties", property("hourloom", good)}})).isNull());
}

} // namespace
