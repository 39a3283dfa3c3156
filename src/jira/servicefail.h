#pragma once

#include <QString>

// Records "jira_operation_failed" (the message itself is never logged: it may name an issue) and throws the
// NamedFailure "JiraError" carrying `message` as the sentence the user reads. Every failure of the Jira
// connection and submission code goes through here so that each leaves a diagnostic trace.
// `detail` (may be empty) travels beside the sentence and is never logged either.
[[noreturn]] void HLServiceFail(const QString &message, const QString &detail = {});
