#include "serverstate.h"

#include "jiraformat.h"

#include <QCryptographicHash>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QUrl>
#include <QUrlQuery>

#include <algorithm>
#include <limits>

// The Jira Cloud API gateway: accessible resources and /ex/jira/{cloud}/rest/api/3/....
namespace standin
{
namespace
{

const QString kTimeTrackingOff = QStringLiteral("Time tracking is not enabled.");
constexpr qsizetype kMaxPropertyKey = 255;
constexpr qsizetype kMaxPropertyValue = 32768;

// The fields Jira's worklog knows; anything else fails to deserialise.
const QStringList &worklogFields()
{
    static const QStringList fields = {QStringLiteral("self"), QStringLiteral("author"), QStringLiteral("updateAuthor"),
        QStringLiteral("comment"), QStringLiteral("created"), QStringLiteral("updated"), QStringLiteral("visibility"),
        QStringLiteral("started"), QStringLiteral("timeSpent"), QStringLiteral("timeSpentSeconds"),
        QStringLiteral("id"), QStringLiteral("issueId"), QStringLiteral("properties")};
    return fields;
}

// Atlassian Document Format as Jira checks it for a worklog comment: a "doc" of version 1 with a non-empty
// content array; every node has a type, block nodes a content array, text nodes a non-empty text.
bool validNode(const QJsonValue &value, int depth)
{
    if (!value.isObject() || depth > 32)
        return false;
    const QJsonObject node = value.toObject();
    const QString type = node.value(QStringLiteral("type")).toString();
    if (type.isEmpty())
        return false;
    if (type == QLatin1String("text"))
        return !node.value(QStringLiteral("text")).toString().isEmpty();
    if (type == QLatin1String("hardBreak") || type == QLatin1String("rule"))
        return true;
    const QJsonValue content = node.value(QStringLiteral("content"));
    if (content.isUndefined())
        return type == QLatin1String("paragraph");
    if (!content.isArray())
        return false;
    for (const QJsonValue &child : content.toArray()) {
        if (!validNode(child, depth + 1))
            return false;
    }
    return true;
}

bool validDocument(const QJsonValue &value)
{
    const QJsonObject doc = value.toObject();
    const QJsonValue content = doc.value(QStringLiteral("content"));
    return value.isObject() && doc.value(QStringLiteral("type")) == QLatin1String("doc")
        && doc.value(QStringLiteral("version")) == QJsonValue(1) && content.isArray() && !content.toArray().isEmpty()
        && validNode(
            QJsonObject {{QStringLiteral("type"), QStringLiteral("doc")}, {QStringLiteral("content"), content}}, 0);
}

// Jira's message for a property it refuses, or empty.
QString propertyProblem(const QJsonValue &property)
{
    if (!property.isObject() || !property[QStringLiteral("key")].isString())
        return QStringLiteral("Worklog properties must be key and value pairs.");
    const QString key = property[QStringLiteral("key")].toString();
    if (key.isEmpty() || key.size() > kMaxPropertyKey)
        return QStringLiteral("The property key can't be longer than 255 characters.");
    const QJsonValue value = property[QStringLiteral("value")];
    if (value.isUndefined() || value.isNull())
        return QStringLiteral("The property value must be a valid, non-empty JSON value.");
    const QByteArray text = value.isObject() ? QJsonDocument(value.toObject()).toJson(QJsonDocument::Compact)
        : value.isArray()                    ? QJsonDocument(value.toArray()).toJson(QJsonDocument::Compact)
                          : QJsonDocument(QJsonArray {value}).toJson(QJsonDocument::Compact).mid(1).chopped(1);
    if (QString::fromUtf8(text).size() > kMaxPropertyValue)
        return QStringLiteral("The property value can't be longer than 32768 characters.");
    return {};
}

} // namespace

const Site *Server::State::findSite(const QString &cloudId) const
{
    for (const Site &site : sites) {
        if (site.cloudId == cloudId)
            return &site;
    }
    return cloudId.isEmpty() && !sites.isEmpty() ? &sites.first() : nullptr;
}

QString Server::State::currentKey(const QString &key) const
{
    QString current = key.toUpper();
    for (int hops = 0; movedKeys.contains(current) && hops < 16; ++hops)
        current = movedKeys.value(current);
    return current;
}

Issue *Server::State::findIssue(const QString &key, const QString &cloudId)
{
    auto it = issues.find(currentKey(key));
    if (it == issues.end())
        return nullptr;
    if (!it->cloudId.isEmpty() && it->cloudId != cloudId)
        return nullptr;
    return &*it;
}

const AccessToken *Server::State::authorizeBearer(
    const httplib::Request &req, httplib::Response &res, const QString &scope, const QString &cloudId)
{
    static const QJsonObject unauthorized {
        {QStringLiteral("code"), 401}, {QStringLiteral("message"), QStringLiteral("Unauthorized")}};
    const QString header = fromStd(req.get_header_value("Authorization"));
    if (!header.startsWith(QStringLiteral("Bearer "))) {
        answerJson(res, 401, unauthorized);
        return nullptr;
    }
    const auto it = accessTokens.constFind(header.mid(7));
    if (it == accessTokens.constEnd() || it->expiresAt <= QDateTime::currentDateTimeUtc()) {
        answerJson(res, 401, unauthorized);
        return nullptr;
    }
    if (!cloudId.isNull()) {
        const bool granted = it->cloudIds.isEmpty() || it->cloudIds.contains(cloudId);
        if (!granted || !findSite(cloudId) || cloudId.isEmpty()) {
            answerJson(res, 401, unauthorized);
            return nullptr;
        }
    }
    if (!scope.isEmpty() && !it->scopes.contains(scope)) {
        answerJson(res, 401,
            QJsonObject {{QStringLiteral("code"), 401},
                {QStringLiteral("message"), QStringLiteral("Unauthorized; scope does not match")}});
        return nullptr;
    }
    return &*it;
}

void Server::State::accessibleResources(const httplib::Request &req, httplib::Response &res)
{
    const AccessToken *token = authorizeBearer(req, res, {}, QString());
    if (!token)
        return;
    QJsonArray list;
    for (const Site &site : sites) {
        if (!token->cloudIds.isEmpty() && !token->cloudIds.contains(site.cloudId))
            continue;
        QStringList scopes = site.scopes.isEmpty() ? token->scopes : site.scopes;
        scopes.removeAll(kOffline);
        list.append(QJsonObject {{QStringLiteral("id"), site.cloudId}, {QStringLiteral("name"), site.name},
            {QStringLiteral("url"), site.url}, {QStringLiteral("scopes"), QJsonArray::fromStringList(scopes)},
            {QStringLiteral("avatarUrl"),
                QStringLiteral("https://site-admin-avatar-cdn.prod.public.atl-paas.net/avatars/240/rocket.png")}});
    }
    answerJson(res, 200, list);
}

void Server::State::gateway(const httplib::Request &req, httplib::Response &res, const QString &path)
{
    static const QRegularExpression route(
        QStringLiteral("^/ex/jira/([^/]*)/rest/api/3(/myself|/issue/([^/]+)(/worklog)?)/?$"));
    const QRegularExpressionMatch match = route.match(path);
    const QString method = fromStd(req.method);
    if (!match.hasMatch()) {
        answerJson(res, 404, jiraErrors({QStringLiteral("null for uri: ") + path}));
        return;
    }
    const QString cloudId = match.captured(1);
    const QString key = match.captured(3);
    const bool isMyself = match.captured(2) == QLatin1String("/myself");
    const bool isWorklog = !match.captured(4).isEmpty();
    QString scope;
    if (isMyself && method == QLatin1String("GET")) {
        scope = kReadUser;
    } else if (!isMyself && method == QLatin1String("GET")) {
        scope = kReadWork;
    } else if (isWorklog && method == QLatin1String("POST")) {
        scope = kWriteWork;
    } else {
        answerJson(res, 405, jiraErrors({QStringLiteral("Method Not Allowed")}));
        return;
    }
    const AccessToken *token = authorizeBearer(req, res, scope, cloudId);
    if (!token)
        return;
    const Site &site = *findSite(cloudId);
    if (isMyself) {
        myself(res, *token, site);
    } else if (!isWorklog) {
        issue(req, res, *token, site, key);
    } else if (method == QLatin1String("GET")) {
        listWorklogs(req, res, *token, site, key);
    } else {
        createWorklog(req, res, *token, site, key);
    }
}

QJsonObject Server::State::userJson(const QString &accountId, const Site &site, bool details) const
{
    const User user = users.value(accountId);
    const QString avatar
        = QStringLiteral("https://secure.gravatar.com/avatar/%1?d=identicon&s=%2")
              .arg(QString::fromLatin1(QCryptographicHash::hash(accountId.toUtf8(), QCryptographicHash::Md5).toHex()));
    QJsonObject object {
        {QStringLiteral("self"), QString(site.url + QStringLiteral("/rest/api/3/user?accountId=") + accountId)},
        {QStringLiteral("accountId"), accountId}, {QStringLiteral("displayName"), user.displayName},
        {QStringLiteral("active"), true}, {QStringLiteral("timeZone"), user.timeZone},
        {QStringLiteral("accountType"), QStringLiteral("atlassian")},
        {QStringLiteral("avatarUrls"),
            QJsonObject {{QStringLiteral("48x48"), avatar.arg(48)}, {QStringLiteral("24x24"), avatar.arg(24)},
                {QStringLiteral("16x16"), avatar.arg(16)}, {QStringLiteral("32x32"), avatar.arg(32)}}}};
    if (!user.emailAddress.isEmpty())
        object.insert(QStringLiteral("emailAddress"), user.emailAddress);
    if (details) {
        object.insert(QStringLiteral("locale"), user.locale);
        object.insert(QStringLiteral("groups"),
            QJsonObject {{QStringLiteral("size"), 1}, {QStringLiteral("items"), QJsonArray {}}});
        object.insert(QStringLiteral("applicationRoles"),
            QJsonObject {{QStringLiteral("size"), 1}, {QStringLiteral("items"), QJsonArray {}}});
        object.insert(QStringLiteral("expand"), QStringLiteral("groups,applicationRoles"));
    }
    return object;
}

void Server::State::myself(httplib::Response &res, const AccessToken &token, const Site &site)
{
    answerJson(res, 200, userJson(token.accountId, site, true));
}

void Server::State::issue(
    const httplib::Request &req, httplib::Response &res, const AccessToken &, const Site &site, const QString &key)
{
    const Issue *found = findIssue(key, site.cloudId);
    if (!found) {
        answerJson(res, 404, jiraErrors({kNoIssue}));
        return;
    }
    QStringList fields = fromStd(req.get_param_value("fields")).split(QLatin1Char(','), Qt::SkipEmptyParts);
    if (fields.isEmpty() || fields.contains(QStringLiteral("*all")))
        fields = {QStringLiteral("summary"), QStringLiteral("timetracking")};
    QJsonObject fieldValues;
    if (fields.contains(QStringLiteral("summary")))
        fieldValues.insert(QStringLiteral("summary"), found->summary);
    if (fields.contains(QStringLiteral("timetracking")))
        fieldValues.insert(QStringLiteral("timetracking"), found->timetracking);
    answerJson(res, 200,
        QJsonObject {{QStringLiteral("expand"),
                         QStringLiteral("renderedFields,names,schema,operations,editmeta,changelog,"
                                        "versionedRepresentations")},
            {QStringLiteral("id"), found->id}, {QStringLiteral("key"), found->key},
            {QStringLiteral("self"), QString(site.url + QStringLiteral("/rest/api/3/issue/") + found->id)},
            {QStringLiteral("fields"), fieldValues}});
}

QJsonObject Server::State::worklogJson(
    const StoredWorklog &stored, const Site &site, const QString &zone, bool properties) const
{
    const Worklog &w = stored.worklog;
    const QJsonObject author = userJson(w.authorAccountId, site, false);
    QJsonObject object {
        {QStringLiteral("self"),
            QString(site.url + QStringLiteral("/rest/api/3/issue/%1/worklog/%2").arg(stored.issueId, w.id))},
        {QStringLiteral("author"), author}, {QStringLiteral("updateAuthor"), author},
        {QStringLiteral("created"), jiraDateTime(w.created, zone)},
        {QStringLiteral("updated"), jiraDateTime(stored.updated, zone)},
        {QStringLiteral("started"), jiraDateTime(w.started, zone)},
        {QStringLiteral("timeSpent"), jiraDuration(w.seconds)}, {QStringLiteral("timeSpentSeconds"), w.seconds},
        {QStringLiteral("id"), w.id}, {QStringLiteral("issueId"), stored.issueId}};
    if (!w.comment.isEmpty())
        object.insert(QStringLiteral("comment"), w.comment);
    if (properties)
        object.insert(QStringLiteral("properties"), w.properties);
    return object;
}

QString Server::State::storeWorklog(const Worklog &worklog)
{
    StoredWorklog stored;
    stored.worklog = worklog;
    stored.worklog.issueKey = currentKey(worklog.issueKey);
    if (stored.worklog.id.isEmpty())
        stored.worklog.id = QString::number(nextWorklogId++);
    if (!stored.worklog.created.isValid())
        stored.worklog.created = QDateTime::currentDateTimeUtc();
    stored.updated = stored.worklog.created;
    stored.issueId = issues.value(stored.worklog.issueKey).id;
    stored.sequence = ++sequence;
    // Jira lists worklogs in created order; equal times keep the order they were added in.
    const auto at = std::upper_bound(worklogs.begin(), worklogs.end(), stored, [](const auto &a, const auto &b) {
        return a.worklog.created < b.worklog.created
            || (a.worklog.created == b.worklog.created && a.sequence < b.sequence);
    });
    worklogs.insert(at, stored);
    return stored.worklog.id;
}

void Server::State::listWorklogs(
    const httplib::Request &req, httplib::Response &res, const AccessToken &token, const Site &site, const QString &key)
{
    const Issue *found = findIssue(key, site.cloudId);
    if (!found) {
        answerJson(res, 404, jiraErrors({kNoIssue}));
        return;
    }
    if (untrackedIssues.contains(found->key)) {
        answerJson(res, 404, jiraErrors({kTimeTrackingOff}));
        return;
    }
    // Jira answers a non-numeric paging value like a missing issue.
    auto numberParam = [&](const char *name, qint64 fallback, bool *ok) -> qint64 {
        if (!req.has_param(name))
            return fallback;
        return fromStd(req.get_param_value(name)).toLongLong(ok);
    };
    bool ok = true;
    const qint64 startAt = std::max<qint64>(0, numberParam("startAt", 0, &ok));
    if (!ok) {
        answerJson(res, 404, jiraErrors({kNoIssue}));
        return;
    }
    const qint64 asked = numberParam("maxResults", pageSize, &ok);
    if (!ok) {
        answerJson(res, 404, jiraErrors({kNoIssue}));
        return;
    }
    const qint64 after = numberParam("startedAfter", std::numeric_limits<qint64>::min(), &ok);
    const qint64 before = ok ? numberParam("startedBefore", std::numeric_limits<qint64>::max(), &ok) : 0;
    if (!ok) {
        answerJson(res, 400, jiraErrors({QStringLiteral("startedAfter and startedBefore must be numbers.")}));
        return;
    }
    const qint64 granted = std::clamp<qint64>(asked, 0, pageSize);
    const bool withProperties
        = fromStd(req.get_param_value("expand")).split(QLatin1Char(',')).contains(QStringLiteral("properties"));
    const QString zone = users.value(token.accountId).timeZone;

    QJsonArray page;
    qint64 total = 0;
    for (const StoredWorklog &stored : worklogs) {
        if (stored.worklog.issueKey != found->key)
            continue;
        const qint64 started = stored.worklog.started.toMSecsSinceEpoch();
        // startedAfter is inclusive, startedBefore exclusive.
        if (started < after || started >= before)
            continue;
        if (total >= startAt && total < startAt + granted)
            page.append(worklogJson(stored, site, zone, withProperties));
        ++total;
    }
    answerJson(res, 200,
        QJsonObject {{QStringLiteral("startAt"), startAt}, {QStringLiteral("maxResults"), granted},
            {QStringLiteral("total"), total}, {QStringLiteral("worklogs"), page}});
}

void Server::State::createWorklog(
    const httplib::Request &req, httplib::Response &res, const AccessToken &token, const Site &site, const QString &key)
{
    const Issue *found = findIssue(key, site.cloudId);
    if (!found) {
        answerJson(res, 404, jiraErrors({kNoIssue}));
        return;
    }
    if (untrackedIssues.contains(found->key)) {
        answerJson(res, 404, jiraErrors({kTimeTrackingOff}));
        return;
    }
    if (noWorkPermission.contains({found->key, token.accountId})) {
        answerJson(res, 403,
            jiraErrors({QStringLiteral("You do not have the permission to associate a worklog to this issue.")}));
        return;
    }
    if (closedIssues.contains(found->key)) {
        answerJson(res, 400,
            jiraErrors({QStringLiteral("You can not edit the issue as it is in a non-editable workflow state.")}));
        return;
    }
    const QString adjust
        = req.has_param("adjustEstimate") ? fromStd(req.get_param_value("adjustEstimate")) : QStringLiteral("auto");
    static const QStringList modes
        = {QStringLiteral("new"), QStringLiteral("leave"), QStringLiteral("manual"), QStringLiteral("auto")};
    if (!modes.contains(adjust)) {
        answerJson(res, 400, jiraErrors({QStringLiteral("Invalid value for adjustEstimate: ") + adjust}));
        return;
    }
    if ((adjust == QLatin1String("new") && !req.has_param("newEstimate"))
        || (adjust == QLatin1String("manual") && !req.has_param("reduceBy"))) {
        answerJson(res, 400, jiraErrors({QStringLiteral("The estimate value for adjustEstimate is missing.")}));
        return;
    }
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(req.body), &parseError);
    if (parseError.error != QJsonParseError::NoError || !document.isObject()) {
        answerJson(res, 400, jiraErrors({QStringLiteral("Unexpected character in the request body.")}));
        return;
    }
    const QJsonObject body = document.object();
    for (auto it = body.constBegin(); it != body.constEnd(); ++it) {
        if (!worklogFields().contains(it.key())) {
            answerJson(res, 400,
                jiraErrors({QStringLiteral("Unrecognized field \"%1\" (class com.atlassian.jira.rest.v2.issue."
                                           "worklog.WorklogJsonBean), not marked as ignorable")
                                .arg(it.key())}));
            return;
        }
    }

    const QDateTime started = parseJiraDateTime(body.value(QStringLiteral("started")).toString());
    if (!started.isValid()) {
        answerJson(res, 400,
            jiraErrors({},
                {{QStringLiteral("started"),
                    QStringLiteral("Invalid date format. Please enter the date in the format "
                                   "\"yyyy-MM-dd'T'HH:mm:ss.SSSZ\".")}}));
        return;
    }
    const QJsonValue secondsValue = body.value(QStringLiteral("timeSpentSeconds"));
    const QJsonValue textValue = body.value(QStringLiteral("timeSpent"));
    qint64 seconds = 0;
    if (body.contains(QStringLiteral("timeSpentSeconds")) && body.contains(QStringLiteral("timeSpent"))) {
        answerJson(res, 400,
            jiraErrors({},
                {{QStringLiteral("timeLogged"),
                    QStringLiteral("Provide either timeSpent or timeSpentSeconds, not both.")}}));
        return;
    }
    if (secondsValue.isDouble()) {
        seconds = qint64(secondsValue.toDouble());
    } else if (textValue.isString()) {
        seconds = parseJiraDuration(textValue.toString());
        if (seconds < 0) {
            answerJson(res, 400,
                jiraErrors({}, {{QStringLiteral("timeLogged"), QStringLiteral("Invalid time duration entered.")}}));
            return;
        }
    }
    if (seconds < 60) {
        answerJson(res, 400,
            jiraErrors({QStringLiteral("Worklog must not be null.")},
                {{QStringLiteral("timeLogged"), QStringLiteral("You must indicate the time spent working.")}}));
        return;
    }
    const QJsonValue comment = body.value(QStringLiteral("comment"));
    if (!comment.isUndefined() && !validDocument(comment)) {
        answerJson(res, 400,
            jiraErrors({}, {{QStringLiteral("comment"), QStringLiteral("Comment must be an Atlassian Document.")}}));
        return;
    }
    const QJsonValue properties = body.value(QStringLiteral("properties"));
    if (!properties.isUndefined()) {
        QString problem
            = properties.isArray() ? QString() : QStringLiteral("Worklog properties must be key and value pairs.");
        for (const QJsonValue &property : properties.toArray()) {
            if (problem.isEmpty())
                problem = propertyProblem(property);
        }
        if (!problem.isEmpty()) {
            answerJson(res, 400, jiraErrors({problem}));
            return;
        }
    }
    const qint64 held = std::count_if(
        worklogs.cbegin(), worklogs.cend(), [&](const StoredWorklog &s) { return s.worklog.issueKey == found->key; });
    if (held >= worklogLimit) {
        answerJson(res, 413,
            jiraErrors({QStringLiteral("The number of worklogs for this issue has reached the limit of %1.")
                            .arg(worklogLimit)}));
        return;
    }

    if (!withinLimit(issueWrites[found->key], issueWriteLimit, issueWriteWindowMs, res, "jira-per-issue-on-write"))
        return;

    Worklog worklog;
    worklog.issueKey = found->key;
    worklog.authorAccountId = token.accountId;
    worklog.started = started;
    worklog.seconds = seconds;
    worklog.comment = comment.toObject();
    worklog.properties = properties.toArray();
    const QString id = storeWorklog(worklog);

    // Time tracking follows the estimate mode, as Jira's issue view shows it afterwards.
    Issue &tracked = issues[found->key];
    QJsonObject tracking = tracked.timetracking;
    const qint64 spent = qint64(tracking.value(QStringLiteral("timeSpentSeconds")).toDouble()) + seconds;
    tracking.insert(QStringLiteral("timeSpentSeconds"), spent);
    tracking.insert(QStringLiteral("timeSpent"), jiraDuration(spent));
    if (adjust == QLatin1String("auto") && tracking.contains(QStringLiteral("remainingEstimateSeconds"))) {
        const qint64 remaining = std::max<qint64>(
            0, qint64(tracking.value(QStringLiteral("remainingEstimateSeconds")).toDouble()) - seconds);
        tracking.insert(QStringLiteral("remainingEstimateSeconds"), remaining);
        tracking.insert(QStringLiteral("remainingEstimate"), jiraDuration(remaining));
    }
    tracked.timetracking = tracking;

    const bool withProperties
        = fromStd(req.get_param_value("expand")).split(QLatin1Char(',')).contains(QStringLiteral("properties"));
    const QString zone = users.value(token.accountId).timeZone;
    for (const StoredWorklog &stored : worklogs) {
        if (stored.worklog.id == id) {
            answerJson(res, 201, worklogJson(stored, site, zone, withProperties));
            return;
        }
    }
}

} // namespace standin
