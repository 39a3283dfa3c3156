#include "submission/comparisoncache.h"

#include "fsguards.h"
#include "support/testenv.h"

#include <QFile>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace
{

const QString kCloud = u"cloud-1"_s;
const QString kAccount = u"acc-1"_s;
const QDateTime kNow = QDateTime::fromSecsSinceEpoch(1772442000); // 2026-03-02

QVariantMap checkedDraft(const QString &sourceKey, qint64 postSeconds = 3600)
{
    return {{u"source_key"_s, sourceKey}, {u"marker_seed"_s, QString(sourceKey + u"|0|ABC-1"_s)},
        {u"issue"_s, u"ABC-1"_s}, {u"post_seconds"_s, postSeconds}, {u"remaining_seconds"_s, postSeconds},
        {u"started"_s, u"2026-03-02T09:00:00.000+0000"_s}, {u"comment"_s, u"Design"_s}, {u"status"_s, u"Ready"_s},
        {u"eligible"_s, true}, {u"existing"_s, 1200}, {u"manual_matches"_s, QVariantList {}}};
}

// The draft as the window builds it again later: no comparison outcome yet.
QVariantMap rebuilt(QVariantMap draft)
{
    draft.insert(u"status"_s, u"Not checked yet"_s);
    draft.insert(u"eligible"_s, false);
    draft.insert(u"existing"_s, 0);
    return draft;
}

} // namespace

TEST(ComparisonCache, FreshOutcomeIsAppliedAsCurrentAndTheFileIsPrivate)
{
    ComparisonCache cache(testenv::freshDir(u"cache"_s));
    // An unusable file is an empty cache, replaced by the next save.
    QFile file(cache.path());
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("[1,2");
    file.close();
    EXPECT_TRUE(cache.entries().isEmpty());
    cache.saveDrafts({checkedDraft(u"k1"_s)}, kCloud, kAccount, kNow);
    EXPECT_EQ(fileMode(cache.path()), 0600);
    EXPECT_EQ(cache.entries().keys(), QStringList {u"cloud-1|acc-1|k1"_s});

    QVariantList drafts {rebuilt(checkedDraft(u"k1"_s))};
    cache.applyToDrafts(drafts, kCloud, kAccount, kNow.addSecs(300), 300);
    const QVariantMap draft = drafts.first().toMap();
    EXPECT_EQ(draft.value(u"status"_s).toString(), u"Ready"_s);
    EXPECT_TRUE(draft.value(u"eligible"_s).toBool());
    EXPECT_TRUE(draft.value(u"include"_s).toBool());
    EXPECT_EQ(draft.value(u"existing"_s).toLongLong(), 1200);
    EXPECT_TRUE(draft.value(u"comparison_current"_s).toBool());
    EXPECT_TRUE(draft.value(u"comparison_cached"_s).toBool());
    EXPECT_EQ(draft.value(u"comparison_at"_s).toDateTime(), kNow);
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
    ComparisonCache cache(testenv::freshDir(u"cache"_s));
    QVariantMap checked = checkedDraft(u"k1"_s);
    if (GetParam().manualMatches)
        checked.insert(u"manual_matches"_s, QVariantList {QVariantMap {{u"id"_s, u"9"_s}}});
    cache.saveDrafts({checked}, kCloud, kAccount, kNow);

    QVariantList drafts {rebuilt(checkedDraft(u"k1"_s))};
    cache.applyToDrafts(drafts, kCloud, kAccount, kNow.addSecs(GetParam().ageSeconds), 300);
    const QVariantMap draft = drafts.first().toMap();
    EXPECT_EQ(draft.value(u"status"_s).toString(), u"Ready · Refresh required"_s);
    EXPECT_FALSE(draft.value(u"eligible"_s).toBool());
    EXPECT_FALSE(draft.value(u"include"_s).toBool());
    EXPECT_FALSE(draft.value(u"comparison_current"_s).toBool());
    EXPECT_TRUE(draft.value(u"comparison_cached"_s).toBool());
    EXPECT_TRUE(draft.value(u"manual_matches"_s).toList().isEmpty());
    EXPECT_EQ(draft.value(u"existing"_s).toLongLong(), 1200);
}

INSTANTIATE_TEST_SUITE_P(Outcomes, ComparisonCacheNotCurrent,
    ::testing::Values(Staleness {"OlderThanFreshness", 301, false}, Staleness {"WithManualMatches", 10, true},
        // The clock was set back since the check: a stamp in the future is not current for ever.
        Staleness {"StampedInTheFuture", -60, false}),
    [](const ::testing::TestParamInfo<Staleness> &param) { return std::string(param.param.name); });

TEST(ComparisonCache, LeavesDraftsAloneWhenTheirInputsChangedOrTheyDoNotTakePart)
{
    ComparisonCache cache(testenv::freshDir(u"cache"_s));
    QVariantMap receipted = checkedDraft(u"k3"_s);
    receipted.insert(u"jira_receipt_state"_s, u"pending"_s);
    QVariantMap running = checkedDraft(u"k4"_s);
    running.insert(u"source_running"_s, true);
    QVariantMap done = checkedDraft(u"k5"_s);
    done.insert(u"remaining_seconds"_s, 0);
    QVariantMap excluded = checkedDraft(u"k6"_s);
    excluded.insert(u"jira_exclusion"_s, QVariantMap {{u"kind"_s, u"ignore"_s}});
    cache.saveDrafts(
        {checkedDraft(u"k1"_s), checkedDraft(u"k2"_s), receipted, running, done, excluded, checkedDraft(QString())},
        kCloud, kAccount, kNow);
    EXPECT_EQ(cache.entries().keys(), (QStringList {u"cloud-1|acc-1|k1"_s, u"cloud-1|acc-1|k2"_s}));

    QVariantMap otherComment = rebuilt(checkedDraft(u"k1"_s));
    otherComment.insert(u"comment"_s, u"Design review"_s);
    QVariantList drafts {otherComment, rebuilt(checkedDraft(u"k2"_s, 1800))};
    const QVariantList before = drafts;
    cache.applyToDrafts(drafts, kCloud, kAccount, kNow, 300);
    EXPECT_EQ(drafts, before);

    // Another account on the same site sees nothing of this one's checks.
    QVariantList same {rebuilt(checkedDraft(u"k2"_s))};
    cache.applyToDrafts(same, kCloud, u"acc-2"_s, kNow, 300);
    EXPECT_FALSE(same.first().toMap().contains(u"comparison_cached"_s));
    // Without an account nothing is read or written.
    cache.applyToDrafts(same, kCloud, QString(), kNow, 300);
    EXPECT_FALSE(same.first().toMap().contains(u"comparison_cached"_s));
    const QVariantMap entries = cache.entries();
    cache.saveDrafts({checkedDraft(u"k9"_s)}, kCloud, QString(), kNow);
    EXPECT_EQ(cache.entries(), entries);
}

TEST(ComparisonCache, TrimmingRemovesTheOldestEntriesButNeverTheCheckJustMade)
{
    // Entries in the file before the save, entries after it, and whether they were all checked after it (the
    // clock was set back since).
    for (const auto &[existing, expectedAfter, later] :
        {std::tuple {1999, 2000, false}, {2000, 2000, false}, {2010, 2005, false}, {2000, 2000, true}}) {
        ComparisonCache cache(testenv::freshDir(u"cache"_s));
        QVariantMap entries;
        for (int i = 0; i < existing; ++i)
            entries.insert(u"c|a|old-%1"_s.arg(i, 5, 10, QLatin1Char('0')),
                QVariantMap {{u"fingerprint"_s, u"f"_s},
                    // Newest first in key order, so the removal must follow "checked_at", not the keys.
                    {u"checked_at"_s, later ? double(kNow.toSecsSinceEpoch()) + 3600.0 : 1000.0 + existing - i}});
        cache.write(entries);
        cache.saveDrafts({checkedDraft(u"k1"_s)}, u"c"_s, u"a"_s, kNow);

        const QVariantMap after = cache.entries();
        ASSERT_EQ(after.size(), expectedAfter) << existing;
        EXPECT_TRUE(after.contains(u"c|a|k1"_s)) << existing;
        for (int i = 0; i < existing && !later; ++i) {
            const bool oldest = i >= expectedAfter - 1;
            EXPECT_EQ(after.contains(u"c|a|old-%1"_s.arg(i, 5, 10, QLatin1Char('0'))), !oldest) << i;
        }
    }
}
