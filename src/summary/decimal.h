#pragma once

#include <QString>

#include <optional>
#include <string>

// An exact decimal number for money: earnings are rate × hours (× an exchange rate), and doing that in binary
// floating point drifts (0.1 h at 45.5 would be 4.549999…). Only what earnings need: parsing, multiplying and
// the plain decimal text that the currency formatter takes.
class Decimal
{
public:
    Decimal() = default;

    // "[-]digits[.digits]" in ASCII; nothing for anything else.
    static std::optional<Decimal> fromText(const QString &text);
    // The shortest decimal text that reads back as the same double; nothing for NaN or infinity.
    static std::optional<Decimal> fromDouble(double value);

    Decimal operator*(const Decimal &other) const;
    bool operator==(const Decimal &other) const;

    bool isNegative() const { return m_negative; }
    // Plain text such as "4.5500", every fraction digit kept.
    QString toString() const;

private:
    void normalize();

    bool m_negative = false;
    std::string m_digits = "0"; // without leading zeros, "0" for zero
    int m_scale = 0; // how many of the digits are after the decimal point
};
