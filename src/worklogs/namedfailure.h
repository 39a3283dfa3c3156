#pragma once

#include <QString>

#include <exception>
#include <string>

// A failure the user is shown as it stands. The name says which kind ("JiraError", "ReceiptError",
// "SubmissionLock", "Assignments", "AccountChanged", "Excluded", "Duplicate", "Changed"); the reason is the
// one sentence the user reads. `IssueAssignments`, the Jira code and the submission services throw it;
// callers catch it at the queue boundary, so it never crosses the event loop. A detail, when there is one, is
// the other side's own explanation (Jira's error messages), shown under the sentence; it may name issues or
// fields, so it never goes into a log.
class NamedFailure : public std::exception
{
public:
    NamedFailure(QString name, QString reason, QString detail = {});

    const QString &name() const noexcept { return m_name; }
    const QString &reason() const noexcept { return m_reason; }
    const QString &detail() const noexcept { return m_detail; }
    const char *what() const noexcept override { return m_what.c_str(); }

private:
    QString m_name;
    QString m_reason;
    QString m_detail;
    std::string m_what;
};
