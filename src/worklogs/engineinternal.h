#pragma once

// Everything the engine's sources share, in one include: defensive value readers (values.h), local days and
// Jira dates (days.h), the session and draft rules (draftrules.h), and the public duration and text helpers
// they build on (durations.h, text.h).

#include "worklogs/days.h"
#include "worklogs/draftrules.h"
#include "worklogs/durations.h"
#include "worklogs/text.h"
#include "worklogs/values.h"
