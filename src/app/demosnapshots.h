#pragma once

#include <QString>

class AppDelegate;

// For the demo's pictures (a build with the test hooks only): once the tray shows the icon, opens the
// status menu and photographs it, then the Worklogs window, writes both as PNGs into `folder` and quits.
void HLTakeDemoSnapshots(AppDelegate &delegate, const QString &folder);
