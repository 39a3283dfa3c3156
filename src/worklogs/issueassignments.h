#pragma once

// Which Jira issue a tracked session belongs to: description rules per site and per-session overrides
// (issue, comment, exclusion, or the frozen record of what was posted), kept in "issue-assignments.plist".
// Failures are NamedFailure("Assignments", reason). One instance is used from one thread at a time.

#include <QString>
#include <QVariantList>
#include <QVariantMap>

class IssueAssignments
{
public:
    // Refuses to start (throws) when the file exists but cannot be read; such a file is never overwritten.
    explicit IssueAssignments(const QString &directory);

    static QString normalizedDescription(const QString &text);
    // An issue key, or a /browse/KEY address on the given site; null = nothing.
    static QString issueFromInput(const QString &text, const QString &siteURL);

    QString path() const { return m_path; }
    QString sessionKey(const QVariantMap &session, const QString &site) const;
    QString ruleKey(const QString &description, const QString &site) const;
    QVariantMap resolve(const QVariantMap &session, const QString &site) const;
    // Sorted by "site", then "description".
    QVariantList rules() const;

    // A null issue or comment means "not given".
    void saveSession(const QVariantMap &session, const QString &site, const QString &issue, const QString &comment,
        bool all, bool aggregateDaily);
    // An empty exclusion removes the session's exclusion.
    void setExclusion(const QVariantMap &exclusion, const QVariantMap &session, const QString &site);
    void freezeSession(const QVariantMap &session, const QString &site, const QString &issue, const QString &comment);
    void removeOverride(const QVariantMap &session, const QString &site);
    // A null issue removes the rule.
    void updateRule(const QVariantMap &rule, const QString &issue);
    void updateRule(const QVariantMap &rule, bool aggregateDaily);
    // A string literal would silently pick the boolean overload.
    void updateRule(const QVariantMap &rule, const char *issue) = delete;
    void deleteRule(const QVariantMap &rule);
    void adoptLabelsFromSessions(const QVariantList &sessions);

private:
    void commit(const QVariantMap &state);
    QVariantMap rulesMap() const;
    QVariantMap sessionsMap() const;

    QString m_path;
    QVariantMap m_state;
};
