#pragma once

// What is posted: one worklog per combine group of a day, plus the fetch window and the session identities
// that a set of rows covers.

#include <QDateTime>
#include <QStringList>
#include <QVariantList>

QVariantList JRWorklogsToPost(const QVariantList &drafts);
void JRDayWindow(const QVariantList &rows, QDateTime &from, QDateTime &to); // invalid = nothing
QStringList JRSourceKeysForRows(const QVariantList &rows);
