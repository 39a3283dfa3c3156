#include "jira/servicefail.h"

#include "diagnostics/diagnosticlog.h"
#include "worklogs/namedfailure.h"

void HLServiceFail(const QString &message, const QString &detail)
{
    DiagnosticLog::shared().record(DiagnosticEvent::kJiraOperationFailed);
    throw NamedFailure(QStringLiteral("JiraError"), message, detail);
}
