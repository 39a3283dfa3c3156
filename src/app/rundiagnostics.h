#pragma once

// Decides between a one-shot diagnostic command and the application: a negative answer means "run the
// application"; anything else is the process's exit status.
int RunDiagnostics(int argc, const char *const *argv);
