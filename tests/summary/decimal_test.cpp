#include "summary/decimal.h"

#include <gtest/gtest.h>

#include <limits>

namespace
{

QString text(const std::optional<Decimal> &value)
{
    return value ? value->toString() : QStringLiteral("<none>");
}

} // namespace

TEST(Decimal, ReadsPlainDecimalTextOnly)
{
    EXPECT_EQ(text(Decimal::fromText(QStringLiteral("45.50"))), QStringLiteral("45.50"));
    EXPECT_EQ(text(Decimal::fromText(QStringLiteral("007.5"))), QStringLiteral("7.5"));
    EXPECT_EQ(text(Decimal::fromText(QStringLiteral("0.0005"))), QStringLiteral("0.0005"));
    EXPECT_EQ(text(Decimal::fromText(QStringLiteral("-0.00"))), QStringLiteral("0.00"));
    EXPECT_EQ(text(Decimal::fromText(QStringLiteral("-12"))), QStringLiteral("-12"));
    for (const char *bad : {"", "-", ".5", "5.", "1.2.3", "1e3", "4,5", " 4", "+4", "0x10"})
        EXPECT_FALSE(Decimal::fromText(QString::fromLatin1(bad))) << bad;
    EXPECT_FALSE(Decimal::fromText(QStringLiteral("\u0664\u0665"))); // Arabic-Indic digits
}

TEST(Decimal, MultipliesExactlyWhereBinaryFloatingPointDrifts)
{
    const Decimal rate = *Decimal::fromText(QStringLiteral("45.5"));
    const Decimal hours = *Decimal::fromText(QStringLiteral("0.100000000"));
    EXPECT_EQ((rate * hours).toString(), QStringLiteral("4.5500000000"));
    // The drift this type exists to avoid: in binary, 0.1 × 3 is not 0.3.
    ASSERT_NE(0.1 * 3, 0.3);
    EXPECT_EQ((*Decimal::fromText(QStringLiteral("0.1")) * *Decimal::fromText(QStringLiteral("3"))).toString(),
        QStringLiteral("0.3"));

    EXPECT_EQ((*Decimal::fromText(QStringLiteral("0.1")) * *Decimal::fromText(QStringLiteral("0.2"))).toString(),
        QStringLiteral("0.02"));
    EXPECT_EQ((*Decimal::fromText(QStringLiteral("-1.5")) * *Decimal::fromText(QStringLiteral("2"))).toString(),
        QStringLiteral("-3.0"));
    EXPECT_EQ((*Decimal::fromText(QStringLiteral("-1.5")) * *Decimal::fromText(QStringLiteral("0"))).toString(),
        QStringLiteral("0.0"));

    // Far beyond 64 bits: (10^20 + 1)^2 = 10^40 + 2·10^20 + 1.
    const Decimal big = *Decimal::fromText(QStringLiteral("100000000000000000001"));
    EXPECT_EQ((big * big).toString(), QStringLiteral("10000000000000000000200000000000000000001"));
}

TEST(Decimal, TakesTheShortestTextOfADouble)
{
    EXPECT_EQ(text(Decimal::fromDouble(1.0856)), QStringLiteral("1.0856"));
    EXPECT_EQ(text(Decimal::fromDouble(161.5)), QStringLiteral("161.5"));
    EXPECT_EQ(text(Decimal::fromDouble(1e-7)), QStringLiteral("0.0000001"));
    EXPECT_EQ(text(Decimal::fromDouble(2e21)), QStringLiteral("2000000000000000000000"));
    EXPECT_FALSE(Decimal::fromDouble(std::numeric_limits<double>::quiet_NaN()));
    EXPECT_FALSE(Decimal::fromDouble(std::numeric_limits<double>::infinity()));
}
