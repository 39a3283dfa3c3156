#include "worklogs/preferences.h"

#include "support/testenv.h"
#include "worklogbuilders.h"

#include <QCryptographicHash>
#include <QSettings>

#include <limits>

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

TEST_P(BoolPreferences, ReadsDefaultOnlyWhenAbsentAndStoresUnderItsKey)
{
    const BoolPreference p = GetParam();
    const QString key = QString::fromLatin1(p.key);
    EXPECT_EQ(p.get(), p.absent);
    p.set(!p.absent);
    EXPECT_EQ(QSettings().value(key).toBool(), !p.absent);
    EXPECT_EQ(p.get(), !p.absent);
    p.set(p.absent);
    EXPECT_EQ(p.get(), p.absent);
    // A stored NO stays NO for the YES-by-default group: presence, not truthiness, selects the default.
    QSettings().setValue(key, false);
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
    EXPECT_EQ(JRWorkdayStartMinutes(), 540);
    EXPECT_EQ(JRWorkdayEndMinutes(), 1020);
    const std::pair<int, int> cases[] = {{1440, 540}, {-5, 540}, {0, 0}, {1439, 1439}};
    for (const auto &[stored, expected] : cases) {
        QSettings().setValue(QStringLiteral("WorkdayStartMinutes"), stored);
        EXPECT_EQ(JRWorkdayStartMinutes(), expected) << stored;
    }
    // No ordering check: the start may lie after the end.
    JRSetWorkdayMinutes(1000, 60);
    EXPECT_EQ(JRWorkdayStartMinutes(), 1000);
    EXPECT_EQ(JRWorkdayEndMinutes(), 60);
}

TEST_F(Preferences, WeekendsCountOnlyWhenIncluded)
{
    for (int day = 1; day <= 7; ++day)
        EXPECT_EQ(JRWorkdayIncludesWeekday(day), day != 1 && day != 7) << day;
    JRSetWorkdayWeekendsIncluded(true);
    for (int day = 1; day <= 7; ++day)
        EXPECT_TRUE(JRWorkdayIncludesWeekday(day)) << day;
}

TEST(Rounding, NearestMinuteWithHalfUp)
{
    const std::pair<qint64, qint64> cases[] = {{-90, 0}, {0, 0}, {1, 0}, {29, 0}, {30, 60}, {89, 60}, {90, 120},
        {3599, 3600}, {std::numeric_limits<qint64>::max(), (std::numeric_limits<qint64>::max() / 60) * 60}};
    for (const auto &[seconds, expected] : cases)
        EXPECT_EQ(JRRoundedSeconds(seconds), expected) << seconds;
}

TEST(PostSeconds, PresentPostSecondsWinsEvenWhenZero)
{
    EXPECT_EQ(JRPostSeconds({{QStringLiteral("post_seconds"), 0}, {QStringLiteral("seconds"), 600}}), 0);
    EXPECT_EQ(JRPostSeconds({{QStringLiteral("seconds"), 600}}), 600);
    EXPECT_EQ(JRPostSeconds({}), 0);
}

struct DurationCase {
    qint64 seconds;
    const char *text;
};
class DurationText : public ::testing::TestWithParam<DurationCase>
{
};
TEST_P(DurationText, DropsLeftoverSeconds)
{
    EXPECT_EQ(JRDurationText(GetParam().seconds), QString::fromUtf8(GetParam().text));
}
INSTANTIATE_TEST_SUITE_P(Table, DurationText,
    ::testing::Values(DurationCase {-10, "0m"}, DurationCase {0, "0m"}, DurationCase {59, "0m"},
        DurationCase {3599, "59m"}, DurationCase {3600, "1h"}, DurationCase {3660, "1h 1m"},
        DurationCase {5400, "1h 30m"}, DurationCase {7200, "2h"}, DurationCase {90061, "25h 1m"}));

struct TextCase {
    const char *text;
    qint64 seconds;
};
class SecondsFromText : public ::testing::TestWithParam<TextCase>
{
};
TEST_P(SecondsFromText, ParsesMinutesOrHoursAndMinutes)
{
    EXPECT_EQ(JRSecondsFromText(QString::fromUtf8(GetParam().text)), GetParam().seconds);
}
INSTANTIATE_TEST_SUITE_P(Accepted, SecondsFromText,
    ::testing::Values(TextCase {"90", 5400}, TextCase {"1h30m", 5400}, TextCase {"1 h 30 m", 5400},
        TextCase {"2H", 7200}, TextCase {"45m", 2700}, TextCase {"45M", 2700}, TextCase {"000000", 0},
        TextCase {"0h", 0}, TextCase {" 90\n", 5400}, TextCase {"999999", 59999940},
        TextCase {"999999h 59m", 3599996400 + 3540}));
INSTANTIATE_TEST_SUITE_P(Rejected, SecondsFromText,
    ::testing::Values(TextCase {"", -1}, TextCase {"  ", -1}, TextCase {"1.5h", -1}, TextCase {"1:30", -1},
        TextCase {"1234567", -1}, TextCase {"30 min", -1}, TextCase {"1h30", -1}, TextCase {"h", -1},
        TextCase {"m", -1}, TextCase {"-5", -1}, TextCase {"1m 2h", -1}, TextCase {"1 h m", -1},
        TextCase {"\xef\xbc\x91h", -1}));

struct CommentCase {
    const char *text;
    const char *expected;
};
class CommentFromText : public ::testing::TestWithParam<CommentCase>
{
};
TEST_P(CommentFromText, CutsTheLastTagLine)
{
    EXPECT_EQ(JRCommentFromText(QString::fromUtf8(GetParam().text)), QString::fromUtf8(GetParam().expected));
}
INSTANTIATE_TEST_SUITE_P(Table, CommentFromText,
    ::testing::Values(CommentCase {"Fix login\n[Hourloom:ab12]", "Fix login"}, CommentCase {"[Hourloom:ab12]", ""},
        CommentCase {"a\n[Hourloom:x]\nb\n[Hourloom:y]", "a\n[Hourloom:x]\nb"},
        CommentCase {"a\n[Stintwatch Companion:x]", "a"}, CommentCase {"[Stintwatch Companion:x]", ""},
        // The current name's tag is looked for first, wherever the former one stands.
        CommentCase {"a\n[Hourloom:x]\nb\n[Stintwatch Companion:y]", "a"},
        CommentCase {"text [Hourloom:x]", "text [Hourloom:x]"}, CommentCase {"  \n[Hourloom:x]", "  "},
        CommentCase {"plain", "plain"}));

TEST(Text, JoinsListsWithLineBreaksAndReadsOnlyTextAndContent)
{
    const QVariantMap doc {{QStringLiteral("type"), QStringLiteral("doc")},
        {QStringLiteral("content"),
            QVariantList {document(QStringLiteral("Line one")).value(QStringLiteral("content")).toList().first(),
                QVariantMap {{QStringLiteral("type"), QStringLiteral("paragraph")},
                    {QStringLiteral("content"),
                        QVariantList {QVariantMap {{QStringLiteral("text"), QStringLiteral("Line ")},
                                          {QStringLiteral("marks"), QVariantList {QStringLiteral("strong")}}},
                            QVariantMap {{QStringLiteral("text"), 5}}}}}}}};
    EXPECT_EQ(JRText(doc), QStringLiteral("Line one\nLine \n"));
    EXPECT_EQ(JRText(QStringLiteral("as is")), QStringLiteral("as is"));
    EXPECT_EQ(JRText(QVariantMap {
                  {QStringLiteral("text"), QStringLiteral("a")}, {QStringLiteral("content"), QStringLiteral("b")}}),
        QStringLiteral("ab"));
    EXPECT_EQ(JRText(42), QString());
    EXPECT_EQ(JRText(QVariant()), QString());
}

struct DateCase {
    const char *text;
    qint64 utcMs; // -1: does not parse
};
class JiraDate : public ::testing::TestWithParam<DateCase>
{
};
TEST_P(JiraDate, ParsesBothFormatsAsInstants)
{
    const QDateTime date = JRDate(QString::fromLatin1(GetParam().text));
    if (GetParam().utcMs < 0) {
        EXPECT_FALSE(date.isValid());
    } else {
        ASSERT_TRUE(date.isValid());
        EXPECT_EQ(date.toMSecsSinceEpoch(), GetParam().utcMs);
    }
}
// 2026-03-02T03:30:00Z = 1772422200000 ms.
INSTANTIATE_TEST_SUITE_P(Table, JiraDate,
    ::testing::Values(DateCase {"2026-03-02T09:00:00.000+0530", 1772422200000},
        DateCase {"2026-03-02T09:00:00+0530", 1772422200000}, DateCase {"2026-03-02T03:30:00.250+0000", 1772422200250},
        DateCase {"2026-03-01T22:30:00.000-0500", 1772422200000}, DateCase {"2026-03-02T03:30:00.000Z", 1772422200000},
        DateCase {"2026-03-02 09:00:00.000+0530", -1}, DateCase {"2026-02-30T09:00:00.000+0000", -1},
        DateCase {"2026-03-02T24:00:00.000+0000", -1}, DateCase {"2026-03-02T09:00:00.000", -1},
        DateCase {"2026-03-02T09:00:00.00+0000", -1}, DateCase {"2026-03-02T09:00:00.000+05300", -1},
        DateCase {"2026-03-02T09:00:00.000+2500", -1}, DateCase {"", -1}, DateCase {"yesterday", -1}));

TEST(JiraDate, OnlyTextsAreDates)
{
    EXPECT_FALSE(JRDate(qint64(1772422200000)).isValid());
    EXPECT_FALSE(JRDate(QVariantMap()).isValid());
    EXPECT_FALSE(JRDate(QVariant()).isValid());
}

TEST(ISO, WritesTheLocalOffsetOfThatInstant)
{
    struct Case {
        const char *zone;
        QDateTime utc;
        const char *expected;
    };
    const Case cases[] = {
        {"Europe/Berlin", QDateTime(QDate(2026, 3, 28), QTime(23, 30), Qt::UTC), "2026-03-29T00:30:00.000+0100"},
        {"Europe/Berlin", QDateTime(QDate(2026, 3, 29), QTime(1, 30), Qt::UTC), "2026-03-29T03:30:00.000+0200"},
        {"Europe/Berlin", QDateTime(QDate(2026, 10, 24), QTime(22, 30), Qt::UTC), "2026-10-25T00:30:00.000+0200"},
        {"Asia/Kolkata", QDateTime(QDate(2026, 3, 1), QTime(18, 40, 0, 5), Qt::UTC), "2026-03-02T00:10:00.005+0530"},
        {"America/St_Johns", QDateTime(QDate(2026, 7, 1), QTime(12, 0), Qt::UTC), "2026-07-01T09:30:00.000-0230"},
        {"UTC", QDateTime(QDate(2026, 7, 1), QTime(12, 0), Qt::UTC), "2026-07-01T12:00:00.000+0000"},
    };
    for (const Case &c : cases) {
        testenv::ScopedTimeZone zone(c.zone);
        EXPECT_EQ(JRISO(c.utc), QString::fromLatin1(c.expected)) << c.zone;
        EXPECT_EQ(JRDate(JRISO(c.utc)), c.utc) << c.zone;
    }
    EXPECT_EQ(JRISO(QDateTime()), QString());
}

TEST(Hash, IsSha256OfUtf8InLowerCaseHex)
{
    EXPECT_EQ(JRHash(QStringLiteral("abc")),
        QStringLiteral("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"));
    EXPECT_EQ(JRHash(QString()), QStringLiteral("e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"));
    // "ü" as UTF-8 (c3 bc), not Latin-1.
    EXPECT_EQ(JRHash(QString::fromUtf8("\xc3\xbc")),
        QString::fromLatin1(QCryptographicHash::hash("\xc3\xbc", QCryptographicHash::Sha256).toHex()));
}

} // namespace
