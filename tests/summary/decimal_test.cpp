#include "summary/decimal.h"

#include <gtest/gtest.h>

#include <limits>

using namespace Qt::StringLiterals;

namespace
{

QString text(const std::optional<Decimal> &value)
{
    return value ? value->toString() : u"<none>"_s;
}

} // namespace

TEST(Decimal, ReadsPlainDecimalTextOnly)
{
    EXPECT_EQ(text(Decimal::fromText(u"45.50"_s)), u"45.50"_s);
    EXPECT_EQ(text(Decimal::fromText(u"007.5"_s)), u"7.5"_s);
    EXPECT_EQ(text(Decimal::fromText(u"0.0005"_s)), u"0.0005"_s);
    EXPECT_EQ(text(Decimal::fromText(u"-0.00"_s)), u"0.00"_s);
    EXPECT_EQ(text(Decimal::fromText(u"-12"_s)), u"-12"_s);
    for (const char *bad : {"", "-", ".5", "5.", "1.2.3", "1e3", "4,5", " 4", "+4", "0x10"})
        EXPECT_FALSE(Decimal::fromText(QString::fromLatin1(bad))) << bad;
    EXPECT_FALSE(Decimal::fromText(u"\u0664\u0665"_s)); // Arabic-Indic digits
}

TEST(Decimal, MultipliesExactlyWhereBinaryFloatingPointDrifts)
{
    const Decimal rate = *Decimal::fromText(u"45.5"_s);
    const Decimal hours = *Decimal::fromText(u"0.100000000"_s);
    EXPECT_EQ((rate * hours).toString(), u"4.5500000000"_s);
    // The drift this type exists to avoid: in binary, 0.1 × 3 is not 0.3.
    ASSERT_NE(0.1 * 3, 0.3);
    EXPECT_EQ((*Decimal::fromText(u"0.1"_s) * *Decimal::fromText(u"3"_s)).toString(), u"0.3"_s);

    EXPECT_EQ((*Decimal::fromText(u"0.1"_s) * *Decimal::fromText(u"0.2"_s)).toString(), u"0.02"_s);
    EXPECT_EQ((*Decimal::fromText(u"-1.5"_s) * *Decimal::fromText(u"2"_s)).toString(), u"-3.0"_s);
    EXPECT_EQ((*Decimal::fromText(u"-1.5"_s) * *Decimal::fromText(u"0"_s)).toString(), u"0.0"_s);

    // Far beyond 64 bits: (10^20 + 1)^2 = 10^40 + 2·10^20 + 1.
    const Decimal big = *Decimal::fromText(u"100000000000000000001"_s);
    EXPECT_EQ((big * big).toString(), u"10000000000000000000200000000000000000001"_s);
}

TEST(Decimal, TakesTheShortestTextOfADouble)
{
    EXPECT_EQ(text(Decimal::fromDouble(1.0856)), u"1.0856"_s);
    EXPECT_EQ(text(Decimal::fromDouble(161.5)), u"161.5"_s);
    EXPECT_EQ(text(Decimal::fromDouble(1e-7)), u"0.0000001"_s);
    EXPECT_EQ(text(Decimal::fromDouble(2e21)), u"2000000000000000000000"_s);
    EXPECT_FALSE(Decimal::fromDouble(std::numeric_limits<double>::quiet_NaN()));
    EXPECT_FALSE(Decimal::fromDouble(std::numeric_limits<double>::infinity()));
}
