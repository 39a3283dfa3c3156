#include "worklogs/marker.h"

#include "worklogbuilders.h"
#include "worklogs/drafts.h"
#include "worklogs/preferences.h"

#include <QRandomGenerator>

using namespace wl;

namespace
{

QVariantMap combinedDraft(const QVariantList &amounts, qint64 post)
{
    QVariantList keys;
    for (int i = 0; i < amounts.size(); ++i)
        keys << QStringLiteral("k%1").arg(i);
    return QVariantMap {{QStringLiteral("source_key"), QStringLiteral("group")}, {QStringLiteral("source_keys"), keys},
        {QStringLiteral("source_amounts"), amounts}, {QStringLiteral("post_seconds"), post}};
}

class Marker : public EngineTest
{
};

TEST_F(Marker, SameDraftSameMarkerNewForMoreTimeOrAnotherIssue)
{
    const QDateTime day = local(2026, 3, 2, 12, 0);
    const QVariantMap s = session(local(2026, 3, 2, 9, 0), 3600000);
    const QVariantMap draft = first(JRBuildDrafts({s}, day));
    const QString marker = JRMarker(draft, QStringLiteral("cloud"), QStringLiteral("acct"));
    EXPECT_EQ(marker, JRHash(QStringLiteral("cloud|acct|") + draft.value(QStringLiteral("marker_seed")).toString()));
    EXPECT_EQ(JRMarker(first(JRBuildDrafts({s}, day)), QStringLiteral("cloud"), QStringLiteral("acct")), marker);
    EXPECT_NE(JRMarker(draft, QStringLiteral("cloud2"), QStringLiteral("acct")), marker);
    EXPECT_NE(JRMarker(draft, QStringLiteral("cloud"), QStringLiteral("acct2")), marker);

    QVariantMap logged = s;
    logged.insert(QStringLiteral("jira_logged_seconds"), 600);
    EXPECT_NE(JRMarker(first(JRBuildDrafts({logged}, day)), QStringLiteral("cloud"), QStringLiteral("acct")), marker);
    QVariantMap moved = s;
    moved.insert(QStringLiteral("issue"), QStringLiteral("XYZ-2"));
    EXPECT_NE(JRMarker(first(JRBuildDrafts({moved}, day)), QStringLiteral("cloud"), QStringLiteral("acct")), marker);

    QVariantMap unseeded = draft;
    unseeded.remove(QStringLiteral("marker_seed"));
    EXPECT_EQ(JRMarker(unseeded, QStringLiteral("c"), QStringLiteral("a")),
        JRHash(QStringLiteral("c|a|") + draft.value(QStringLiteral("source_key")).toString()));
}

TEST(Coverage, SplitsPostedSecondsOverSessionsInOrder)
{
    const auto split = [](const QVariantMap &draft) {
        QMap<QString, qint64> result;
        const QVariantMap coverage = JRCoverage(draft);
        for (auto it = coverage.constBegin(); it != coverage.constEnd(); ++it)
            result.insert(it.key(), it.value().toLongLong());
        return result;
    };
    using Split = QMap<QString, qint64>;
    const QString k0 = QStringLiteral("k0"), k1 = QStringLiteral("k1"), k2 = QStringLiteral("k2");
    EXPECT_EQ(split(combinedDraft({600, 600, 600}, 1500)), (Split {{k0, 600}, {k1, 600}, {k2, 300}}));
    EXPECT_EQ(split(combinedDraft({600, 600, 600}, 1200)), (Split {{k0, 600}, {k1, 600}}));
    EXPECT_EQ(split(combinedDraft({600, -50, 600}, 1500)), (Split {{k0, 600}, {k2, 900}}));
    // Rounding up the group's total gives the extra seconds to the last session.
    EXPECT_EQ(split(combinedDraft({40, 40}, 120)), (Split {{k0, 40}, {k1, 80}}));
    EXPECT_EQ(split(combinedDraft({600, 600}, 0)), Split {});

    EXPECT_EQ(JRCoverage({{QStringLiteral("source_key"), QStringLiteral("one")}, {QStringLiteral("post_seconds"), 0}}),
        (QVariantMap {{QStringLiteral("one"), qint64(0)}}));
    EXPECT_TRUE(JRCoverage({{QStringLiteral("post_seconds"), 60}}).isEmpty());

    // Without amounts, each session's tracked time less what Jira already holds.
    QVariantMap bySessions = combinedDraft({1, 2}, 1000);
    bySessions.remove(QStringLiteral("source_amounts"));
    bySessions.insert(QStringLiteral("source_sessions"),
        QVariantList {QVariantMap {{QStringLiteral("start_ms"), 0}, {QStringLiteral("end_ms"), 700999},
                          {QStringLiteral("jira_logged_seconds"), 100}},
            QVariantMap {{QStringLiteral("start_ms"), 0}, {QStringLiteral("end_ms"), 900000}}});
    EXPECT_EQ(split(bySessions), (Split {{k0, 600}, {k1, 400}}));
}

// For any combined draft the split hands out exactly the posted seconds, nothing below one second, and no
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
        const QVariantMap coverage = JRCoverage(combinedDraft(amounts, post));
        qint64 sum = 0;
        for (auto it = coverage.constBegin(); it != coverage.constEnd(); ++it) {
            const qint64 share = it.value().toLongLong();
            ASSERT_GE(share, 1);
            const int index = it.key().mid(1).toInt();
            if (index != count - 1)
                ASSERT_LE(share, amounts[index].toLongLong());
            sum += share;
        }
        ASSERT_EQ(sum, std::max<qint64>(post, 0)) << run;
    }
}

TEST(Payload, CarriesMarkerAndCommentOnlyWhenThereIsOne)
{
    QVariantMap draft {{QStringLiteral("source_key"), QStringLiteral("sk")}, {QStringLiteral("post_seconds"), 1800},
        {QStringLiteral("started"), QStringLiteral("2026-03-02T09:00:00.000+0100")},
        {QStringLiteral("comment"), QStringLiteral("Fix login\nsecond line")}};
    QVariantMap body = JRPayload(draft, QStringLiteral("m1"));
    EXPECT_EQ(body.value(QStringLiteral("started")), draft.value(QStringLiteral("started")));
    EXPECT_EQ(body.value(QStringLiteral("timeSpentSeconds")).toLongLong(), 1800);
    EXPECT_EQ(body.value(QStringLiteral("comment")).toMap(), document(QStringLiteral("Fix login\nsecond line")));
    const QVariantMap property = body.value(QStringLiteral("properties")).toList().value(0).toMap();
    EXPECT_EQ(property.value(QStringLiteral("key")), QStringLiteral("hourloom"));
    EXPECT_EQ(property.value(QStringLiteral("value")).toMap().value(QStringLiteral("marker")), QStringLiteral("m1"));
    EXPECT_EQ(JRLogSources(body), (QVariantMap {{QStringLiteral("sk"), qint64(1800)}}));
    EXPECT_EQ(JRLogMarker(body), QStringLiteral("m1"));

    // A known title without own comment or activity: no comment, and the tag alone when tagged.
    draft.insert(QStringLiteral("issue_title"), QStringLiteral("Login fails"));
    body = JRPayload(draft, QStringLiteral("m1"));
    EXPECT_FALSE(body.contains(QStringLiteral("comment")));
    const QVariantMap tagged = JRPayloadWithTag(draft, JRMarkerTag(QStringLiteral("m1")));
    EXPECT_EQ(JRText(tagged.value(QStringLiteral("comment"))), QStringLiteral("[Hourloom:m1]"));
    EXPECT_FALSE(tagged.contains(QStringLiteral("properties")));
    draft.insert(QStringLiteral("comment_custom"), true);
    EXPECT_EQ(JRText(JRPayloadWithTag(draft, JRLegacyMarkerTag(QStringLiteral("m1"))).value(QStringLiteral("comment"))),
        QStringLiteral("Fix login\nsecond line\n[Stintwatch Companion:m1]"));
    EXPECT_EQ(JRCommentFromText(
                  JRText(JRPayloadWithTag(draft, JRMarkerTag(QStringLiteral("m1"))).value(QStringLiteral("comment")))),
        QStringLiteral("Fix login\nsecond line"));
}

TEST(LogMarker, TakesTheFirstWellFormedProperty)
{
    const auto property = [](const QVariant &key, const QVariant &value) {
        return QVariantMap {{QStringLiteral("key"), key}, {QStringLiteral("value"), value}};
    };
    const QVariantMap good {{QStringLiteral("marker"), QStringLiteral("good")},
        {QStringLiteral("sources"), QVariantMap {{QStringLiteral("a"), 60}, {QStringLiteral("b"), 60}}}};
    const QVariantMap log {{QStringLiteral("properties"),
        QVariantList {QStringLiteral("junk"), property(QStringLiteral("other"), good),
            property(QStringLiteral("hourloom"), QStringLiteral("not a dictionary")),
            property(QStringLiteral("hourloom"), QVariantMap {{QStringLiteral("marker"), QStringLiteral("")}}),
            property(QStringLiteral("hourloom"), good),
            property(QStringLiteral("hourloom"), QVariantMap {{QStringLiteral("marker"), QStringLiteral("later")}})}}};
    EXPECT_EQ(JRLogMarker(log), QStringLiteral("good"));
    EXPECT_EQ(JRLogSources(log).size(), 2);
    EXPECT_TRUE(
        JRLogMarker({{QStringLiteral("properties"), QVariantMap {{QStringLiteral("key"), QStringLiteral("hourloom")}}}})
            .isNull());
    EXPECT_TRUE(JRLogMarker({}).isNull());
    EXPECT_TRUE(JRLogSources({}).isEmpty());
}

} // namespace
