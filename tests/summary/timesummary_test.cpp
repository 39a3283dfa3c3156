#include "summary/timesummary.h"
#include "support/testenv.h"

#include <QLocale>
#include <QSettings>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace
{

const QStringList kKeys {
    u"SummaryPeriod"_s, u"SummaryMonthly"_s, u"WeekStart"_s, u"HourlyRate"_s, u"HourlyCurrency"_s, u"ShowEarnings"_s};

void clearSettings()
{
    QSettings settings;
    for (const QString &key : kKeys)
        settings.remove(key);
}

QDateTime utc(const char *text)
{
    return QDateTime::fromString(QString::fromLatin1(text), Qt::ISODate);
}

QDateTime local(int year, int month, int day, int hour, int minute = 0, int second = 0)
{
    return QDateTime(QDate(year, month, day), QTime(hour, minute, second));
}

QVariantMap session(const QDateTime &start, const QDateTime &end)
{
    return {
        {u"start_ms"_s, start.toMSecsSinceEpoch()}, {u"end_ms"_s, end.toMSecsSinceEpoch()}, {u"issue"_s, u"AB-1"_s}};
}

class TimeSummaryTest : public ::testing::Test
{
protected:
    void SetUp() override { clearSettings(); }
    void TearDown() override
    {
        clearSettings();
        QLocale::setDefault(QLocale::system());
    }
};

struct StartCase {
    const char *zone;
    const char *now; // UTC
    int period;
    int weekStart;
    const char *expected; // UTC
};

void PrintTo(const StartCase &c, std::ostream *out)
{
    *out << c.zone << " " << c.now << " period " << c.period << " week start " << c.weekStart;
}

class SummaryStart : public TimeSummaryTest, public ::testing::WithParamInterface<StartCase>
{
};

} // namespace

TEST_P(SummaryStart, BeginsAtLocalMidnightOfTheRightDay)
{
    const StartCase &c = GetParam();
    testenv::ScopedTimeZone zone(c.zone);
    TimeSummary::setConfiguredWeekStart(c.weekStart);
    const QDateTime start = TimeSummary::summaryStart(utc(c.now), c.period);
    EXPECT_EQ(start.toUTC(), utc(c.expected)) << start.toUTC().toString(Qt::ISODate).toStdString();
}

INSTANTIATE_TEST_SUITE_P(Zones, SummaryStart,
    ::testing::Values(
        // Berlin, Sunday 2026-03-29 12:00 CEST: clocks went forward at 02:00 that morning.
        StartCase {"Europe/Berlin", "2026-03-29T10:00:00Z", 0, 1, "2026-03-28T23:00:00Z"},
        StartCase {"Europe/Berlin", "2026-03-29T10:00:00Z", 1, 1, "2026-03-22T23:00:00Z"},
        StartCase {"Europe/Berlin", "2026-03-29T10:00:00Z", 1, 2, "2026-03-28T23:00:00Z"},
        StartCase {"Europe/Berlin", "2026-03-29T10:00:00Z", 1, 3, "2026-03-27T23:00:00Z"},
        StartCase {"Europe/Berlin", "2026-03-29T10:00:00Z", 2, 1, "2026-02-28T23:00:00Z"},
        // Wednesday after the change: a Sunday week starts before it (CET), a Monday week after it (CEST).
        StartCase {"Europe/Berlin", "2026-04-01T08:00:00Z", 1, 1, "2026-03-29T22:00:00Z"},
        StartCase {"Europe/Berlin", "2026-04-01T08:00:00Z", 1, 2, "2026-03-28T23:00:00Z"},
        StartCase {"Europe/Berlin", "2026-04-01T08:00:00Z", 2, 1, "2026-03-31T22:00:00Z"},
        // The autumn change, Sunday 2026-10-25.
        StartCase {"Europe/Berlin", "2026-10-25T12:00:00Z", 1, 1, "2026-10-18T22:00:00Z"},
        StartCase {"Europe/Berlin", "2026-10-25T12:00:00Z", 0, 1, "2026-10-24T22:00:00Z"},
        // Kolkata (+05:30): 20:00 UTC on Sunday is already Monday 01:30 there.
        StartCase {"Asia/Kolkata", "2026-03-29T20:00:00Z", 0, 1, "2026-03-29T18:30:00Z"},
        StartCase {"Asia/Kolkata", "2026-03-29T20:00:00Z", 1, 1, "2026-03-29T18:30:00Z"},
        StartCase {"Asia/Kolkata", "2026-03-29T20:00:00Z", 1, 2, "2026-03-28T18:30:00Z"},
        StartCase {"Asia/Kolkata", "2026-03-29T20:00:00Z", 1, 3, "2026-03-27T18:30:00Z"},
        StartCase {"Asia/Kolkata", "2026-03-29T20:00:00Z", 2, 1, "2026-02-28T18:30:00Z"},
        // UTC across a year boundary.
        StartCase {"UTC", "2026-01-01T00:00:00Z", 1, 1, "2025-12-29T00:00:00Z"},
        StartCase {"UTC", "2026-01-01T00:00:00Z", 1, 3, "2025-12-27T00:00:00Z"},
        StartCase {"UTC", "2026-01-01T00:00:00Z", 2, 1, "2026-01-01T00:00:00Z"},
        StartCase {"UTC", "2026-01-31T23:59:59Z", 2, 1, "2026-01-01T00:00:00Z"}));

TEST_F(TimeSummaryTest, WeekStartZeroFollowsTheCalendarsOwnFirstWeekday)
{
    testenv::ScopedTimeZone zone("UTC");
    TimeSummary::setConfiguredWeekStart(0);
    const QDateTime wednesday = utc("2026-04-01T08:00:00Z");
    QLocale::setDefault(QLocale(u"en_US"_s));
    EXPECT_EQ(TimeSummary::summaryStart(wednesday, 1), utc("2026-03-29T00:00:00Z"));
    QLocale::setDefault(QLocale(u"de_DE"_s));
    EXPECT_EQ(TimeSummary::summaryStart(wednesday, 1), utc("2026-03-30T00:00:00Z"));
}

TEST_F(TimeSummaryTest, ReadsAbsentAndOutOfRangeSettingsAsTheDefaults)
{
    QSettings settings;
    EXPECT_EQ(TimeSummary::configuredPeriod(), 1);
    EXPECT_EQ(TimeSummary::configuredWeekStart(), 1);

    settings.setValue(u"SummaryMonthly"_s, true);
    EXPECT_EQ(TimeSummary::configuredPeriod(), 2);
    settings.setValue(u"SummaryMonthly"_s, false);
    EXPECT_EQ(TimeSummary::configuredPeriod(), 1);

    settings.setValue(u"SummaryMonthly"_s, true);
    TimeSummary::setConfiguredPeriod(0);
    EXPECT_EQ(TimeSummary::configuredPeriod(), 0);
    EXPECT_EQ(settings.value(u"SummaryPeriod"_s), QVariant(0));
    EXPECT_FALSE(settings.contains(u"SummaryMonthly"_s));
    // Values as the settings file holds them, whoever wrote them.
    settings.setValue(u"SummaryPeriod"_s, 3);
    EXPECT_EQ(TimeSummary::configuredPeriod(), 1);
    settings.setValue(u"SummaryPeriod"_s, 2);
    EXPECT_EQ(TimeSummary::configuredPeriod(), 2);

    TimeSummary::setConfiguredWeekStart(3);
    EXPECT_EQ(settings.value(u"WeekStart"_s), QVariant(3));
    settings.setValue(u"WeekStart"_s, 0);
    EXPECT_EQ(TimeSummary::configuredWeekStart(), 0);
    settings.setValue(u"WeekStart"_s, 4);
    EXPECT_EQ(TimeSummary::configuredWeekStart(), 1);
}

// Runs under every zone of the suite: the covered time does not depend on where midnight falls, except on
// a day whose midnight-to-now is shorter, which the DST test below pins down.
TEST_F(TimeSummaryTest, CountsOverlappingSessionsOnceAndClipsToThePeriodAndNow)
{
    const QDateTime now = local(2026, 3, 26, 12);
    const QVariantList sessions {
        session(local(2026, 3, 26, 9), local(2026, 3, 26, 10)),
        session(local(2026, 3, 26, 9, 30), local(2026, 3, 26, 10, 30)),
        session(local(2026, 3, 26, 9, 40), local(2026, 3, 26, 9, 50)), // inside the union
        session(local(2026, 3, 26, 10, 30), local(2026, 3, 26, 10, 45)), // touches its end
        session(local(2026, 3, 26, 11, 50), local(2026, 3, 26, 13)), // still running: counts to now
        session(local(2026, 3, 25, 23), local(2026, 3, 26, 0, 15)), // began yesterday: counts from midnight
        session(local(2026, 3, 25, 8), local(2026, 3, 25, 9)), // yesterday only
        session(local(2026, 3, 26, 11), local(2026, 3, 26, 10)), // unfinished marker: end before start
        QVariantMap {{u"issue"_s, u"AB-2"_s}}, // no times at all
    };
    // 09:00-10:45 (105 min) + 11:50-12:00 (10 min) + 00:00-00:15 (15 min).
    EXPECT_DOUBLE_EQ(TimeSummary::seconds(sessions, now, 0), 130 * 60.0);
    // The week (Monday 23rd) also holds yesterday's hour and the 45 minutes before midnight.
    EXPECT_DOUBLE_EQ(TimeSummary::seconds(sessions, now, 1), (130 + 60 + 60) * 60.0);
    EXPECT_DOUBLE_EQ(TimeSummary::seconds({}, now, 0), 0.0);
    EXPECT_EQ(TimeSummary::summaryText(sessions, now, 0), u"Today · 2h 10m"_s);
}

TEST_F(TimeSummaryTest, TodayIsElevenHoursLongAtNoonOnTheSpringChange)
{
    testenv::ScopedTimeZone zone("Europe/Berlin");
    const QDateTime now = utc("2026-03-29T10:00:00Z"); // 12:00 CEST
    const QVariantList sessions {session(utc("2026-03-28T20:00:00Z"), utc("2026-03-29T11:00:00Z"))};
    EXPECT_DOUBLE_EQ(TimeSummary::seconds(sessions, now, 0), 11 * 3600.0);
    EXPECT_EQ(TimeSummary::summaryText(sessions, now, 0), u"Today · 11h 0m"_s);
}

TEST_F(TimeSummaryTest, AppendsEarningsOnlyForAValidRateThatIsShown)
{
    const QDateTime now = local(2026, 3, 26, 12);
    const QVariantList hourAndFive {session(local(2026, 3, 26, 10), local(2026, 3, 26, 11, 5, 59))};
    EXPECT_EQ(TimeSummary::summaryText(hourAndFive, now, 0), u"Today · 1h 5m"_s);

    QSettings settings;
    settings.setValue(u"HourlyRate"_s, u"45 USD"_s);
    EXPECT_EQ(TimeSummary::summaryText(hourAndFive, now, 0), u"Today · 1h 5m"_s);

    const QVariantList sixMinutes {session(local(2026, 3, 26, 10), local(2026, 3, 26, 10, 6))};
    settings.setValue(u"HourlyRate"_s, u" 45,5\n"_s);
    EXPECT_EQ(TimeSummary::summaryText(sixMinutes, now, 0), u"Today · 0h 6m · $4.55"_s);
    settings.setValue(u"HourlyCurrency"_s, u"EUR"_s);
    EXPECT_EQ(TimeSummary::summaryText(sixMinutes, now, 0), u"Today · 0h 6m · €4.55"_s);
    settings.setValue(u"ShowEarnings"_s, false);
    EXPECT_EQ(TimeSummary::summaryText(sixMinutes, now, 0), u"Today · 0h 6m"_s);
    settings.setValue(u"ShowEarnings"_s, true);
    settings.setValue(u"HourlyCurrency"_s, u"JPY"_s);
    settings.setValue(u"HourlyRate"_s, u"4550"_s);
    EXPECT_EQ(TimeSummary::summaryText(sixMinutes, now, 0), u"Today · 0h 6m · ¥455"_s);

    // The configured period drives the label.
    TimeSummary::setConfiguredPeriod(2);
    EXPECT_TRUE(TimeSummary::summaryText(sixMinutes, now).startsWith(u"This month · 0h 6m"_s));
}

struct RateCase {
    const char *text;
    const char *expected; // nullptr: rejected
};

class RateFromText : public ::testing::TestWithParam<RateCase>
{
};

TEST_P(RateFromText, AcceptsUpToSevenDigitsAndFourDecimals)
{
    const auto rate = TimeSummary::rateFromText(QString::fromUtf8(GetParam().text));
    if (!GetParam().expected)
        EXPECT_FALSE(rate) << rate->toString().toStdString();
    else
        EXPECT_EQ(rate ? rate->toString() : QString(), QString::fromLatin1(GetParam().expected));
}

INSTANTIATE_TEST_SUITE_P(Table, RateFromText,
    ::testing::Values(RateCase {"45", "45"}, RateCase {"45.5", "45.5"}, RateCase {"45,50", "45.50"},
        RateCase {"\t 9999999.9999 \n", "9999999.9999"}, RateCase {"0", "0"}, RateCase {"45.12345", nullptr},
        RateCase {"12345678", nullptr}, RateCase {"45 USD", nullptr}, RateCase {"", nullptr}, RateCase {"-5", nullptr},
        RateCase {"4 5", nullptr}, RateCase {"45.", nullptr}, RateCase {".5", nullptr}, RateCase {"1e3", nullptr},
        RateCase {"45\n46", nullptr}, RateCase {"\xd9\xa4\xd9\xa5", nullptr}));

TEST(Money, FormatsLikeUSEnglishForAnyCurrencyCode)
{
    const std::tuple<const char *, QString, QString> cases[]
        = {{"4.5500000000", u"USD"_s, u"$4.55"_s}, {"1234.5", u"EUR"_s, u"€1,234.50"_s}, {"455.5", u"JPY"_s, u"¥456"_s},
            {"3", u"GBP"_s, u"£3.00"_s}, {"3", u"CHF"_s, u"CHF\u00a03.00"_s}, {"3.456", u"KWD"_s, u"KWD\u00a03.456"_s},
            // Exact halves round to even, as the platform's currency formatter does.
            {"0.125", u"USD"_s, u"$0.12"_s}, {"0.135", u"USD"_s, u"$0.14"_s},
            {"12345678901234567890.99", u"USD"_s, u"$12,345,678,901,234,567,890.99"_s},
            // Not a currency code: never a wrong symbol.
            {"4.5", u"euro"_s, u"4.50 euro"_s}};
    for (const auto &[amount, currency, text] : cases)
        EXPECT_EQ(TimeSummary::money(*Decimal::fromText(QString::fromLatin1(amount)), currency), text) << amount;
}

TEST_F(TimeSummaryTest, ListRangesAreWholeLocalDays)
{
    testenv::ScopedTimeZone zone("Europe/Berlin");
    const QDateTime now = utc("2026-03-30T10:00:00Z"); // Monday after the spring change
    QDateTime start, end;
    TimeSummary::period(0, now, {}, {}, start, end);
    EXPECT_EQ(start, utc("2026-03-29T22:00:00Z"));
    EXPECT_EQ(end, utc("2026-03-30T22:00:00Z"));
    TimeSummary::period(1, now, {}, {}, start, end);
    EXPECT_EQ(start, utc("2026-03-28T23:00:00Z")); // the 23-hour day
    EXPECT_EQ(end, utc("2026-03-29T22:00:00Z"));
    TimeSummary::period(2, now, {}, {}, start, end);
    EXPECT_EQ(start, utc("2026-03-23T23:00:00Z"));
    EXPECT_EQ(end, utc("2026-03-30T22:00:00Z"));

    TimeSummary::period(3, now, utc("2026-03-28T12:00:00Z"), utc("2026-03-29T20:00:00Z"), start, end);
    EXPECT_EQ(start, utc("2026-03-27T23:00:00Z"));
    EXPECT_EQ(end, utc("2026-03-29T22:00:00Z"));
    TimeSummary::period(3, now, utc("2026-03-29T21:00:00Z"), utc("2026-03-29T01:00:00Z"), start, end);
    EXPECT_EQ(start, utc("2026-03-28T23:00:00Z")); // same local day, later hour first: that one day
    EXPECT_EQ(end, utc("2026-03-29T22:00:00Z"));
    TimeSummary::period(3, now, utc("2026-03-29T22:30:00Z"), utc("2026-03-29T21:00:00Z"), start, end);
    EXPECT_FALSE(start.isValid()); // end day before start day
    EXPECT_FALSE(end.isValid());
    TimeSummary::period(7, now, {}, {}, start, end);
    EXPECT_FALSE(start.isValid());
}

TEST(HLDuration, WritesHoursMinutesSeconds)
{
    EXPECT_EQ(HLDuration(0), u"0:00:00"_s);
    EXPECT_EQ(HLDuration(3725), u"1:02:05"_s);
    EXPECT_EQ(HLDuration(360000 + 59), u"100:00:59"_s);
}
