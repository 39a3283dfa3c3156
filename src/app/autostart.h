#pragma once

#include <QString>

// The desktop's "start at login" entry: ~/.config/autostart/app.hourloom.Hourloom.desktop (the XDG config
// folder's autostart directory). Written whole and atomically; removing it turns start at login off.
QString HLAutostartPath();
bool HLAutostartEnabled();
// `executable` empty: this program's own path. False with `error` set when the file could not be written or
// removed.
bool HLSetAutostartEnabled(bool enabled, QString *error, const QString &executable = {});
