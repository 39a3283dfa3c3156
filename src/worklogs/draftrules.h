#pragma once

// The rules the engine's sources share about sessions and drafts: which issue and activity a session has, which
// drafts are posted together, whether a draft may be posted, and the comment it is posted with.

#include "worklogs/days.h"

#include <QString>
#include <QVariantMap>

namespace jrinternal
{

QString sessionIssue(const QVariantMap &session);
QString sessionActivity(const QVariantMap &session); // null = nothing
QString sessionCombineKey(const QVariantMap &session, const QString &issue, bool combineDaily); // null = nothing
QString combineKey(const QVariantMap &draft, bool combineDaily, LocalDayCache *days = nullptr); // null = nothing
bool valid(const QVariantMap &draft, bool ignoreShort);
QString exclusionKind(const QVariantMap &record);
QString rowComment(const QVariantMap &draft);
QVariantMap commentDocument(const QString &text);

} // namespace jrinternal
