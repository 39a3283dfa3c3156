#pragma once

#include <QObject>

// Application-wide notifications between windows and the shell.
class AppNotifier : public QObject
{
    Q_OBJECT
public:
    static AppNotifier &shared();

signals:
    // Period totals or how they are shown changed ("HourloomSummaryChanged"); the summary rows are redrawn.
    void summaryChanged();
};
