#include "summary/decimal.h"

#include <QLocale>

#include <cmath>
#include <vector>

std::optional<Decimal> Decimal::fromText(const QString &text)
{
    Decimal value;
    qsizetype i = 0;
    if (i < text.size() && text.at(i) == QLatin1Char('-')) {
        value.m_negative = true;
        ++i;
    }
    std::string digits;
    int scale = 0;
    bool point = false;
    for (; i < text.size(); ++i) {
        const QChar c = text.at(i);
        if (c == QLatin1Char('.') && !point) {
            point = true;
            continue;
        }
        if (c < QLatin1Char('0') || c > QLatin1Char('9'))
            return std::nullopt;
        digits.push_back(char(c.unicode()));
        if (point)
            ++scale;
    }
    // "5." and ".5" are not numbers here, nor is a lone sign.
    if (digits.empty() || (point && scale == 0) || (point && digits.size() == size_t(scale)))
        return std::nullopt;
    value.m_digits = digits;
    value.m_scale = scale;
    value.normalize();
    return value;
}

std::optional<Decimal> Decimal::fromDouble(double number)
{
    if (!std::isfinite(number))
        return std::nullopt;
    // Shortest round-trip text in fixed notation, so 1.0856 stays 1.0856 and not its binary expansion.
    QString text = QString::number(number, 'f', QLocale::FloatingPointShortest);
    return fromText(text);
}

Decimal Decimal::operator*(const Decimal &other) const
{
    const std::string &a = m_digits;
    const std::string &b = other.m_digits;
    std::vector<int> product(a.size() + b.size(), 0);
    for (size_t i = a.size(); i-- > 0;) {
        for (size_t j = b.size(); j-- > 0;) {
            const size_t at = i + j + 1;
            const int sum = product[at] + (a[i] - '0') * (b[j] - '0');
            product[at] = sum % 10;
            product[at - 1] += sum / 10;
        }
    }
    Decimal result;
    result.m_digits.clear();
    for (int digit : product)
        result.m_digits.push_back(char('0' + digit));
    result.m_scale = m_scale + other.m_scale;
    result.m_negative = m_negative != other.m_negative;
    result.normalize();
    return result;
}

bool Decimal::operator==(const Decimal &other) const
{
    return m_negative == other.m_negative && m_digits == other.m_digits && m_scale == other.m_scale;
}

void Decimal::normalize()
{
    // Keep at least one digit before the point; drop the rest of the leading zeros.
    size_t leading = 0;
    while (leading + 1 + size_t(m_scale) < m_digits.size() && m_digits[leading] == '0')
        ++leading;
    m_digits.erase(0, leading);
    if (m_digits.size() < size_t(m_scale) + 1)
        m_digits.insert(0, size_t(m_scale) + 1 - m_digits.size(), '0');
    if (m_digits.find_first_not_of('0') == std::string::npos)
        m_negative = false; // no negative zero
}

QString Decimal::toString() const
{
    std::string text = m_digits;
    if (m_scale > 0)
        text.insert(text.size() - size_t(m_scale), 1, '.');
    if (m_negative)
        text.insert(0, 1, '-');
    return QString::fromLatin1(text.data(), qsizetype(text.size()));
}
