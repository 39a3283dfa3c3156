#pragma once

#include <QString>
#include <QVariantMap>

#include <functional>

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

    // Replaces the clock that stamps records (seconds since 1970). Tests fix it so record lengths are known.
    void setClock(std::function<double()> clock);

private:
    void recordLocked(const QString &name, const QVariantMap &values);

    QString m_directory;
    std::function<double()> m_clock;
};
