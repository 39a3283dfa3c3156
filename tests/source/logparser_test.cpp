#include "source/logparser.h"
#include "support/testenv.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <tuple>

namespace
{

const std::string kStamp = "[2026-03-29 14:05:09.123] [Thread 7]";
const std::string kTime = "2026-03-29 14:05:09.123";

struct EventCase {
    std::string line;
    int kind;
    std::string timestamp = {}, description = {};
    int64_t project = 0, activity = 0;
};

class ParseEvent : public ::testing::TestWithParam<EventCase>
{
};

} // namespace

TEST_P(ParseEvent, RecognisesTheFourEventLines)
{
    const EventCase &c = GetParam();
    const tracker::Event e = tracker::parseEvent(c.line);
    EXPECT_EQ(std::tie(e.kind, e.timestamp, e.description, e.project, e.activity),
        std::tie(c.kind, c.timestamp, c.description, c.project, c.activity))
        << c.line;
}

INSTANTIATE_TEST_SUITE_P(Lines, ParseEvent,
    ::testing::Values(EventCase {kStamp + " [Info] Tracking started (project id: 42) by hotkey\r", 1, kTime, "", 42},
        EventCase {kStamp + " [Info] Tracking stopped (project id: 0)", 2, kTime, "", 0},
        EventCase {kStamp + " [Info] Adding activity description \"Fix ENG-7\" for project 9 to storage", 3, kTime,
            "Fix ENG-7", 9},
        // Greedy: up to the last quote before " for project"; bytes as written.
        EventCase {kStamp
                + " [Info] Adding activity description \"say \"hi\" for project 1 to storage\xff\" for "
                  "project 2 to storage",
            3, kTime, "say \"hi\" for project 1 to storage\xff", 2},
        EventCase {kStamp + " [Info] Service timeout, updating activity end time (id: 9223372036854775807)", 4, kTime,
            "", 0, INT64_MAX},
        EventCase {"[yesterday] [Info] Tracking stopped (project id: 5)", 2, "yesterday", "", 5},
        // The first pattern in order wins, not the first phrase in the line.
        EventCase {kStamp + " [Info] Tracking stopped (project id: 2) [Info] Tracking started (project id: 1)", 1,
            kTime, "", 1},
        EventCase {kStamp + " [Warning] Tracking started (project id: 42)", 0},
        EventCase {" " + kStamp + " [Info] Tracking started (project id: 42)", 0},
        EventCase {"[] [Info] Tracking started (project id: 42)", 0},
        EventCase {kStamp + " [Info] Tracking started (project id: -4)", 0},
        EventCase {kStamp + " [Info] Adding activity description \"cut off\" for proj", 0},
        // "." stops at CR and LF, as in ECMAScript.
        EventCase {kStamp + "\r [Info] Tracking started (project id: 42)", 0},
        EventCase {kStamp + " [Info] Adding activity description \"a\nb\" for project 1 to storage", 0},
        EventCase {kStamp + " [Info] Synchronised 14 activities", 0}, EventCase {"", 0}));

TEST(ParseEventLimits, NumbersBeyondSixtyFourBitsRaiseOutOfRange)
{
    EXPECT_THROW(
        tracker::parseEvent(kStamp + " [Info] Tracking started (project id: 9223372036854775808)"), std::out_of_range);
    EXPECT_THROW(tracker::parseEvent(kStamp + " [Info] Adding activity description \"\" for project 1"
                     + std::string(30, '0') + " to storage"),
        std::out_of_range);
    EXPECT_EQ(
        tracker::parseEvent(kStamp + " [Info] Tracking started (project id: 000000000000000000000042)").project, 42);
}

TEST(ParseEventLimits, LongAndBinaryLinesNeitherCrashNorStall)
{
    const std::string huge(2 * 1024 * 1024, 'x');
    EXPECT_EQ(
        tracker::parseEvent(kStamp + " [Info] Adding activity description \"" + huge + "\" for project 6 to storage")
            .description,
        huge);
    EXPECT_EQ(tracker::parseEvent(kStamp + huge + " [Info] Tracking started (project id: 8)").project, 8);

    std::string misses = kStamp; // many near misses, the worst case for backtracking
    for (int i = 0; i < 20000; ++i)
        misses += " [Info] Adding activity description \"x";
    EXPECT_EQ(tracker::parseEvent(misses + "\" for project x to storage").kind, 0);
    EXPECT_EQ(tracker::parseEvent(misses + "\" for project 1 to storage").description, "x");

    std::string binary(1024 * 1024, '\0');
    for (size_t i = 0; i < binary.size(); ++i)
        binary[i] = static_cast<char>(i * 131 % 256);
    EXPECT_EQ(tracker::parseEvent(binary).kind, 0);
    EXPECT_EQ(tracker::parseEvent("[x]" + binary + " [Info] Tracking stopped (project id: 3)").kind, 0); // holds LF
}

TEST(Issue, FindsFirstKeyWithAsciiWordBoundariesUpperCased)
{
    const std::vector<std::pair<std::string, std::string>> cases {{"Fix ENG-7 and ENG-8", "ENG-7"}, {"eng-7", "ENG-7"},
        {"ENG-", ""}, {"", ""}, {"(abc_2-15): review", "ABC_2-15"}, {"ENG-7x ENG-9", "ENG-9"}, {"2ENG-7 A-1", "A-1"},
        {"_ENG-7", ""}, {"ENG-12-34", "ENG-12"},
        {"caf\xc3\xa9-12 \xc3\xa9"
         "ENG-3",
            "ENG-3"}, // bytes above ASCII are neither letters nor word characters
        {std::string(100000, 'a') + "-1", std::string(100000, 'A') + "-1"}};
    for (const auto &[text, key] : cases)
        EXPECT_EQ(tracker::issue(text), key) << text.substr(0, 40);
}

TEST(EventDate, ParsesOnlyTheExactPatternInLocalTime)
{
    for (const char *bad :
        {"2026-03-29 14:05:09", "2026-03-29 14:05:09.12", "2026-03-29 14:05:09.1234", "2026-03-29 14:05:09.123Z",
            " 2026-03-29 14:05:09.123", "2026-03-29T14:05:09.123", "2025-02-29 10:00:00.000", "2026-03-29 24:00:00.000",
            "2026-3-29 14:05:09.123", "2026-03-29 14:05:0\xd9\xa9.123", ""})
        EXPECT_FALSE(HLEventDate(QString::fromUtf8(bad)).isValid()) << bad;

    const qint64 utc = 1774793109123; // 2026-03-29 14:05:09.123 UTC
    for (const auto &[zone, offset] :
        {std::pair {"UTC", 0}, std::pair {"Europe/Berlin", 7200}, std::pair {"Asia/Kolkata", 19800}}) {
        testenv::ScopedTimeZone scoped(zone);
        EXPECT_EQ(HLEventDate(QString::fromStdString(kTime)).toMSecsSinceEpoch(), utc - offset * 1000LL) << zone;
    }
    testenv::ScopedTimeZone berlin("Europe/Berlin"); // before that morning's change, one hour
    EXPECT_EQ(HLEventDate(QStringLiteral("2026-03-29 01:59:59.999")).toMSecsSinceEpoch(),
        QDateTime(QDate(2026, 3, 29), QTime(0, 59, 59, 999), Qt::UTC).toMSecsSinceEpoch());
}
