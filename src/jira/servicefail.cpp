#include "jira/servicefail.h"

#include "diagnostics/diagnosticlog.h"
#include "platform/failure.h"

void HLServiceFail(const QString &message, const QString &detail)
{
    DiagnosticLog::shared().record(QStringLiteral("jira_operation_failed"));
    throw NamedFailure(QStringLiteral("JiraError"), message, detail);
}
