#include "admin.h"

#include "jiraformat.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <httplib.h>

namespace standin
{
namespace
{

QStringList stringList(const QJsonValue &value)
{
    QStringList list;
    for (const QJsonValue &item : value.toArray())
        list.append(item.toString());
    return list;
}

QDateTime instant(const QJsonValue &value)
{
    const QString text = value.toString();
    const QDateTime jira = parseJiraDateTime(text);
    return jira.isValid() ? jira : QDateTime::fromString(text, Qt::ISODateWithMs);
}

// Accepts one object or an array of them.
QList<QJsonObject> objects(const QJsonDocument &document)
{
    QList<QJsonObject> list;
    if (document.isObject())
        list.append(document.object());
    for (const QJsonValue &item : document.array())
        list.append(item.toObject());
    return list;
}

void reply(httplib::Response &res, int status, const QJsonDocument &document)
{
    res.status = status;
    res.set_content(document.toJson(QJsonDocument::Compact).toStdString(), "application/json");
}

void replyError(httplib::Response &res, int status, const QString &message)
{
    reply(res, status, QJsonDocument(QJsonObject {{QStringLiteral("error"), message}}));
}

} // namespace

User userFromJson(const QJsonObject &object)
{
    User user;
    user.accountId = object.value(QStringLiteral("accountId")).toString();
    user.displayName = object.value(QStringLiteral("displayName")).toString();
    user.timeZone = object.value(QStringLiteral("timeZone")).toString(user.timeZone);
    user.emailAddress = object.value(QStringLiteral("emailAddress")).toString();
    user.locale = object.value(QStringLiteral("locale")).toString(user.locale);
    return user;
}

Site siteFromJson(const QJsonObject &object)
{
    Site site;
    site.cloudId = object.value(QStringLiteral("cloudId")).toString(object.value(QStringLiteral("id")).toString());
    site.name = object.value(QStringLiteral("name")).toString();
    site.url = object.value(QStringLiteral("url")).toString();
    site.scopes = stringList(object.value(QStringLiteral("scopes")));
    return site;
}

Issue issueFromJson(const QJsonObject &object)
{
    Issue issue;
    issue.key = object.value(QStringLiteral("key")).toString();
    issue.id = object.value(QStringLiteral("id")).toString();
    issue.summary = object.value(QStringLiteral("summary")).toString();
    issue.timetracking = object.value(QStringLiteral("timetracking")).toObject();
    issue.cloudId = object.value(QStringLiteral("cloudId")).toString();
    return issue;
}

Worklog worklogFromJson(const QJsonObject &object)
{
    Worklog worklog;
    worklog.issueKey = object.value(QStringLiteral("issueKey")).toString();
    worklog.authorAccountId = object.value(QStringLiteral("authorAccountId")).toString();
    worklog.started = instant(object.value(QStringLiteral("started")));
    worklog.seconds = qint64(object.value(QStringLiteral("seconds")).toDouble());
    worklog.comment = object.value(QStringLiteral("comment")).toObject();
    worklog.properties = object.value(QStringLiteral("properties")).toArray();
    worklog.created = instant(object.value(QStringLiteral("created")));
    worklog.id = object.value(QStringLiteral("id")).toString();
    return worklog;
}

Fault faultFromJson(const QJsonObject &object, QString *error)
{
    const QString kind = object.value(QStringLiteral("kind")).toString();
    const QString method = object.value(QStringLiteral("method")).toString();
    const QString path = object.value(QStringLiteral("path")).toString();
    const int times = object.value(QStringLiteral("times")).toInt(1);
    Fault fault;
    if (kind == QLatin1String("status")) {
        QList<QPair<QByteArray, QByteArray>> headers;
        const QJsonObject given = object.value(QStringLiteral("headers")).toObject();
        for (auto it = given.begin(); it != given.end(); ++it)
            headers.append({it.key().toUtf8(), it.value().toString().toUtf8()});
        fault = Fault::statusReply(method, path, object.value(QStringLiteral("status")).toInt(503),
            object.value(QStringLiteral("body")).toString().toUtf8(), headers, times);
        if (object.contains(QStringLiteral("contentType")))
            fault.contentType = object.value(QStringLiteral("contentType")).toString().toUtf8();
    } else if (kind == QLatin1String("tooManyRequests")) {
        fault = Fault::tooManyRequests(method, path, object.value(QStringLiteral("retryAfter")).toInt(1), times);
    } else if (kind == QLatin1String("tooManyRequestsHtml")) {
        fault = Fault::tooManyRequestsHtml(method, path, times);
    } else if (kind == QLatin1String("serviceUnavailable")) {
        fault = Fault::serviceUnavailable(method, path, times, object.value(QStringLiteral("retryAfter")).toInt(-1));
    } else if (kind == QLatin1String("payloadTooLarge")) {
        fault = Fault::payloadTooLarge(method, path, times);
    } else if (kind == QLatin1String("scopeMismatch")) {
        fault = Fault::scopeMismatch(method, path, times);
    } else if (kind == QLatin1String("invalidGrant")) {
        fault = Fault::invalidGrant(times);
    } else if (kind == QLatin1String("slow")) {
        fault = Fault::slow(method, path, object.value(QStringLiteral("delayMs")).toInt(30000), times);
    } else if (kind == QLatin1String("redirect")) {
        fault = Fault::redirect(method, path, object.value(QStringLiteral("location")).toString(), times);
    } else if (kind == QLatin1String("drop")) {
        fault = Fault::drop(method, path, times);
    } else if (kind == QLatin1String("trickle")) {
        fault = Fault::trickle(method, path, object.value(QStringLiteral("delayMs")).toInt(1000), times);
    } else if (kind == QLatin1String("createThenReply")) {
        fault = Fault::createThenReply(object.value(QStringLiteral("status")).toInt(201),
            object.value(QStringLiteral("body")).toString().toUtf8(), times);
    } else if (kind == QLatin1String("createThenDrop")) {
        fault = Fault::createThenDrop(times);
    } else if (error) {
        *error = QStringLiteral("unknown fault kind: ") + kind;
    }
    return fault;
}

QJsonObject requestToJson(const ReceivedRequest &request)
{
    QJsonObject headers;
    for (const auto &[name, value] : request.headers) {
        if (!headers.contains(name))
            headers.insert(name, value);
    }
    return QJsonObject {{QStringLiteral("method"), request.method}, {QStringLiteral("path"), request.path},
        {QStringLiteral("query"), request.query}, {QStringLiteral("headers"), headers},
        {QStringLiteral("body"), QString::fromUtf8(request.body)},
        {QStringLiteral("receivedAt"), request.receivedAt.toString(Qt::ISODateWithMs)}};
}

void handleAdmin(Server &server, const httplib::Request &req, httplib::Response &res)
{
    const QString what = QString::fromStdString(req.path).mid(int(qstrlen("/__admin/")));
    const bool post = req.method == "POST";
    const bool get = req.method == "GET";
    const bool remove = req.method == "DELETE";
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(req.body), &parseError);
    if (post && parseError.error != QJsonParseError::NoError) {
        replyError(res, 400, QStringLiteral("the body is not JSON: ") + parseError.errorString());
        return;
    }
    const QJsonObject body = document.object();

    if (post && what == QLatin1String("users")) {
        for (const QJsonObject &object : objects(document))
            server.addUser(userFromJson(object));
    } else if (post && what == QLatin1String("sites")) {
        for (const QJsonObject &object : objects(document))
            server.addSite(siteFromJson(object));
    } else if (post && what == QLatin1String("issues")) {
        for (const QJsonObject &object : objects(document))
            server.addIssue(issueFromJson(object));
    } else if (post && what == QLatin1String("worklogs")) {
        QJsonArray ids;
        for (const QJsonObject &object : objects(document))
            ids.append(server.addWorklog(worklogFromJson(object)));
        reply(res, 200, QJsonDocument(QJsonObject {{QStringLiteral("ids"), ids}}));
        return;
    } else if (get && what == QLatin1String("worklogs")) {
        reply(res, 200,
            QJsonDocument(server.worklogs(QString::fromStdString(req.get_param_value("issue")),
                QString::fromStdString(req.get_param_value("viewer")))));
        return;
    } else if (remove && what == QLatin1String("worklogs")) {
        server.clearWorklogs();
    } else if (post && what == QLatin1String("tokens")) {
        const QString token = server.issueAccessToken(body.value(QStringLiteral("accountId")).toString(),
            stringList(body.value(QStringLiteral("scopes"))),
            qint64(body.value(QStringLiteral("expiresIn")).toDouble(3600)),
            stringList(body.value(QStringLiteral("cloudIds"))));
        reply(res, 200, QJsonDocument(QJsonObject {{QStringLiteral("access_token"), token}}));
        return;
    } else if (post && what == QLatin1String("faults")) {
        QList<Fault> faults;
        for (const QJsonObject &object : objects(document)) {
            QString error;
            faults.append(faultFromJson(object, &error));
            if (!error.isEmpty()) {
                replyError(res, 400, error);
                return;
            }
        }
        for (const Fault &fault : faults)
            server.addFault(fault);
    } else if (remove && what == QLatin1String("faults")) {
        server.clearFaults();
    } else if (get && what == QLatin1String("requests")) {
        QJsonArray list;
        for (const ReceivedRequest &request : server.requests())
            list.append(requestToJson(request));
        reply(res, 200, QJsonDocument(list));
        return;
    } else if (remove && what == QLatin1String("requests")) {
        server.clearRequests();
    } else if (post && what == QLatin1String("config")) {
        if (body.contains(QStringLiteral("pageSize")))
            server.setPageSize(body.value(QStringLiteral("pageSize")).toInt());
        if (body.contains(QStringLiteral("worklogLimit")))
            server.setWorklogLimit(body.value(QStringLiteral("worklogLimit")).toInt());
        if (body.contains(QStringLiteral("authHost")))
            server.setAuthHost(body.value(QStringLiteral("authHost")).toString());
        if (body.contains(QStringLiteral("authorizationUrlBase")))
            server.setAuthorizationUrlBase(body.value(QStringLiteral("authorizationUrlBase")).toString());
        if (body.contains(QStringLiteral("tokenLifetime")))
            server.setTokenLifetime(qint64(body.value(QStringLiteral("tokenLifetime")).toDouble()));
        if (body.contains(QStringLiteral("burstLimit")))
            server.setBurstLimit(body.value(QStringLiteral("burstLimit")).toInt(),
                body.value(QStringLiteral("burstWindowMs")).toInt(1000));
        if (body.contains(QStringLiteral("issueWriteLimit")))
            server.setIssueWriteLimit(body.value(QStringLiteral("issueWriteLimit")).toInt(),
                body.value(QStringLiteral("issueWriteWindowMs")).toInt(1000));
        if (body.contains(QStringLiteral("signInLifetime")))
            server.setSignInLifetime(qint64(body.value(QStringLiteral("signInLifetime")).toDouble()));
        if (body.contains(QStringLiteral("refreshReuseLeeway")))
            server.setRefreshReuseLeeway(qint64(body.value(QStringLiteral("refreshReuseLeeway")).toDouble()));
        if (body.contains(QStringLiteral("signIn"))) {
            const QJsonObject grant = body.value(QStringLiteral("signIn")).toObject();
            server.setSignInGrant(
                grant.value(QStringLiteral("accountId")).toString(), stringList(grant.value(QStringLiteral("scopes"))));
        }
    } else if (get && what == QLatin1String("signins")) {
        reply(res, 200,
            QJsonDocument(
                QJsonObject {{QStringLiteral("pending"), QJsonArray::fromStringList(server.pendingSignIns())}}));
        return;
    } else if (post && (what == QLatin1String("approve") || what == QLatin1String("deny"))) {
        const QString state = body.value(QStringLiteral("state")).toString();
        const bool done = what == QLatin1String("approve") ? server.approve(state) : server.deny(state);
        if (!done) {
            replyError(res, 404, QStringLiteral("no pending sign-in with that state"));
            return;
        }
    } else if (post && what == QLatin1String("rates")) {
        for (const QJsonObject &object : objects(document))
            server.setRate(object.value(QStringLiteral("base")).toString(),
                object.value(QStringLiteral("quote")).toString(), object.value(QStringLiteral("rate")).toDouble(),
                QDate::fromString(object.value(QStringLiteral("date")).toString(), Qt::ISODate));
    } else {
        replyError(res, 404, QStringLiteral("unknown admin endpoint"));
        return;
    }
    reply(res, 200, QJsonDocument(QJsonObject {{QStringLiteral("ok"), true}}));
}

} // namespace standin
