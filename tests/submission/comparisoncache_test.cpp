#include "submission/comparisoncache.h"

#include "fsguards.h"
#include "support/testenv.h"

#include <QFile>

#include <gtest/gtest.h>

namespace
{

const QString kCloud = QStringLiteral("cloud-1");
const QString kAccount = QStringLiteral("acc-1");
const QDateTime kNow = QDateTime::fromSecsSinceEpoch(1772442000); // 2026-03-02

QVariantMap checkedDraft(const QString &sourceKey, qint64 postSeconds = 3600)
{
    return {{QStringLiteral("source_key"), sourceKey},
        {QStringLiteral("marker_seed"), QString(sourceKey + QStringLiteral("|0|ABC-1"))},
        {QStringLiteral("issue"), QStringLiteral("ABC-1")}, {QStringLiteral("post_seconds"), postSeconds},
        {QStringLiteral("remaining_seconds"), postSeconds},
        {QStringLiteral("started"), QStringLiteral("2026-03-02T09:00:00.000+0000")},
        {QStringLiteral("comment"), QStringLiteral("Design")}, {QStringLiteral("status"), QStringLiteral("Ready")},
        {QStringLiteral("eligible"), true}, {QStringLiteral("existing"), 1200},
        {QStringLiteral("manual_matches"), QVariantList {}}};
}

// The draft as the window builds it again later: no comparison outcome yet.
QVariantMap rebuilt(QVariantMap draft)
{
    draft.insert(QStringLiteral("status"), QStringLiteral("Not checked yet"));
    draft.insert(QStringLiteral("eligible"), false);
    draft.insert(QStringLiteral("existing"), 0);
    return draft;
}

} // namespace

TEST(ComparisonCache, FreshOutcomeIsAppliedAsCurrentAndTheFileIsPrivate)
{
    ComparisonCache cache(testenv::freshDir(QStringLiteral("cache")));
    // An unusable file is an empty cache, replaced by the next save.
    QFile file(cache.path());
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("[1,2");
    file.close();
    EXPECT_TRUE(cache.entries().isEmpty());
    cache.saveDrafts({checkedDraft(QStringLiteral("k1"))}, kCloud, kAccount, kNow);
    EXPECT_EQ(fileMode(cache.path()), 0600);
    EXPECT_EQ(cache.entries().keys(), QStringList {QStringLiteral("cloud-1|acc-1|k1")});

    QVariantList drafts {rebuilt(checkedDraft(QStringLiteral("k1")))};
    cache.applyToDrafts(drafts, kCloud, kAccount, kNow.addSecs(300), 300);
    const QVariantMap draft = drafts.first().toMap();
    EXPECT_EQ(draft.value(QStringLiteral("status")).toString(), QStringLiteral("Ready"));
    EXPECT_TRUE(draft.value(QStringLiteral("eligible")).toBool());
    EXPECT_TRUE(draft.value(QStringLiteral("include")).toBool());
    EXPECT_EQ(draft.value(QStringLiteral("existing")).toLongLong(), 1200);
    EXPECT_TRUE(draft.value(QStringLiteral("comparison_current")).toBool());
    EXPECT_TRUE(draft.value(QStringLiteral("comparison_cached")).toBool());
    EXPECT_EQ(draft.value(QStringLiteral("comparison_at")).toDateTime(), kNow);
}

struct Staleness {
    const char *name;
    qint64 ageSeconds;
    bool manualMatches;
};

void PrintTo(const Staleness &staleness, std::ostream *out)
{
    *out << staleness.name;
}

class ComparisonCacheNotCurrent : public ::testing::TestWithParam<Staleness>
{
};

TEST_P(ComparisonCacheNotCurrent, AsksForARefreshAndIsNotPostable)
{
    ComparisonCache cache(testenv::freshDir(QStringLiteral("cache")));
    QVariantMap checked = checkedDraft(QStringLiteral("k1"));
    if (GetParam().manualMatches)
        checked.insert(
            QStringLiteral("manual_matches"), QVariantList {QVariantMap {{QStringLiteral("id"), QStringLiteral("9")}}});
    cache.saveDrafts({checked}, kCloud, kAccount, kNow);

    QVariantList drafts {rebuilt(checkedDraft(QStringLiteral("k1")))};
    cache.applyToDrafts(drafts, kCloud, kAccount, kNow.addSecs(GetParam().ageSeconds), 300);
    const QVariantMap draft = drafts.first().toMap();
    EXPECT_EQ(draft.value(QStringLiteral("status")).toString(), QStringLiteral("Ready · Refresh required"));
    EXPECT_FALSE(draft.value(QStringLiteral("eligible")).toBool());
    EXPECT_FALSE(draft.value(QStringLiteral("include")).toBool());
    EXPECT_FALSE(draft.value(QStringLiteral("comparison_current")).toBool());
    EXPECT_TRUE(draft.value(QStringLiteral("comparison_cached")).toBool());
    EXPECT_TRUE(draft.value(QStringLiteral("manual_matches")).toList().isEmpty());
    EXPECT_EQ(draft.value(QStringLiteral("existing")).toLongLong(), 1200);
}

INSTANTIATE_TEST_SUITE_P(Outcomes, ComparisonCacheNotCurrent,
    ::testing::Values(Staleness {"OlderThanFreshness", 301, false}, Staleness {"WithManualMatches", 10, true},
        // The clock was set back since the check: a stamp in the future is not current for ever.
        Staleness {"StampedInTheFuture", -60, false}),
    [](const ::testing::TestParamInfo<Staleness> &param) { return std::string(param.param.name); });

TEST(ComparisonCache, LeavesDraftsAloneWhenTheirInputsChangedOrTheyDoNotTakePart)
{
    ComparisonCache cache(testenv::freshDir(QStringLiteral("cache")));
    QVariantMap receipted = checkedDraft(QStringLiteral("k3"));
    receipted.insert(QStringLiteral("jira_receipt_state"), QStringLiteral("pending"));
    QVariantMap running = checkedDraft(QStringLiteral("k4"));
    running.insert(QStringLiteral("source_running"), true);
    QVariantMap done = checkedDraft(QStringLiteral("k5"));
    done.insert(QStringLiteral("remaining_seconds"), 0);
    QVariantMap excluded = checkedDraft(QStringLiteral("k6"));
    excluded.insert(QStringLiteral("jira_exclusion"), QVariantMap {{QStringLiteral("kind"), QStringLiteral("ignore")}});
    cache.saveDrafts({checkedDraft(QStringLiteral("k1")), checkedDraft(QStringLiteral("k2")), receipted, running, done,
                         excluded, checkedDraft(QString())},
        kCloud, kAccount, kNow);
    EXPECT_EQ(
        cache.entries().keys(), (QStringList {QStringLiteral("cloud-1|acc-1|k1"), QStringLiteral("cloud-1|acc-1|k2")}));

    QVariantMap otherComment = rebuilt(checkedDraft(QStringLiteral("k1")));
    otherComment.insert(QStringLiteral("comment"), QStringLiteral("Design review"));
    QVariantList drafts {otherComment, rebuilt(checkedDraft(QStringLiteral("k2"), 1800))};
    const QVariantList before = drafts;
    cache.applyToDrafts(drafts, kCloud, kAccount, kNow, 300);
    EXPECT_EQ(drafts, before);

    // Another account on the same site sees nothing of this one's checks.
    QVariantList same {rebuilt(checkedDraft(QStringLiteral("k2")))};
    cache.applyToDrafts(same, kCloud, QStringLiteral("acc-2"), kNow, 300);
    EXPECT_FALSE(same.first().toMap().contains(QStringLiteral("comparison_cached")));
    // Without an account nothing is read or written.
    cache.applyToDrafts(same, kCloud, QString(), kNow, 300);
    EXPECT_FALSE(same.first().toMap().contains(QStringLiteral("comparison_cached")));
    const QVariantMap entries = cache.entries();
    cache.saveDrafts({checkedDraft(QStringLiteral("k9"))}, kCloud, QString(), kNow);
    EXPECT_EQ(cache.entries(), entries);
}

struct Trimming {
    int existing; // entries in the file before the save, each checked before the saved draft
    int expectedAfter;
};

void PrintTo(const Trimming &trimming, std::ostream *out)
{
    *out << "holding" << trimming.existing;
}

class ComparisonCacheTrimming : public ::testing::TestWithParam<Trimming>
{
};

TEST_P(ComparisonCacheTrimming, RemovesTheOldestEntries)
{
    ComparisonCache cache(testenv::freshDir(QStringLiteral("cache")));
    QVariantMap entries;
    for (int i = 0; i < GetParam().existing; ++i)
        entries.insert(QStringLiteral("c|a|old-%1").arg(i, 5, 10, QLatin1Char('0')),
            QVariantMap {{QStringLiteral("fingerprint"), QStringLiteral("f")},
                // Newest first in key order, so the removal must follow "checked_at", not the keys.
                {QStringLiteral("checked_at"), 1000.0 + GetParam().existing - i}});
    cache.write(entries);
    cache.saveDrafts({checkedDraft(QStringLiteral("k1"))}, QStringLiteral("c"), QStringLiteral("a"), kNow);

    const QVariantMap after = cache.entries();
    ASSERT_EQ(after.size(), GetParam().expectedAfter);
    EXPECT_TRUE(after.contains(QStringLiteral("c|a|k1")));
    const int removed = GetParam().existing + 1 - GetParam().expectedAfter;
    for (int i = 0; i < GetParam().existing; ++i) {
        const bool oldest = i >= GetParam().existing - removed;
        EXPECT_EQ(after.contains(QStringLiteral("c|a|old-%1").arg(i, 5, 10, QLatin1Char('0'))), !oldest) << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Sizes, ComparisonCacheTrimming,
    ::testing::Values(Trimming {1999, 2000}, Trimming {2000, 2000}, Trimming {2010, 2005}));

TEST(ComparisonCache, TrimmingKeepsTheCheckJustMadeWhenTheClockWasSetBack)
{
    ComparisonCache cache(testenv::freshDir(QStringLiteral("cache")));
    QVariantMap entries;
    const double later = double(kNow.toSecsSinceEpoch()) + 3600.0;
    for (int i = 0; i < ComparisonCache::kMaximumEntries; ++i)
        entries.insert(QStringLiteral("c|a|old-%1").arg(i),
            QVariantMap {{QStringLiteral("fingerprint"), QStringLiteral("f")}, {QStringLiteral("checked_at"), later}});
    cache.write(entries);
    cache.saveDrafts({checkedDraft(QStringLiteral("k1"))}, QStringLiteral("c"), QStringLiteral("a"), kNow);

    const QVariantMap after = cache.entries();
    EXPECT_EQ(after.size(), ComparisonCache::kMaximumEntries);
    EXPECT_TRUE(after.contains(QStringLiteral("c|a|k1")));
}
