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
    // The drift this type exists to avoid: in binary, 0.1 × 3 is not 0.3.
    ASSERT_NE(0.1 * 3, 0.3);
    const std::tuple<const char *, const char *, const char *> cases[] = {{"45.5", "0.100000000", "4.5500000000"},
        {"0.1", "3", "0.3"}, {"0.1", "0.2", "0.02"}, {"-1.5", "2", "-3.0"}, {"-1.5", "0", "0.0"},
        // Far beyond 64 bits: (10^20 + 1)^2 = 10^40 + 2·10^20 + 1.
        {"100000000000000000001", "100000000000000000001", "10000000000000000000200000000000000000001"}};
    for (const auto &[left, right, product] : cases)
        EXPECT_EQ(
            (*Decimal::fromText(QString::fromLatin1(left)) * *Decimal::fromText(QString::fromLatin1(right))).toString(),
            QString::fromLatin1(product))
            << left << " × " << right;
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
