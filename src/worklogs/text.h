#pragma once

// The texts the engine reads from and writes to Jira: the user's part of a comment, the plain text of a
// rich-text document, Jira's date format, and the digest behind source keys and markers.

#include <QDateTime>
#include <QString>
#include <QVariant>

// The user's part of a posted comment: the marker tag line is cut off.
QString JRCommentFromText(const QString &text);
// Plain text of a rich-text document, node or list of nodes.
QString JRText(const QVariant &node);
QDateTime JRDate(const QVariant &value); // invalid = nothing
QString JRISO(const QDateTime &date);
QString JRHash(const QString &text);
