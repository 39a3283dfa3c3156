#include "worklogs/values.h"

#include <cmath>
#include <limits>

namespace jrinternal
{

namespace
{

constexpr qint64 kMax = std::numeric_limits<qint64>::max();
constexpr qint64 kMin = std::numeric_limits<qint64>::min();

qint64 fromDouble(double value)
{
    if (std::isnan(value))
        return 0;
    if (value >= 9.2233720368547758e18)
        return kMax;
    if (value <= -9.2233720368547758e18)
        return kMin;
    return qint64(value); // truncates toward zero
}

} // namespace

QString plainText(const QVariant &value)
{
    switch (value.typeId()) {
    case QMetaType::QString:
        return value.toString();
    case QMetaType::Int:
    case QMetaType::Long:
    case QMetaType::LongLong:
    case QMetaType::Short:
    case QMetaType::Char:
    case QMetaType::SChar:
        return QString::number(value.toLongLong());
    case QMetaType::UInt:
    case QMetaType::ULong:
    case QMetaType::ULongLong:
    case QMetaType::UShort:
    case QMetaType::UChar:
        return QString::number(value.toULongLong());
    case QMetaType::Bool:
        return value.toBool() ? QStringLiteral("1") : QStringLiteral("0");
    case QMetaType::Double:
    case QMetaType::Float: {
        const double d = value.toDouble();
        if (std::isfinite(d) && d == std::trunc(d) && std::fabs(d) < 9.0e15)
            return QString::number(qint64(d));
        return QString::number(d, 'g', 17);
    }
    default:
        return QStringLiteral("");
    }
}

QString textValue(const QVariant &value)
{
    return value.typeId() == QMetaType::QString ? value.toString() : QStringLiteral("");
}

qint64 int64Value(const QVariant &value, bool *ok)
{
    bool converted = true;
    qint64 result = 0;
    switch (value.typeId()) {
    case QMetaType::Int:
    case QMetaType::Long:
    case QMetaType::LongLong:
    case QMetaType::Short:
    case QMetaType::Char:
    case QMetaType::SChar:
    case QMetaType::UInt:
    case QMetaType::UShort:
    case QMetaType::UChar:
    case QMetaType::Bool:
        result = value.toLongLong();
        break;
    case QMetaType::ULong:
    case QMetaType::ULongLong: {
        const qulonglong u = value.toULongLong();
        result = u > quint64(kMax) ? kMax : qint64(u);
        break;
    }
    case QMetaType::Double:
    case QMetaType::Float:
        result = fromDouble(value.toDouble());
        break;
    case QMetaType::QString: {
        const QString text = value.toString().trimmed();
        result = text.toLongLong(&converted);
        if (!converted) {
            const double d = text.toDouble(&converted);
            result = converted ? fromDouble(d) : 0;
        }
        break;
    }
    default:
        converted = false;
        break;
    }
    if (ok)
        *ok = converted;
    return result;
}

bool isYes(const QVariant &value)
{
    switch (value.typeId()) {
    case QMetaType::Bool:
    case QMetaType::Int:
    case QMetaType::Long:
    case QMetaType::LongLong:
    case QMetaType::UInt:
    case QMetaType::ULong:
    case QMetaType::ULongLong:
    case QMetaType::Double:
    case QMetaType::Short:
    case QMetaType::UShort:
    case QMetaType::Char:
    case QMetaType::SChar:
    case QMetaType::UChar:
    case QMetaType::Float:
        return int64Value(value) != 0;
    case QMetaType::QString: {
        // Settings files store booleans as "true"/"false".
        const QString text = value.toString().trimmed();
        if (text.compare(u"true", Qt::CaseInsensitive) == 0 || text.compare(u"yes", Qt::CaseInsensitive) == 0)
            return true;
        return int64Value(value) != 0;
    }
    default:
        return false;
    }
}

bool isMap(const QVariant &value)
{
    return value.typeId() == QMetaType::QVariantMap;
}

bool isList(const QVariant &value)
{
    return value.typeId() == QMetaType::QVariantList || value.typeId() == QMetaType::QStringList;
}

QVariantMap mapValue(const QVariant &value)
{
    return isMap(value) ? value.toMap() : QVariantMap();
}

QVariantList listValue(const QVariant &value)
{
    return isList(value) ? value.toList() : QVariantList();
}

bool isText(const QVariant &value, const QString &expected)
{
    return !expected.isNull() && value.typeId() == QMetaType::QString && value.toString() == expected;
}

bool isIssueKey(QStringView text)
{
    const auto upper = [](QChar c) { return c >= u'A' && c <= u'Z'; };
    const auto digit = [](QChar c) { return c >= u'0' && c <= u'9'; };
    if (text.isEmpty() || !upper(text[0]))
        return false;
    const qsizetype dash = text.lastIndexOf(u'-');
    if (dash < 1 || dash == text.size() - 1)
        return false;
    for (qsizetype i = 1; i < dash; ++i) {
        if (!upper(text[i]) && !digit(text[i]) && text[i] != u'_')
            return false;
    }
    for (qsizetype i = dash + 1; i < text.size(); ++i) {
        if (!digit(text[i]))
            return false;
    }
    return true;
}

qint64 saturatingAdd(qint64 a, qint64 b)
{
    qint64 result;
    if (__builtin_add_overflow(a, b, &result))
        return b > 0 ? kMax : kMin;
    return result;
}

qint64 saturatingSub(qint64 a, qint64 b)
{
    qint64 result;
    if (__builtin_sub_overflow(a, b, &result))
        return b < 0 ? kMax : kMin;
    return result;
}

} // namespace jrinternal
