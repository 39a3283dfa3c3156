#pragma once

#include <QString>
#include <QVariantMap>

class Clock;

// The names a diagnostic record may have, and the values it may carry; anything else is dropped.
// When you add one, also add it to `allowedEvents` or `allowedKeys` in diagnosticlog.cpp.
namespace DiagnosticEvent
{
inline const QString kAppStarted = QStringLiteral("app_started");
inline const QString kNetworkCompleted = QStringLiteral("network_completed");
inline const QString kNetworkFailed = QStringLiteral("network_failed");
inline const QString kJiraOperationFailed = QStringLiteral("jira_operation_failed");
inline const QString kTrackingUnavailable = QStringLiteral("tracking_unavailable");
inline const QString kTrackingRecovered = QStringLiteral("tracking_recovered");
inline const QString kJiraCompareCompleted = QStringLiteral("jira_compare_completed");
inline const QString kJiraPostCompleted = QStringLiteral("jira_post_completed");
} // namespace DiagnosticEvent

namespace DiagnosticKey
{
// Written by the log itself: the event's name and its time (seconds since 1970).
inline const QString kEvent = QStringLiteral("event");
inline const QString kTime = QStringLiteral("time");
// The values a caller may attach.
inline const QString kDurationMs = QStringLiteral("duration_ms");
inline const QString kHttpStatus = QStringLiteral("http_status");
inline const QString kErrorCode = QStringLiteral("error_code");
inline const QString kCount = QStringLiteral("count");
inline const QString kFailed = QStringLiteral("failed");
} // namespace DiagnosticKey

// A small, privacy-safe event log: one JSON object per line holding only an event name from a fixed list, a
// time and a few whitelisted numeric values. It rotates over three files ("diagnostics-0.jsonl" newest) so
// it never grows past about 768 KiB, and it never reports a failure to the code that records an event.
class DiagnosticLog
{
public:
    explicit DiagnosticLog(const QString &directory);

    // The filtered record without "time"; empty when the name is not one of the known events.
    static QVariantMap safeEvent(const QString &name, const QVariantMap &values);

    // The "SaveDiagnosticLogs" setting; absent means enabled.
    static bool enabled();
    static void setEnabled(bool enabled);

    // "HOURLOOM_DIAGNOSTICS_DIR" when set and not empty, else the per-user state folder + "/Hourloom".
    static QString sharedDirectory();
    static DiagnosticLog &shared();

    QString path(int index) const;
    void record(const QString &name, const QVariantMap &values = {});
    QString report();
    // Deletes files 0, 1 and 2; stops at the first one that exists and cannot be removed.
    bool deleteLogs(QString *error);

    // The clock whose wall time stamps records (not owned; nullptr, the default, means Clock::shared()). Tests
    // fix it so record lengths are known.
    void setClock(const Clock *clock);

private:
    void recordLocked(const QString &name, const QVariantMap &values);

    QString m_directory;
    const Clock *m_clock = nullptr;
};
