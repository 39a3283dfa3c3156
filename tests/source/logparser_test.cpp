#include "source/logparser.h"
#include "support/testenv.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace
{

struct EventCase {
    const char *name;
    std::string line;
    int kind;
    std::string timestamp;
    int64_t project;
    int64_t activity;
    std::string description;
};

void PrintTo(const EventCase &c, std::ostream *out)
{
    *out << c.name;
}

class ParseEvent : public ::testing::TestWithParam<EventCase>
{
};

const std::string kStamp = "[2026-03-29 14:05:09.123]";

} // namespace

TEST_P(ParseEvent, RecognisesTheFourEventLines)
{
    const EventCase &c = GetParam();
    const tracker::Event event = tracker::parseEvent(c.line);
    EXPECT_EQ(event.kind, c.kind);
    EXPECT_EQ(event.timestamp, c.timestamp);
    EXPECT_EQ(event.project, c.project);
    EXPECT_EQ(event.activity, c.activity);
    EXPECT_EQ(event.description, c.description);
}

INSTANTIATE_TEST_SUITE_P(Lines, ParseEvent,
    ::testing::Values(EventCase {"started", kStamp + " [main] [Info] Tracking started (project id: 42)", 1,
                          "2026-03-29 14:05:09.123", 42, 0, ""},
        EventCase {"startedWithTextAfter", kStamp + "[Info] Tracking started (project id: 7) by hotkey\r", 1,
            "2026-03-29 14:05:09.123", 7, 0, ""},
        EventCase {
            "stopped", kStamp + " [Info] Tracking stopped (project id: 0)", 2, "2026-03-29 14:05:09.123", 0, 0, ""},
        EventCase {"description", kStamp + " [Info] Adding activity description \"Fix ENG-7\" for project 9 to storage",
            3, "2026-03-29 14:05:09.123", 9, 0, "Fix ENG-7"},
        // Greedy: the description runs to the last quote before " for project".
        EventCase {"descriptionWithQuotes",
            kStamp
                + " [Info] Adding activity description \"say \"hi\" for project 1 to storage\" for project 2 to "
                  "storage",
            3, "2026-03-29 14:05:09.123", 2, 0, "say \"hi\" for project 1 to storage"},
        EventCase {"emptyDescription", kStamp + " [Info] Adding activity description \"\" for project 3 to storage", 3,
            "2026-03-29 14:05:09.123", 3, 0, ""},
        EventCase {"invalidUtf8Description",
            kStamp + " [Info] Adding activity description \"\xff\xfe\xc3\" for project 4 to storage", 3,
            "2026-03-29 14:05:09.123", 4, 0, "\xff\xfe\xc3"},
        EventCase {"heartbeat",
            kStamp + " [Info] Service timeout, updating activity end time (id: 9223372036854775807)", 4,
            "2026-03-29 14:05:09.123", 0, INT64_MAX, ""},
        // The timestamp is whatever the first bracket holds; its validity is HLEventDate's business.
        EventCase {"oddTimestamp", "[yesterday] [Info] Tracking stopped (project id: 5)", 2, "yesterday", 5, 0, ""},
        // The first pattern in order wins, not the first phrase in the line.
        EventCase {"firstPatternWins",
            kStamp + " [Info] Tracking stopped (project id: 2) [Info] Tracking started (project id: 1)", 1,
            "2026-03-29 14:05:09.123", 1, 0, ""},
        EventCase {"warningLevel", kStamp + " [Warning] Tracking started (project id: 42)", 0, "", 0, 0, ""},
        EventCase {"noBracketFirst", " " + kStamp + " [Info] Tracking started (project id: 42)", 0, "", 0, 0, ""},
        EventCase {"emptyBracket", "[] [Info] Tracking started (project id: 42)", 0, "", 0, 0, ""},
        EventCase {"negativeNumber", kStamp + " [Info] Tracking started (project id: -4)", 0, "", 0, 0, ""},
        EventCase {
            "truncatedLastLine", kStamp + " [Info] Adding activity description \"half\" for proj", 0, "", 0, 0, ""},
        // "." stops at a line break, as in ECMAScript.
        EventCase {"lineBreakBeforeInfo", kStamp + " x\r [Info] Tracking started (project id: 42)", 0, "", 0, 0, ""},
        EventCase {"descriptionOverLineBreak",
            kStamp + " [Info] Adding activity description \"a\nb\" for project 1 to storage", 0, "", 0, 0, ""},
        EventCase {"other", kStamp + " [Info] Synchronised 14 activities", 0, "", 0, 0, ""},
        EventCase {"empty", "", 0, "", 0, 0, ""}),
    [](const ::testing::TestParamInfo<EventCase> &param) { return std::string(param.param.name); });

TEST(ParseEventLimits, NumbersBeyondSixtyFourBitsRaiseOutOfRange)
{
    EXPECT_THROW(
        tracker::parseEvent(kStamp + " [Info] Tracking started (project id: 9223372036854775808)"), std::out_of_range);
    EXPECT_THROW(tracker::parseEvent(
                     kStamp + " [Info] Service timeout, updating activity end time (id: " + std::string(40, '9') + ")"),
        std::out_of_range);
    EXPECT_THROW(tracker::parseEvent(
                     kStamp + " [Info] Adding activity description \"x\" for project 99999999999999999999 to storage"),
        std::out_of_range);
    // Leading zeros are not extra magnitude.
    EXPECT_EQ(
        tracker::parseEvent(kStamp + " [Info] Tracking started (project id: 0000000000000000000000042)").project, 42);
}

TEST(ParseEventLimits, HandlesMultiMegabyteAndBinaryLines)
{
    const std::string huge(2 * 1024 * 1024, 'x');
    const tracker::Event described
        = tracker::parseEvent(kStamp + " [Info] Adding activity description \"" + huge + "\" for project 6 to storage");
    EXPECT_EQ(described.kind, 3);
    EXPECT_EQ(described.description, huge);

    EXPECT_EQ(tracker::parseEvent(kStamp + huge + " [Info] Tracking started (project id: 8)").project, 8);
    EXPECT_EQ(tracker::parseEvent(kStamp + " [Info] Tracking started (project id: 8" + huge).kind, 0);

    // Many near misses in one long line.
    std::string misses = kStamp;
    for (int i = 0; i < 20000; ++i)
        misses += " [Info] Adding activity description \"x";
    EXPECT_EQ(tracker::parseEvent(misses).kind, 0);
    EXPECT_EQ(tracker::parseEvent(misses + "\" for project x to storage").kind, 0);
    const tracker::Event last = tracker::parseEvent(misses + "\" for project 1 to storage");
    EXPECT_EQ(last.kind, 3);
    EXPECT_EQ(last.description, "x");

    std::string binary(1024 * 1024, '\0');
    for (size_t i = 0; i < binary.size(); ++i)
        binary[i] = static_cast<char>((i * 131) % 256);
    EXPECT_EQ(tracker::parseEvent(binary).kind, 0);
    EXPECT_EQ(tracker::parseEvent(kStamp + binary + " [Info] Tracking stopped (project id: 3)").kind, 0); // has CR/LF
}

struct IssueCase {
    std::string text;
    std::string key;
};

class IssueKey : public ::testing::TestWithParam<IssueCase>
{
};

TEST_P(IssueKey, FindsFirstKeyUpperCased)
{
    EXPECT_EQ(tracker::issue(GetParam().text), GetParam().key);
}

INSTANTIATE_TEST_SUITE_P(Texts, IssueKey,
    ::testing::Values(IssueCase {"Fix ENG-7 and ENG-8", "ENG-7"}, IssueCase {"eng-7", "ENG-7"}, IssueCase {"ENG-", ""},
        IssueCase {"", ""}, IssueCase {"no key here", ""}, IssueCase {"(abc_2-15): review", "ABC_2-15"},
        IssueCase {"see xENG-7", "XENG-7"}, IssueCase {"ENG-7x ENG-9", "ENG-9"}, // no boundary after 7x
        IssueCase {"2ENG-7 A-1", "A-1"}, // a key starts with a letter and at a boundary
        IssueCase {"_ENG-7", ""}, // "_" is a word character
        IssueCase {"caf\xc3\xa9-12 ENG-3", "ENG-3"}, // non-ASCII bytes are no letters
        IssueCase {"\xc3\xa9"
                   "ENG-4",
            "ENG-4"}, // and no word characters
        IssueCase {"ENG-12-34", "ENG-12"},
        IssueCase {std::string(300000, 'a') + "-1", std::string(300000, 'A') + "-1"}));

struct DateCase {
    QString text;
    bool valid;
};

class EventDate : public ::testing::TestWithParam<DateCase>
{
};

TEST_P(EventDate, ParsesOnlyTheExactPattern)
{
    EXPECT_EQ(HLEventDate(GetParam().text).isValid(), GetParam().valid) << GetParam().text.toStdString();
}

INSTANTIATE_TEST_SUITE_P(Texts, EventDate,
    ::testing::Values(DateCase {QStringLiteral("2026-03-29 14:05:09.123"), true},
        DateCase {QStringLiteral("2024-02-29 00:00:00.000"), true},
        DateCase {QStringLiteral("2026-03-29 14:05:09"), false},
        DateCase {QStringLiteral("2026-03-29 14:05:09.12"), false},
        DateCase {QStringLiteral("2026-03-29 14:05:09.1234"), false},
        DateCase {QStringLiteral("2026-03-29 14:05:09.123Z"), false},
        DateCase {QStringLiteral(" 2026-03-29 14:05:09.123"), false},
        DateCase {QStringLiteral("2026-03-29T14:05:09.123"), false},
        DateCase {QStringLiteral("2025-02-29 10:00:00.000"), false},
        DateCase {QStringLiteral("2026-03-29 24:00:00.000"), false},
        DateCase {QStringLiteral("2026-3-29 14:05:09.123"), false},
        DateCase {QString::fromUtf8("2026-03-29 14:05:0\xd9\xa9.123"), false}, // Arabic-Indic digit
        DateCase {QString(), false}));

TEST(EventDateZones, ReadsTheTimestampAsLocalTime)
{
    struct Zone {
        QByteArray name;
        qint64 utcMs; // 2026-03-29 14:05:09.123 local
    };
    for (const Zone &zone : {Zone {"UTC", 1774793109123}, Zone {"Europe/Berlin", 1774793109123 - 2 * 3600000},
             Zone {"Asia/Kolkata", 1774793109123 - 5 * 3600000 - 1800000}}) {
        testenv::ScopedTimeZone scoped(zone.name);
        const QDateTime date = HLEventDate(QStringLiteral("2026-03-29 14:05:09.123"));
        EXPECT_EQ(date.toMSecsSinceEpoch(), zone.utcMs) << zone.name.constData();
    }
    // Before the spring change in Berlin the offset is one hour.
    testenv::ScopedTimeZone berlin("Europe/Berlin");
    EXPECT_EQ(HLEventDate(QStringLiteral("2026-03-29 01:59:59.999")).toMSecsSinceEpoch(),
        QDateTime(QDate(2026, 3, 29), QTime(0, 59, 59, 999), Qt::UTC).toMSecsSinceEpoch());
}
