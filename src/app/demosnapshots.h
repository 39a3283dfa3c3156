#pragma once

#include <QString>

class AppDelegate;

// For the demo's pictures (a build with the test hooks only): once the tray shows the icon, opens the
// status menu and photographs it, then the Worklogs window, writes both as PNGs into `folder` and quits.
void HLTakeDemoSnapshots(AppDelegate &delegate, const QString &folder);

// For the launch measurement (a build with the test hooks only): prints "tray-icon-shown <ns>" with the
// CLOCK_REALTIME instant at which the tray first gave the icon a place.
void HLReportTrayShown(AppDelegate &delegate);
// Prints "worklogs-shown" once the Worklogs window is on screen (for measurements of the open window).
void HLReportWorklogsShown(AppDelegate &delegate);
