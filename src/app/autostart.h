#pragma once

#include <QString>

// "Start at login" through the desktop's XDG autostart folder: an entry in ~/.config/autostart starts
// Hourloom with the session; removing it stops that. Nothing else records the choice.
namespace Autostart
{

// $XDG_CONFIG_HOME/autostart/app.hourloom.Hourloom.desktop
QString entryPath();
bool enabled();
// Writes the entry (whole, 0644) or removes it. False with the reason in `error` when that failed.
bool setEnabled(bool enabled, QString *error);
// The entry's text; `executable` is what the session runs.
QByteArray entry(const QString &executable);

} // namespace Autostart
