#include "worklogs/issueassignments.h"

#include "platform/failure.h"
#include "worklogs/engineinternal.h"

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
const QString kRules = QStringLiteral("rules");
const QString kSessions = QStringLiteral("sessions");

QVariantMap emptyState()
{
    return QVariantMap {{kRules, QVariantMap()}, {kSessions, QVariantMap()}};
}

bool isFrozen(const QVariantMap &override)
{
    return isYes(override.value(QStringLiteral("frozen")));
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
    return site + u'|' + plainText(session.value(QStringLiteral("source_account"))) + u'|'
        + plainText(session.value(QStringLiteral("project"))) + u'|'
        + plainText(session.value(QStringLiteral("local_id"))) + u'|'
        + plainText(session.value(QStringLiteral("start_ms")));
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
    copy.remove(QStringLiteral("jira_exclusion"));
    if (site.isEmpty())
        return copy;

    const QVariantMap override = mapValue(sessionsMap().value(sessionKey(session, site)));
    const auto exclusion = override.constFind(QStringLiteral("jira_exclusion"));
    if (exclusion != override.constEnd())
        copy.insert(QStringLiteral("jira_exclusion"), *exclusion);

    const bool hasComment = override.contains(QStringLiteral("comment"));
    if (isFrozen(override)) {
        // A posted session keeps the issue and comment it was posted with; nothing else may move it.
        copy.insert(QStringLiteral("issue"), plainText(override.value(QStringLiteral("issue"))));
        copy.insert(QStringLiteral("comment"), plainText(override.value(QStringLiteral("comment"))));
        copy.insert(QStringLiteral("comment_custom"), hasComment);
        copy.insert(QStringLiteral("assignment"), QStringLiteral("Submission recorded"));
        copy.insert(QStringLiteral("assignment_locked"), true);
        return copy;
    }

    QString captured = QStringLiteral("Unassigned");
    if (copy.contains(QStringLiteral("original_issue")))
        captured = plainText(copy.value(QStringLiteral("original_issue")));
    else if (copy.contains(QStringLiteral("issue")))
        captured = plainText(copy.value(QStringLiteral("issue")));
    copy.insert(QStringLiteral("original_issue"), captured);
    copy.insert(QStringLiteral("issue"), captured);
    copy.remove(QStringLiteral("assignment"));
    copy.remove(QStringLiteral("assignment_locked"));

    // The issue found in the tracked description deliberately wins over a description rule.
    if (override.contains(QStringLiteral("issue"))) {
        copy.insert(QStringLiteral("issue"), plainText(override.value(QStringLiteral("issue"))));
        copy.insert(QStringLiteral("assignment"), QStringLiteral("This session"));
    } else if (!captured.isEmpty() && captured != u"Unassigned") {
        copy.insert(QStringLiteral("assignment"), QStringLiteral("Captured issue"));
    } else {
        const QString description = plainText(session.value(QStringLiteral("description")));
        const QVariant rule = rulesMap().value(ruleKey(description, site));
        if (isMap(rule)) {
            const QVariantMap map = rule.toMap();
            copy.insert(QStringLiteral("issue"), plainText(map.value(QStringLiteral("issue"))));
            copy.insert(QStringLiteral("assignment"), QStringLiteral("Description rule"));
            copy.insert(QStringLiteral("aggregate_daily"), isYes(map.value(QStringLiteral("aggregate_daily"))));
            copy.insert(QStringLiteral("aggregate_description"), plainText(map.value(QStringLiteral("description"))));
        }
    }

    if (hasComment)
        copy.insert(QStringLiteral("comment"), plainText(override.value(QStringLiteral("comment"))));
    else if (session.contains(QStringLiteral("description")))
        copy.insert(QStringLiteral("comment"), plainText(session.value(QStringLiteral("description"))));
    else
        copy.insert(QStringLiteral("comment"), QStringLiteral(""));
    copy.insert(QStringLiteral("comment_custom"), hasComment);
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
        const QString siteA = plainText(ma.value(QStringLiteral("site"))),
                      siteB = plainText(mb.value(QStringLiteral("site")));
        if (siteA != siteB)
            return siteA < siteB;
        return plainText(ma.value(QStringLiteral("description"))) < plainText(mb.value(QStringLiteral("description")));
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
        override.insert(QStringLiteral("comment"), comment);
    QVariantMap rules = rulesMap();
    if (!issue.isEmpty()) {
        if (all) {
            const QString description = plainText(session.value(QStringLiteral("description")));
            const QVariantMap rule {{QStringLiteral("site"), site},
                {QStringLiteral("description"), normalizedDescription(description)},
                {QStringLiteral("label"), description.trimmed()}, {QStringLiteral("issue"), issue},
                {QStringLiteral("aggregate_daily"), aggregateDaily}};
            rules.insert(ruleKey(description, site), rule);
            // The session's own issue would otherwise keep hiding the rule it was just turned into.
            override.remove(QStringLiteral("issue"));
        } else {
            override.insert(QStringLiteral("issue"), issue);
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
        override.remove(QStringLiteral("jira_exclusion"));
    else
        override.insert(QStringLiteral("jira_exclusion"), exclusion);
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
        QVariantMap {{QStringLiteral("issue"), issue.isNull() ? QStringLiteral("") : issue},
            {QStringLiteral("comment"), comment.isNull() ? QStringLiteral("") : comment},
            {QStringLiteral("frozen"), true}});
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
    override.remove(QStringLiteral("issue"));
    putOverride(sessions, key, override);
    QVariantMap state = m_state;
    state.insert(kSessions, sessions);
    commit(state);
}

void IssueAssignments::updateRule(const QVariantMap &rule, const QString &issue)
{
    const QString key
        = ruleKey(plainText(rule.value(QStringLiteral("description"))), plainText(rule.value(QStringLiteral("site"))));
    QVariantMap rules = rulesMap();
    if (issue.isEmpty()) {
        rules.remove(key);
    } else {
        QVariantMap updated = rule;
        updated.insert(QStringLiteral("issue"), issue);
        rules.insert(key, updated);
    }
    QVariantMap state = m_state;
    state.insert(kRules, rules);
    commit(state);
}

void IssueAssignments::updateRule(const QVariantMap &rule, bool aggregateDaily)
{
    const QString key
        = ruleKey(plainText(rule.value(QStringLiteral("description"))), plainText(rule.value(QStringLiteral("site"))));
    QVariantMap rules = rulesMap();
    const QVariant existing = rules.value(key);
    if (!isMap(existing))
        return;
    QVariantMap updated = existing.toMap();
    updated.insert(QStringLiteral("aggregate_daily"), aggregateDaily);
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
        const QVariant description = mapValue(entry).value(QStringLiteral("description"));
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
        if (!plainText(rule.value(QStringLiteral("label"))).isEmpty())
            continue;
        const auto label = labels.constFind(plainText(rule.value(QStringLiteral("description"))));
        if (label == labels.constEnd())
            continue;
        rule.insert(QStringLiteral("label"), *label);
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
