#pragma once

// The whole worklog engine in one include.

#include "worklogs/compare.h"
#include "worklogs/drafts.h"
#include "worklogs/durations.h"
#include "worklogs/issueassignments.h"
#include "worklogs/manualmatches.h"
#include "worklogs/marker.h"
#include "worklogs/preferences.h"
#include "worklogs/text.h"
#include "worklogs/topost.h"
