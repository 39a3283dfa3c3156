#pragma once

#include <QDateTime>
#include <QString>
#include <QVariantList>

// What the status item shows, decided from the monitor's published state alone: no widgets, no clock of its
// own, so every rule can be checked from a table.
struct StatusInput {
    bool hasMonitor = false; // false: no tracker folder is known yet
    bool stintwatchRunning = false;
    QString error;
    int lastKind = 0; // 1 started, 2 stopped, 0 before any
    bool liveObserved = false;
    QDateTime started;
    QString currentDescription;
    QDateTime now;
    bool menuOpen = false;
    qsizetype sessionCount = 0;
    qsizetype shortSessionCount = 0; // finished sessions under a minute
    bool hideShortSessions = false;
};

struct StatusOutput {
    QString status;
    QString task;
    bool taskVisible = false;
    QString title; // shown after "Hourloom · " when not empty
    QString sessionCount;
    bool tracking = false;
    bool needsAttention = false;
    int intervalMs = 15'000;
};

constexpr int kStatusIntervalMs = 15'000;
constexpr int kLiveStatusIntervalMs = 1'000;

StatusOutput HLStatusFor(const StatusInput &input);

// The issue key of a description, or "Unassigned" when it holds none.
QString HLIssueOf(const QString &description);

// Copies of the rows in which the interval the tracker still has open on `project` ends now, so running
// work counts up to the present.
QVariantList HLSessionsMarkingRunning(const QVariantList &rows, qint64 project, const QDateTime &now);

// Finished rows shorter than a minute.
qsizetype HLShortSessionCount(const QVariantList &rows);
