#include "worklogs/durations.h"
#include "worklogs/preferences.h"
#include "worklogs/text.h"

#include "support/testenv.h"
#include "worklogbuilders.h"

#include <QCryptographicHash>

#include <future>

using namespace wl;

namespace
{

struct BoolPreference {
    const char *key;
    bool (*get)();
    void (*set)(bool);
    bool absent;
};
void PrintTo(const BoolPreference &p, std::ostream *os)
{
    *os << p.key;
}
class BoolPreferences : public EngineTest, public ::testing::WithParamInterface<BoolPreference>
{
};

TEST_P(BoolPreferences, DefaultOnlyWhenAbsent)
{
    const BoolPreference p = GetParam();
    EXPECT_EQ(p.get(), p.absent);
    p.set(!p.absent);
    EXPECT_EQ(QSettings().value(S(p.key)).toBool(), !p.absent);
    EXPECT_EQ(p.get(), !p.absent);
    // A stored NO stays NO for the YES-by-default group: presence, not truthiness, selects the default.
    QSettings().setValue(S(p.key), false);
    EXPECT_FALSE(p.get());
}
INSTANTIATE_TEST_SUITE_P(Table, BoolPreferences,
    ::testing::Values(
        BoolPreference {"IgnoreSessionsUnderOneMinute", JRIgnoreShortSessions, JRSetIgnoreShortSessions, true},
        BoolPreference {"HideShortSessionsInHistory", JRHideShortSessions, JRSetHideShortSessions, false},
        BoolPreference {"AutoCompareOnReviewOpen", JRAutoCompareOnOpen, JRSetAutoCompareOnOpen, true},
        BoolPreference {"CombineDailyByIssue", JRCombineDailyByIssue, JRSetCombineDailyByIssue, true},
        BoolPreference {"WorkdayReminderEnabled", JRWorkdayReminderEnabled, JRSetWorkdayReminderEnabled, false},
        BoolPreference {"WorkdayIncludesWeekends", JRWorkdayWeekendsIncluded, JRSetWorkdayWeekendsIncluded, false},
        BoolPreference {"ReduceEstimateOnPost", JRReduceEstimateOnPost, JRSetReduceEstimateOnPost, false}));

class Preferences : public EngineTest
{
};

TEST_F(Preferences, WorkdayMinutesAcceptOnlyMinutesOfOneDay)
{
    EXPECT_EQ(JRWorkdayEndMinutes(), 1020);
    for (const auto &[stored, expected] : {std::pair {1440, 540}, {-5, 540}, {0, 0}, {1439, 1439}}) {
        QSettings().setValue(S("WorkdayStartMinutes"), stored);
        EXPECT_EQ(JRWorkdayStartMinutes(), expected) << stored;
    }
    JRSetWorkdayMinutes(1000, 60); // no ordering check
    EXPECT_EQ(JRWorkdayStartMinutes(), 1000);
    EXPECT_EQ(JRWorkdayEndMinutes(), 60);
    for (int day = 1; day <= 7; ++day)
        EXPECT_EQ(JRWorkdayIncludesWeekday(day), day != 1 && day != 7) << day;
    JRSetWorkdayWeekendsIncluded(true);
    EXPECT_TRUE(JRWorkdayIncludesWeekday(1) && JRWorkdayIncludesWeekday(7));
}

TEST(Duration, RoundingAndPostSeconds)
{
    for (const auto &[in, out] : {std::pair<qint64, qint64> {-90, 0}, {0, 0}, {29, 0}, {30, 60}, {89, 60}, {90, 120},
             {std::numeric_limits<qint64>::max(), std::numeric_limits<qint64>::max() / 60 * 60}})
        EXPECT_EQ(JRRoundedSeconds(in), out) << in;
    EXPECT_EQ(JRPostSeconds(rec({{"post_seconds", 0}, {"seconds", 600}})), 0);
    EXPECT_EQ(JRPostSeconds(rec({{"seconds", 600}})), 600);
    for (const auto &[in, out] : {std::pair<qint64, const char *> {-10, "0m"}, {59, "0m"}, {3599, "59m"}, {3600, "1h"},
             {3660, "1h 1m"}, {5400, "1h 30m"}, {90061, "25h 1m"}})
        EXPECT_EQ(JRDurationText(in), S(out)) << in;
}

struct TextCase {
    const char *text;
    qint64 seconds;
};
class SecondsFromText : public ::testing::TestWithParam<TextCase>
{
};
TEST_P(SecondsFromText, MinutesOrHoursAndMinutes)
{
    EXPECT_EQ(JRSecondsFromText(S(GetParam().text)), GetParam().seconds);
}
INSTANTIATE_TEST_SUITE_P(Table, SecondsFromText,
    ::testing::Values(TextCase {"90", 5400}, TextCase {"1h30m", 5400}, TextCase {"1 h 30 m", 5400},
        TextCase {"2H", 7200}, TextCase {"45M", 2700}, TextCase {"000000", 0}, TextCase {"0h", 0},
        TextCase {" 90\n", 5400}, TextCase {"999999h 59m", 3599996400 + 3540}, TextCase {"", -1}, TextCase {"  ", -1},
        TextCase {"1.5h", -1}, TextCase {"1:30", -1}, TextCase {"1234567", -1}, TextCase {"30 min", -1},
        TextCase {"1h30", -1}, TextCase {"h", -1}, TextCase {"-5", -1}, TextCase {"1m 2h", -1},
        TextCase {"\xef\xbc\x91h", -1}));

TEST(Comment, CutsTheLastTagLineOfTheFirstNameFound)
{
    const std::pair<const char *, const char *> cases[] = {{"Fix login\n[Hourloom:ab12]", "Fix login"},
        {"[Hourloom:ab12]", ""}, {"a\n[Hourloom:x]\nb\n[Hourloom:y]", "a\n[Hourloom:x]\nb"},
        {"a\n[Stintwatch Companion:x]", "a"}, {"[Stintwatch Companion:x]", ""},
        {"a\n[Hourloom:x]\nb\n[Stintwatch Companion:y]", "a"}, {"text [Hourloom:x]", "text [Hourloom:x]"}};
    for (const auto &[in, out] : cases)
        EXPECT_EQ(JRCommentFromText(S(in)), S(out)) << in;
}

TEST(Text, ReadsOnlyTextAndContent)
{
    const QVariantMap second = rec({{"content",
        QVariantList {rec({{"text", S("Line ")}, {"marks", QVariantList {S("strong")}}}), rec({{"text", 5}})}}});
    const QVariantMap doc
        = rec({{"content", QVariantList {get(document(S("Line one")), "content").toList()[0], second}}});
    EXPECT_EQ(JRText(doc), S("Line one\nLine \n"));
    EXPECT_EQ(JRText(rec({{"text", S("a")}, {"content", S("b")}})), S("ab"));
    EXPECT_EQ(JRText(42), QString());
}

TEST(Dates, ParsesInstantsInAnyOffsetAndWritesTheLocalOne)
{
    // 2026-03-02T03:30:00Z = 1772422200000 ms.
    const std::pair<const char *, qint64> cases[] = {{"2026-03-02T09:00:00.000+0530", 1772422200000},
        {"2026-03-02T09:00:00+0530", 1772422200000}, {"2026-03-01T22:30:00.250-0500", 1772422200250},
        {"2026-03-02T09:00:00.000", -1}, {"2026-02-30T09:00:00.000+0000", -1}, {"2026-03-02T24:00:00.000+0000", -1},
        {"2026-03-02 09:00:00.000+0530", -1}, {"2026-03-02T09:00:00.00+0000", -1},
        {"2026-03-02T09:00:00.000+05300", -1}};
    for (const auto &[text, ms] : cases)
        EXPECT_EQ(JRDate(S(text)).isValid() ? JRDate(S(text)).toMSecsSinceEpoch() : -1, ms) << text;
    EXPECT_FALSE(JRDate(qint64(1772422200000)).isValid());

    const std::tuple<const char *, QDateTime, const char *> iso[] = {
        {"Europe/Berlin", QDateTime(QDate(2026, 3, 28), QTime(23, 30), Qt::UTC), "2026-03-29T00:30:00.000+0100"},
        {"Europe/Berlin", QDateTime(QDate(2026, 3, 29), QTime(1, 30), Qt::UTC), "2026-03-29T03:30:00.000+0200"},
        {"Europe/Berlin", QDateTime(QDate(2026, 10, 24), QTime(22, 30), Qt::UTC), "2026-10-25T00:30:00.000+0200"},
        {"Asia/Kolkata", QDateTime(QDate(2026, 3, 1), QTime(18, 40, 0, 5), Qt::UTC), "2026-03-02T00:10:00.005+0530"},
        {"America/St_Johns", QDateTime(QDate(2026, 7, 1), QTime(12, 0), Qt::UTC), "2026-07-01T09:30:00.000-0230"}};
    for (const auto &[zone, utc, text] : iso) {
        testenv::ScopedTimeZone scoped(zone);
        EXPECT_EQ(JRISO(utc), S(text)) << zone;
        EXPECT_EQ(JRDate(JRISO(utc)), utc) << zone;
    }
}

TEST(Hash, IsSha256OfUtf8InLowerCaseHex)
{
    EXPECT_EQ(JRHash(S("abc")), S("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"));
    EXPECT_EQ(JRHash(S("\xc3\xbc")),
        QString::fromLatin1(QCryptographicHash::hash("\xc3\xbc", QCryptographicHash::Sha256).toHex()));
}

TEST_F(Preferences, SnapshotReadsEachValueOnceAndFollowsOnlyItsOwnThreadsWrites)
{
    {
        const JRPreferenceSnapshot snapshot;
        EXPECT_TRUE(JRIgnoreShortSessions());
        // Another writer during the run: the run keeps the value it started with; other threads read afresh.
        QSettings().setValue(S("IgnoreSessionsUnderOneMinute"), false);
        EXPECT_TRUE(JRIgnoreShortSessions());
        EXPECT_FALSE(std::async(std::launch::async, JRIgnoreShortSessions).get());
        {
            const JRPreferenceSnapshot inner; // an inner one neither rereads nor ends the outer one
            EXPECT_TRUE(JRIgnoreShortSessions());
        }
        EXPECT_TRUE(JRIgnoreShortSessions());
        // The run's own writes apply at once.
        JRSetWorkdayMinutes(600, 900);
        EXPECT_EQ(JRWorkdayStartMinutes(), 600);
        JRSetCombineDailyByIssue(false);
        EXPECT_FALSE(JRCombineDailyByIssue());
    }
    EXPECT_FALSE(JRIgnoreShortSessions());
    EXPECT_EQ(JRWorkdayEndMinutes(), 900);
    EXPECT_FALSE(QSettings().value(S("CombineDailyByIssue")).toBool());
}

} // namespace
