#pragma once

// The keys the Worklogs window adds to its draft rows (records/draft.h) for the model and the view, the
// window's own keys on a check's outcome, and the keys of its session editor's answer. They never leave the
// window.

#include <QString>

namespace RowKey
{

// The row belongs to the history shown without a Jira site: nothing on it can be ticked or edited.
inline const QString kHistoryRow = QStringLiteral("history_row");
// Whether the "Post" box may be ticked and "To Post" edited now.
inline const QString kCanTick = QStringLiteral("can_tick");
inline const QString kCanEditPost = QStringLiteral("can_edit_post");
// Why the session is locked (review::Lock as int).
inline const QString kLocked = QStringLiteral("locked");
// The title shown: the draft's own, else the title cache's.
inline const QString kDisplayTitle = QStringLiteral("display_title");
// The per-row progress text of a running operation, and whether its spinner turns.
inline const QString kProgress = QStringLiteral("progress");
inline const QString kProgressActive = QStringLiteral("progress_active");
// Rounded seconds of the worklog this row posts in together with others of its issue and day.
inline const QString kCombinedSeconds = QStringLiteral("combined_seconds");
// The issue's estimate and remaining estimate from the title cache.
inline const QString kJiraEstimate = QStringLiteral("jira_estimate");
inline const QString kJiraRemaining = QStringLiteral("jira_remaining");
// On a compared draft: its comparison fingerprint; on a check's answer: when the check was made.
inline const QString kFingerprint = QStringLiteral("fingerprint");
inline const QString kCheckedAt = QStringLiteral("checked_at");

} // namespace RowKey

// The answer of the session editor (`SessionEditor::edit`): the user's changes to one session. Empty when the
// user cancelled.
//
// When you add a key, also change `SessionEditor::save`, which builds the answer, and `editRow` in
// app/ui/reviewcommands.cpp, which saves it.
namespace SessionEditKey
{

// The issue key ("" to clear the issue) and the worklog comment.
inline const QString kIssue = QStringLiteral("issue");
inline const QString kComment = QStringLiteral("comment");
// kThisSession, or kAllSessions for a description rule over every session with this description.
inline const QString kScope = QStringLiteral("scope");
// A description rule posts a day's matching sessions as one worklog.
inline const QString kAggregateDaily = QStringLiteral("aggregate_daily");

// The values of "scope".
inline const QString kThisSession = QStringLiteral("session");
inline const QString kAllSessions = QStringLiteral("all");

} // namespace SessionEditKey
