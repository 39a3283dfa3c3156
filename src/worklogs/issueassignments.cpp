#include "worklogs/issueassignments.h"

#include "records/assignment.h"
#include "records/session.h"
#include "worklogs/engineinternal.h"
#include "worklogs/namedfailure.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>
#include <QUrl>

#include <algorithm>

using namespace jrinternal;

namespace
{

const QString kFailure = QStringLiteral("Assignments");
const QString &kRules = AssignmentKey::kRules;
const QString &kSessions = AssignmentKey::kSessions;

QVariantMap emptyState()
{
    return QVariantMap {{kRules, QVariantMap()}, {kSessions, QVariantMap()}};
}

bool isFrozen(const QVariantMap &override)
{
    return isYes(override.value(OverrideKey::kFrozen));
}

// Stores an override, or drops the entry when nothing is left in it.
void putOverride(QVariantMap &sessions, const QString &key, const QVariantMap &override)
{
    if (override.isEmpty())
        sessions.remove(key);
    else
        sessions.insert(key, override);
}

} // namespace

IssueAssignments::IssueAssignments(const QString &directory)
    : m_path(QDir(directory).filePath(QStringLiteral("issue-assignments.plist")))
    , m_state(emptyState())
{
    if (!QFileInfo::exists(m_path))
        return;
    QFile file(m_path);
    QJsonParseError error {};
    QJsonDocument document;
    if (file.open(QIODevice::ReadOnly))
        document = QJsonDocument::fromJson(file.readAll(), &error);
    // The user's rules are worth more than a working store: refuse rather than start empty and overwrite.
    if (!file.isOpen() || error.error != QJsonParseError::NoError || !document.isObject())
        throw NamedFailure(
            kFailure, QStringLiteral("Issue assignments are unreadable. Restore the local file before editing."));
    const QVariantMap stored = document.object().toVariantMap();
    // A damaged "rules" or "sessions" entry would be replaced by an empty one at the next save: refuse too.
    for (const QString &key : {kRules, kSessions}) {
        if (stored.contains(key) && !isMap(stored.value(key)))
            throw NamedFailure(
                kFailure, QStringLiteral("Issue assignments are unreadable. Restore the local file before editing."));
    }
    m_state = stored;
    if (!isMap(m_state.value(kRules)))
        m_state.insert(kRules, QVariantMap());
    if (!isMap(m_state.value(kSessions)))
        m_state.insert(kSessions, QVariantMap());
}

QString IssueAssignments::normalizedDescription(const QString &text)
{
    return text.simplified().toLower();
}

QString IssueAssignments::issueFromInput(const QString &text, const QString &siteURL)
{
    const QString trimmed = text.trimmed();
    QString candidate = trimmed;
    if (trimmed.contains(QStringLiteral("://"))) {
        // The address must point into the selected site: the program later opens pages built from it.
        const QUrl url(trimmed, QUrl::StrictMode);
        const QUrl site(siteURL.trimmed(), QUrl::StrictMode);
        if (!url.isValid() || !site.isValid())
            return {};
        if (url.scheme().toLower() != u"https")
            return {};
        if (!url.userInfo().isEmpty() || url.authority(QUrl::FullyEncoded).contains(u'@'))
            return {};
        if (site.host().isEmpty() || url.host().isEmpty())
            return {};
        if (url.host().compare(site.host(), Qt::CaseInsensitive) != 0)
            return {};
        if (url.port(443) != site.port(443))
            return {};
        QString path = url.path(QUrl::FullyEncoded);
        if (path.endsWith(u'/'))
            path.chop(1);
        const QStringList components = path.split(u'/');
        // "/browse/KEY" splits into "", "browse", "KEY".
        if (components.size() != 3 || !components[0].isEmpty() || components[1] != u"browse")
            return {};
        candidate = QUrl::fromPercentEncoding(components[2].toUtf8());
    }
    const QString key = candidate.toUpper();
    if (!isIssueKey(key))
        return {};
    return key;
}

QString IssueAssignments::sessionKey(const QVariantMap &session, const QString &site) const
{
    return site + u'|' + plainText(session.value(SessionKey::kSourceAccount)) + u'|'
        + plainText(session.value(SessionKey::kProject)) + u'|' + plainText(session.value(SessionKey::kLocalId)) + u'|'
        + plainText(session.value(SessionKey::kStartMs));
}

QString IssueAssignments::ruleKey(const QString &description, const QString &site) const
{
    return site + u'|' + normalizedDescription(description);
}

QVariantMap IssueAssignments::rulesMap() const
{
    return m_state.value(kRules).toMap();
}

QVariantMap IssueAssignments::sessionsMap() const
{
    return m_state.value(kSessions).toMap();
}

QVariantMap IssueAssignments::resolve(const QVariantMap &session, const QString &site) const
{
    QVariantMap copy = session;
    copy.remove(SessionKey::kJiraExclusion);
    if (site.isEmpty())
        return copy;

    const QVariantMap override = mapValue(sessionsMap().value(sessionKey(session, site)));
    const auto exclusion = override.constFind(OverrideKey::kJiraExclusion);
    if (exclusion != override.constEnd())
        copy.insert(SessionKey::kJiraExclusion, *exclusion);

    const bool hasComment = override.contains(OverrideKey::kComment);
    if (isFrozen(override)) {
        // A posted session keeps the issue and comment it was posted with; nothing else may move it.
        copy.insert(SessionKey::kIssue, plainText(override.value(OverrideKey::kIssue)));
        copy.insert(SessionKey::kComment, plainText(override.value(OverrideKey::kComment)));
        copy.insert(SessionKey::kCommentCustom, hasComment);
        copy.insert(SessionKey::kAssignment, QStringLiteral("Submission recorded"));
        copy.insert(SessionKey::kAssignmentLocked, true);
        return copy;
    }

    QString captured = SessionKey::kUnassigned;
    if (copy.contains(SessionKey::kOriginalIssue))
        captured = plainText(copy.value(SessionKey::kOriginalIssue));
    else if (copy.contains(SessionKey::kIssue))
        captured = plainText(copy.value(SessionKey::kIssue));
    copy.insert(SessionKey::kOriginalIssue, captured);
    copy.insert(SessionKey::kIssue, captured);
    copy.remove(SessionKey::kAssignment);
    copy.remove(SessionKey::kAssignmentLocked);

    // The issue found in the tracked description deliberately wins over a description rule.
    if (override.contains(OverrideKey::kIssue)) {
        copy.insert(SessionKey::kIssue, plainText(override.value(OverrideKey::kIssue)));
        copy.insert(SessionKey::kAssignment, QStringLiteral("This session"));
    } else if (!captured.isEmpty() && captured != SessionKey::kUnassigned) {
        copy.insert(SessionKey::kAssignment, QStringLiteral("Captured issue"));
    } else {
        const QString description = plainText(session.value(SessionKey::kDescription));
        const QVariant rule = rulesMap().value(ruleKey(description, site));
        if (isMap(rule)) {
            const QVariantMap map = rule.toMap();
            copy.insert(SessionKey::kIssue, plainText(map.value(RuleKey::kIssue)));
            copy.insert(SessionKey::kAssignment, QStringLiteral("Description rule"));
            copy.insert(SessionKey::kAggregateDaily, isYes(map.value(RuleKey::kAggregateDaily)));
            copy.insert(SessionKey::kAggregateDescription, plainText(map.value(RuleKey::kDescription)));
        }
    }

    if (hasComment)
        copy.insert(SessionKey::kComment, plainText(override.value(OverrideKey::kComment)));
    else if (session.contains(SessionKey::kDescription))
        copy.insert(SessionKey::kComment, plainText(session.value(SessionKey::kDescription)));
    else
        copy.insert(SessionKey::kComment, QStringLiteral(""));
    copy.insert(SessionKey::kCommentCustom, hasComment);
    return copy;
}

QVariantList IssueAssignments::rules() const
{
    QVariantList list;
    const QVariantMap rules = rulesMap();
    for (const QVariant &rule : rules) {
        if (isMap(rule))
            list.append(rule);
    }
    std::stable_sort(list.begin(), list.end(), [](const QVariant &a, const QVariant &b) {
        const QVariantMap ma = a.toMap(), mb = b.toMap();
        const QString siteA = plainText(ma.value(RuleKey::kSite)), siteB = plainText(mb.value(RuleKey::kSite));
        if (siteA != siteB)
            return siteA < siteB;
        return plainText(ma.value(RuleKey::kDescription)) < plainText(mb.value(RuleKey::kDescription));
    });
    return list;
}

void IssueAssignments::saveSession(const QVariantMap &session, const QString &site, const QString &issue,
    const QString &comment, bool all, bool aggregateDaily)
{
    const QString key = sessionKey(session, site);
    QVariantMap sessions = sessionsMap();
    QVariantMap override = mapValue(sessions.value(key));
    if (isFrozen(override))
        return;
    if (!comment.isNull())
        override.insert(OverrideKey::kComment, comment);
    QVariantMap rules = rulesMap();
    if (!issue.isEmpty()) {
        if (all) {
            const QString description = plainText(session.value(SessionKey::kDescription));
            const QVariantMap rule {{RuleKey::kSite, site}, {RuleKey::kDescription, normalizedDescription(description)},
                {RuleKey::kLabel, description.trimmed()}, {RuleKey::kIssue, issue},
                {RuleKey::kAggregateDaily, aggregateDaily}};
            rules.insert(ruleKey(description, site), rule);
            // The session's own issue would otherwise keep hiding the rule it was just turned into.
            override.remove(OverrideKey::kIssue);
        } else {
            override.insert(OverrideKey::kIssue, issue);
        }
    }
    putOverride(sessions, key, override);
    QVariantMap state = m_state;
    state.insert(kRules, rules);
    state.insert(kSessions, sessions);
    commit(state);
}

void IssueAssignments::setExclusion(const QVariantMap &exclusion, const QVariantMap &session, const QString &site)
{
    if (site.isEmpty())
        throw NamedFailure(kFailure, QStringLiteral("Select a Jira site first."));
    const QString key = sessionKey(session, site);
    QVariantMap sessions = sessionsMap();
    QVariantMap override = mapValue(sessions.value(key));
    if (exclusion.isEmpty())
        override.remove(OverrideKey::kJiraExclusion);
    else
        override.insert(OverrideKey::kJiraExclusion, exclusion);
    putOverride(sessions, key, override);
    QVariantMap state = m_state;
    state.insert(kSessions, sessions);
    commit(state);
}

void IssueAssignments::freezeSession(
    const QVariantMap &session, const QString &site, const QString &issue, const QString &comment)
{
    QVariantMap sessions = sessionsMap();
    sessions.insert(sessionKey(session, site),
        QVariantMap {{OverrideKey::kIssue, issue.isNull() ? QStringLiteral("") : issue},
            {OverrideKey::kComment, comment.isNull() ? QStringLiteral("") : comment}, {OverrideKey::kFrozen, true}});
    QVariantMap state = m_state;
    state.insert(kSessions, sessions);
    commit(state);
}

void IssueAssignments::removeOverride(const QVariantMap &session, const QString &site)
{
    const QString key = sessionKey(session, site);
    QVariantMap sessions = sessionsMap();
    QVariantMap override = mapValue(sessions.value(key));
    if (isFrozen(override))
        return;
    override.remove(OverrideKey::kIssue);
    putOverride(sessions, key, override);
    QVariantMap state = m_state;
    state.insert(kSessions, sessions);
    commit(state);
}

void IssueAssignments::updateRule(const QVariantMap &rule, const QString &issue)
{
    const QString key = ruleKey(plainText(rule.value(RuleKey::kDescription)), plainText(rule.value(RuleKey::kSite)));
    QVariantMap rules = rulesMap();
    if (issue.isEmpty()) {
        rules.remove(key);
    } else {
        QVariantMap updated = rule;
        updated.insert(RuleKey::kIssue, issue);
        rules.insert(key, updated);
    }
    QVariantMap state = m_state;
    state.insert(kRules, rules);
    commit(state);
}

void IssueAssignments::updateRule(const QVariantMap &rule, bool aggregateDaily)
{
    const QString key = ruleKey(plainText(rule.value(RuleKey::kDescription)), plainText(rule.value(RuleKey::kSite)));
    QVariantMap rules = rulesMap();
    const QVariant existing = rules.value(key);
    if (!isMap(existing))
        return;
    QVariantMap updated = existing.toMap();
    updated.insert(RuleKey::kAggregateDaily, aggregateDaily);
    rules.insert(key, updated);
    QVariantMap state = m_state;
    state.insert(kRules, rules);
    commit(state);
}

void IssueAssignments::deleteRule(const QVariantMap &rule)
{
    updateRule(rule, QString());
}

void IssueAssignments::adoptLabelsFromSessions(const QVariantList &sessions)
{
    QHash<QString, QString> labels;
    for (const QVariant &entry : sessions) {
        const QVariant description = mapValue(entry).value(RuleKey::kDescription);
        if (description.typeId() != QMetaType::QString || description.toString().isEmpty())
            continue;
        labels.insert(normalizedDescription(description.toString()), description.toString().trimmed());
    }
    QVariantMap rules = rulesMap();
    bool changed = false;
    for (auto it = rules.begin(); it != rules.end(); ++it) {
        if (!isMap(*it))
            continue;
        QVariantMap rule = it->toMap();
        if (!plainText(rule.value(RuleKey::kLabel)).isEmpty())
            continue;
        const auto label = labels.constFind(plainText(rule.value(RuleKey::kDescription)));
        if (label == labels.constEnd())
            continue;
        rule.insert(RuleKey::kLabel, *label);
        *it = rule;
        changed = true;
    }
    if (!changed)
        return;
    QVariantMap state = m_state;
    state.insert(kRules, rules);
    commit(state);
}

void IssueAssignments::commit(const QVariantMap &state)
{
    const QByteArray data = QJsonDocument(QJsonObject::fromVariantMap(state)).toJson(QJsonDocument::Indented);
    const auto fail = [](const QString &description) {
        throw NamedFailure(
            kFailure, description.isEmpty() ? QStringLiteral("Could not save assignments") : description);
    };
    const QString directory = QFileInfo(m_path).absolutePath();
    if (!QDir().mkpath(directory))
        fail(QString());
    QSaveFile file(m_path);
    if (!file.open(QIODevice::WriteOnly))
        fail(file.errorString());
    if (!file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner)) {
        file.cancelWriting();
        fail(file.errorString());
    }
    if (file.write(data) != data.size()) {
        const QString error = file.errorString();
        file.cancelWriting();
        fail(error);
    }
    if (!file.commit())
        fail(file.errorString());
    // Memory follows the file only once the file holds the new state.
    m_state = state;
}
