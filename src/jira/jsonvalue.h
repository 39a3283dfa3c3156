#pragma once

#include <QVariant>

// True when a value decoded from a JSON answer is a number (not a text that looks like one, not a boolean).
inline bool HLIsJSONNumber(const QVariant &value)
{
    switch (value.typeId()) {
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Double:
        return true;
    default:
        return false;
    }
}
