#pragma once

#include <QString>
#include <QStringList>

#include <ostream>

// Every submission test writes its texts as u"..."_s.
using namespace Qt::StringLiterals;

// Readable gtest messages for Qt texts.
inline void PrintTo(const QString &text, std::ostream *out)
{
    *out << '"' << text.toStdString() << '"';
}

inline void PrintTo(const QStringList &texts, std::ostream *out)
{
    *out << '[' << texts.join(u", "_s).toStdString() << ']';
}
