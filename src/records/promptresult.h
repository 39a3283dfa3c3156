#pragma once

// The keys of a log prompt's result: the outcome of comparing the session that just ended, and its day, with
// Jira, kept until the user answers the prompt.
//
// When you add a key, also change the code that builds the result and the prompt's check that a result is
// usable (both in the application).

#include <QString>

namespace PromptResultKey
{

// The draft the prompt would post (records/draft.h).
inline const QString kPost = QStringLiteral("post");
// The compared drafts of the session's day.
inline const QString kDrafts = QStringLiteral("drafts");
// The drafts among "drafts" that may be posted.
inline const QString kEligible = QStringLiteral("eligible");
// Whether the session that ended is part of an eligible draft.
inline const QString kEndedEligible = QStringLiteral("ended_eligible");
// Possible hand-made worklogs (records/draft.h `ManualMatchKey`).
inline const QString kManualMatches = QStringLiteral("manual_matches");
// The session's day.
inline const QString kDate = QStringLiteral("date");
// The Jira account and site the comparison ran for.
inline const QString kAccount = QStringLiteral("account");
inline const QString kCloud = QStringLiteral("cloud");
// The prompt generation the result belongs to; a result of an older one is dropped.
inline const QString kGeneration = QStringLiteral("generation");
// The session as it was compared (records/session.h); "Log now" holds the current session against it.
inline const QString kSession = QStringLiteral("session");
// The sentence for the user when the comparison failed, and Jira's own explanation under it.
inline const QString kError = QStringLiteral("error");
inline const QString kDetail = QStringLiteral("detail");

} // namespace PromptResultKey
