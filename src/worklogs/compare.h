#pragma once

// Comparison of a draft with the worklogs Jira holds on its issue: status, eligibility and the day's time.

#include <QString>
#include <QVariantList>
#include <QVariantMap>

// Result: {"status", "eligible", "existing"}. An empty receipt means none.
QVariantMap JRCompare(const QVariantMap &draft, const QVariantList &worklogs, const QString &accountId,
    const QString &marker, const QVariantMap &receipt);
QString JRComparisonFingerprint(const QVariantMap &draft);
