#pragma once

#include <QString>

// True when a process of this user or another, started from an executable with this file name (compared
// case-insensitively), is running. Looks through /proc.
bool HLProcessRunning(const QString &executableName);

// The tracker's executable name, a build setting ("stintwatch" unless configured otherwise).
QString HLTrackerExecutable();
