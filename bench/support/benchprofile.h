#pragma once

class QTemporaryDir;

// Points the settings, data, state and diagnostic folders of a benchmark run at folders inside `profile`, so
// figures never depend on the user's profile and a run never writes into it. False when `profile` is unusable.
bool HLUseThrowAwayProfile(const QTemporaryDir &profile);
