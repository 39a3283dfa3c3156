#pragma once

// Draft building: one worklog draft per tracked session of a day, with its source key (which session it
// came from), its combine key (which drafts are posted together) and the validity test before posting.

#include <QDateTime>
#include <QString>
#include <QStringList>
#include <QVariantList>
#include <QVariantMap>

QVariantList JRBuildDrafts(const QVariantList &sessions, const QDateTime &day);
QString JRSourceKey(const QVariantMap &session);
QString JRCombineKey(const QVariantMap &draft); // null = nothing
// The combine key of each draft, in order (null = nothing), with the preference read once for the whole list.
QStringList JRCombineKeys(const QVariantList &drafts);
QString JRExclusionStatus(const QVariantMap &exclusion);
bool JRValid(const QVariantMap &draft);
