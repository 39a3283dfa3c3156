#pragma once

// Reading record values defensively, for the engine's sources only: records come from files and from Jira, so
// every value may be missing or of the wrong type, and the answer is then a neutral value. Also the saturating
// arithmetic that keeps damaged numbers from overflowing.

#include <QString>
#include <QStringView>
#include <QVariant>
#include <QVariantList>
#include <QVariantMap>

namespace jrinternal
{

// A value as plain text: texts as they are, numbers in decimal, anything else (absent, maps, lists) empty.
QString plainText(const QVariant &value);
// A text value, or the empty text for anything that is not a text.
QString textValue(const QVariant &value);
// A value as a 64-bit integer: numbers (fractions truncated, saturated), decimal texts, booleans; else 0.
qint64 int64Value(const QVariant &value, bool *ok = nullptr);
bool isYes(const QVariant &value);
bool isMap(const QVariant &value);
bool isList(const QVariant &value);
QVariantMap mapValue(const QVariant &value);
QVariantList listValue(const QVariant &value);
// True when the value is a text equal to `expected` (a null `expected` never matches).
bool isText(const QVariant &value, const QString &expected);
// "^[A-Z][A-Z0-9_]*-[0-9]+$", matched exactly (no trailing line end).
bool isIssueKey(QStringView text);

qint64 saturatingAdd(qint64 a, qint64 b);
qint64 saturatingSub(qint64 a, qint64 b);

} // namespace jrinternal
