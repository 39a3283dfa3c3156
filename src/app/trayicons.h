#pragma once

#include <QIcon>

enum class TrayState { Idle, Tracking, NeedsAttention };

// The status item's image for a state. `symbolic` gives the one-colour variant that reads on dark and light
// panels alike; the coloured one is for light panels.
QIcon JTMenuIcon(TrayState state, bool symbolic);
// Whether the panel is dark, judged from the application's palette.
bool JTPrefersSymbolic();
// The application's own icon, for windows and dialogs.
QIcon JTApplicationIcon();
