#pragma once

// Worklogs made by hand that may already cover a draft, best candidates first.

#include <QString>
#include <QVariantList>
#include <QVariantMap>

QVariantList JRManualMatches(const QVariantMap &draft, const QVariantList &worklogs, const QString &accountId);
