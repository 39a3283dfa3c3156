#pragma once

#include <QString>

// The program's own support folder (history, receipts, caches) and the one-time move of the folder that the
// program's former name used.
class SupportFolder
{
public:
    // GenericDataLocation + "/Hourloom" (Linux: ~/.local/share/Hourloom).
    static QString path();
    // GenericDataLocation + "/Stintwatch Companion", where the program kept its history under its former name.
    static QString formerPath();

    // Moves `former` to `support` in one rename when `support` does not exist yet and `former` does. An
    // existing support folder always wins; a sandboxed process never moves anything. False with the reason in
    // `error` only when a move was tried and failed; the former folder is then left as it was.
    static bool moveFormer(const QString &former, const QString &support, bool sandboxed, QString *error);

    // What start-up does before the application runs: the one-time move (a failure is written to the system
    // log and start-up continues), then the support folder is created (0700) if it is still missing.
    // Returns the support folder's path.
    static QString prepare();
};
