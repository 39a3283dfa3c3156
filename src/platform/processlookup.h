#pragma once

#include <QString>
#include <QStringList>

// What a look for a process can tell.
enum class HLProcessState {
    NotRunning, // every process of the machine was visible and none matched
    Running, // a matching process was found
    Unknown, // the processes that could match are not visible from here: nothing can be concluded
};

// Looks through a /proc-like folder (`procRoot`) for a process started from the executable `executableName`
// (a file name, compared case-insensitively). A process matches when any of these carries the name:
// - its executable (the target of "exe"; " (deleted)" after an update replaced the file is ignored): a plain
//   launch, and a wrapper script that ends with `exec` of the real program;
// - its command name ("comm", which the kernel cuts to 15 bytes): another user's process, whose "exe" link
//   is closed to us, a program started through a symlink, and a script run through its "#!" line;
// - the file name of argv[0] ("cmdline"): a program started under a name of its own (symlink, launcher);
// - for an interpreter (sh, bash, dash, zsh, env, python, perl, node, ...) the file name of its first argument
//   that is not an option or an assignment: a wrapper script run as "sh stintwatch";
// - an AppImage: an executable or argv[0] named "<name>" followed by '-', '_', '.' or ' ' and ending in
//   ".AppImage" (e.g. "Stintwatch-2.4.1-x86_64.AppImage"), the runtime that mounted the image. The program
//   inside the image is found by its own executable name as well.
// NotRunning when nothing matched; Unknown when `procRoot` cannot be listed.
HLProcessState HLFindProcess(const QString &executableName, const QString &procRoot = QStringLiteral("/proc"));

// True only when HLFindProcess finds the process in /proc.
bool HLProcessRunning(const QString &executableName);

// The lookup the live monitor uses, for each place this program may run:
// - Not sandboxed: /proc shows the whole machine; the answer is Running or NotRunning.
// - Sandboxed (Flatpak): the sandbox's /proc shows only its own processes, so a tracker on the host is never
//   in it. The first of `hostProcRoots` that lists processes (a host /proc made visible to the sandbox) is
//   searched instead; a match there is Running, no match NotRunning.
// - Sandboxed without a visible host /proc: Unknown. The monitor then takes "not found" as "unknown" and lets
//   the tracker's log alone decide whether tracking is live, instead of treating the tracker as quit.
HLProcessState HLLookupProcess(const QString &executableName, bool sandboxed, const QStringList &hostProcRoots);

// HLLookupProcess for the tracker's executable, with the sandbox as detected and "/run/host/proc" as the place
// where a host /proc would be visible inside Flatpak.
HLProcessState HLTrackerProcessState();

// The tracker's executable name, a build setting ("stintwatch" unless configured otherwise).
QString HLTrackerExecutable();
