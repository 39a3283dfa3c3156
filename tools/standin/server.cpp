#include "server.h"

#include "admin.h"
#include "certificate.h"
#include "feed.h"
#include "serverstate.h"

#include <QJsonDocument>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QUrlQuery>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>

namespace standin
{
namespace
{

std::string toStd(const QString &text)
{
    return text.toStdString();
}

void replyWith(httplib::Response &res, const Fault &fault)
{
    res.status = fault.status;
    for (const auto &[name, value] : fault.headers)
        res.set_header(name.toStdString(), value.toStdString());
    res.set_content(fault.body.toStdString(), fault.contentType.toStdString());
}

} // namespace

QString randomHex(int bytes)
{
    QByteArray data(bytes, Qt::Uninitialized);
    QRandomGenerator::system()->fillRange(reinterpret_cast<quint32 *>(data.data()), bytes / 4);
    return QString::fromLatin1(data.toHex());
}

QString base64Url(const QByteArray &data)
{
    return QString::fromLatin1(data.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals));
}

QString fromStd(const std::string &text)
{
    return QString::fromUtf8(text.data(), qsizetype(text.size()));
}

void answer(httplib::Response &res, int status, const QByteArray &body, const char *contentType)
{
    res.status = status;
    res.set_content(body.toStdString(), contentType);
}

void answerJson(httplib::Response &res, int status, const QJsonObject &object)
{
    answer(res, status, QJsonDocument(object).toJson(QJsonDocument::Compact));
}

void answerJson(httplib::Response &res, int status, const QJsonArray &array)
{
    answer(res, status, QJsonDocument(array).toJson(QJsonDocument::Compact));
}

QJsonObject jiraErrors(const QStringList &messages, const QJsonObject &errors)
{
    return QJsonObject {
        {QStringLiteral("errorMessages"), QJsonArray::fromStringList(messages)}, {QStringLiteral("errors"), errors}};
}

void dropConnection(const httplib::Request &req, httplib::Response &res)
{
    if (req.ssl)
        ::shutdown(SSL_get_fd(req.ssl), SHUT_RDWR);
    res.status = 500;
    res.set_header("Connection", "close");
}

QJsonObject commentDocument(const QString &text)
{
    const QJsonObject run {{QStringLiteral("type"), QStringLiteral("text")}, {QStringLiteral("text"), text}};
    const QJsonObject paragraph {
        {QStringLiteral("type"), QStringLiteral("paragraph")}, {QStringLiteral("content"), QJsonArray {run}}};
    return QJsonObject {{QStringLiteral("version"), 1}, {QStringLiteral("type"), QStringLiteral("doc")},
        {QStringLiteral("content"), QJsonArray {paragraph}}};
}

QString ReceivedRequest::header(const QString &name) const
{
    const QString lower = name.toLower();
    for (const auto &[key, value] : headers) {
        if (key == lower)
            return value;
    }
    return {};
}

QString ReceivedRequest::queryItem(const QString &name) const
{
    const QUrlQuery items(query);
    if (!items.hasQueryItem(name))
        return {};
    return items.queryItemValue(name, QUrl::FullyDecoded);
}

Fault Fault::statusReply(const QString &method, const QString &pathPattern, int status, const QByteArray &body,
    const QList<QPair<QByteArray, QByteArray>> &headers, int times)
{
    Fault fault;
    fault.method = method;
    fault.pathPattern = pathPattern;
    fault.times = times;
    fault.kind = Kind::Status;
    fault.status = status;
    fault.body = body;
    fault.headers = headers;
    return fault;
}

Fault Fault::tooManyRequests(const QString &method, const QString &pathPattern, int retryAfterSeconds, int times)
{
    const QByteArray reset = QDateTime::currentDateTimeUtc()
                                 .addSecs(retryAfterSeconds + 60)
                                 .toString(QStringLiteral("yyyy-MM-ddTHH:mm'Z'"))
                                 .toLatin1();
    return statusReply(method, pathPattern, 429, {},
        {{"Retry-After", QByteArray::number(retryAfterSeconds)}, {"X-RateLimit-Reset", reset},
            {"RateLimit-Reason", "jira-per-issue-on-write"}},
        times);
}

Fault Fault::tooManyRequestsHtml(const QString &method, const QString &pathPattern, int times)
{
    Fault fault = statusReply(method, pathPattern, 429,
        "<!DOCTYPE html><html><head><title>Too Many Requests</title></head>"
        "<body><h1>Rate limit exceeded</h1><p>Please try again later.</p></body></html>",
        {{"Retry-After", "5"}}, times);
    fault.contentType = "text/html;charset=UTF-8";
    return fault;
}

Fault Fault::serviceUnavailable(const QString &method, const QString &pathPattern, int times, int retryAfterSeconds)
{
    QList<QPair<QByteArray, QByteArray>> headers;
    if (retryAfterSeconds >= 0)
        headers.append({"Retry-After", QByteArray::number(retryAfterSeconds)});
    Fault fault
        = statusReply(method, pathPattern, 503, "<html><body>Service Unavailable</body></html>", headers, times);
    fault.contentType = "text/html;charset=UTF-8";
    return fault;
}

Fault Fault::payloadTooLarge(const QString &method, const QString &pathPattern, int times)
{
    return statusReply(method, pathPattern, 413,
        QJsonDocument(jiraErrors({QStringLiteral("The number of worklogs for this issue has reached the limit.")}))
            .toJson(QJsonDocument::Compact),
        {}, times);
}

Fault Fault::scopeMismatch(const QString &method, const QString &pathPattern, int times)
{
    return statusReply(
        method, pathPattern, 401, R"({"code":401,"message":"Unauthorized; scope does not match"})", {}, times);
}

Fault Fault::invalidGrant(int times)
{
    Fault fault = statusReply(QStringLiteral("POST"), QStringLiteral("^/oauth/refresh$"), 403,
        R"({"error":"invalid_grant","error_description":"Unknown or invalid refresh token."})", {}, times);
    return fault;
}

Fault Fault::slow(const QString &method, const QString &pathPattern, int delayMs, int times)
{
    Fault fault;
    fault.method = method;
    fault.pathPattern = pathPattern;
    fault.times = times;
    fault.kind = Kind::Slow;
    fault.delayMs = delayMs;
    return fault;
}

Fault Fault::redirect(const QString &method, const QString &pathPattern, const QString &location, int times)
{
    Fault fault;
    fault.method = method;
    fault.pathPattern = pathPattern;
    fault.times = times;
    fault.kind = Kind::Redirect;
    fault.status = 302;
    fault.location = location;
    return fault;
}

Fault Fault::drop(const QString &method, const QString &pathPattern, int times)
{
    Fault fault;
    fault.method = method;
    fault.pathPattern = pathPattern;
    fault.times = times;
    fault.kind = Kind::Drop;
    return fault;
}

Fault Fault::trickle(const QString &method, const QString &pathPattern, int intervalMs, int times)
{
    Fault fault = slow(method, pathPattern, intervalMs, times);
    fault.kind = Kind::Trickle;
    fault.status = 200;
    return fault;
}

Fault Fault::createThenReply(int status, const QByteArray &body, int times)
{
    Fault fault = statusReply(QStringLiteral("POST"), QStringLiteral("/issue/[^/]+/worklog$"), status, body, {}, times);
    fault.kind = Kind::CreateThenReply;
    return fault;
}

Fault Fault::createThenDrop(int times)
{
    Fault fault;
    fault.method = QStringLiteral("POST");
    fault.pathPattern = QStringLiteral("/issue/[^/]+/worklog$");
    fault.times = times;
    fault.kind = Kind::CreateThenDrop;
    return fault;
}

Server::Server(Mode mode)
    : d(std::make_unique<State>())
{
    d->mode = mode;
    d->seedRates();
}

Server::~Server()
{
    stop();
}

bool Server::start(quint16 port)
{
    if (isRunning())
        return true;
    // A dropped connection makes the next write fail; that must not end the test process.
    std::signal(SIGPIPE, SIG_IGN);
    if (!d->certDir) {
        auto dir = std::make_unique<QTemporaryDir>();
        if (!dir->isValid()) {
            d->error = QStringLiteral("could not create a folder for the certificate");
            return false;
        }
        const QString problem = makeCertificates(dir->path());
        if (!problem.isEmpty()) {
            d->error = problem;
            return false;
        }
        d->certDir = std::move(dir);
    }
    auto http = std::make_unique<httplib::SSLServer>(toStd(d->certDir->filePath(QStringLiteral("cert.pem"))).c_str(),
        toStd(d->certDir->filePath(QStringLiteral("key.pem"))).c_str());
    if (!http->is_valid()) {
        d->error = QStringLiteral("could not load the certificate");
        return false;
    }
    // Slow answers hold a thread each; enough threads keep them from starving the rest.
    http->new_task_queue = [] { return new httplib::ThreadPool(32); };
    // Short keep-alive so that stop() is not held up by idle connections.
    http->set_keep_alive_timeout(1);
    http->set_read_timeout(5);
    http->set_write_timeout(5);
    auto handler = [this](const httplib::Request &req, httplib::Response &res) {
        std::unique_lock lock(d->mutex);
        if (req.path.rfind("/__admin/", 0) == 0) {
            const bool enabled = d->admin;
            lock.unlock();
            if (enabled) {
                handleAdmin(*this, req, res);
            } else {
                answerJson(res, 404, QJsonObject {{QStringLiteral("message"), QStringLiteral("not found")}});
            }
            return;
        }
        d->handle(req, res, lock);
    };
    http->Get(".*", handler);
    http->Post(".*", handler);
    http->Put(".*", handler);
    http->Patch(".*", handler);
    http->Delete(".*", handler);
    http->Options(".*", handler);

    int bound = 0;
    if (port == 0) {
        bound = http->bind_to_any_port("127.0.0.1");
    } else {
        bound = http->bind_to_port("127.0.0.1", port) ? port : -1;
    }
    if (bound <= 0) {
        d->error = QStringLiteral("could not bind 127.0.0.1:%1").arg(port);
        return false;
    }
    {
        std::lock_guard lock(d->mutex);
        d->stopping = false;
        d->port = quint16(bound);
        d->error.clear();
    }
    httplib::SSLServer *raw = http.get();
    d->http = std::move(http);
    // The socket already listens, so requests sent before the accept loop runs wait in the backlog.
    d->thread = std::thread([raw] { raw->listen_after_bind(); });
    // httplib's stop() does nothing until the accept loop runs, so a stop() right after start() would leave
    // that loop waiting for ever: wait (briefly) until it runs.
    for (int i = 0; i < 5000 && !raw->is_running(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return true;
}

void Server::stop()
{
    if (!d->http)
        return;
    {
        std::lock_guard lock(d->mutex);
        d->stopping = true;
    }
    d->wake.notify_all();
    d->http->stop();
    if (d->thread.joinable())
        d->thread.join();
    d->http.reset();
}

bool Server::isRunning() const
{
    return d->http != nullptr;
}

QString Server::errorString() const
{
    std::lock_guard lock(d->mutex);
    return d->error;
}

quint16 Server::port() const
{
    std::lock_guard lock(d->mutex);
    return d->port;
}

QString Server::origin() const
{
    return QStringLiteral("https://127.0.0.1:%1").arg(port());
}

QString Server::caFile() const
{
    return d->certDir ? d->certDir->filePath(QStringLiteral("ca.pem")) : QString();
}

QString Server::certFile() const
{
    return d->certDir ? d->certDir->filePath(QStringLiteral("cert.pem")) : QString();
}

void Server::setAdminEnabled(bool enabled)
{
    std::lock_guard lock(d->mutex);
    d->admin = enabled;
}

void Server::addUser(const User &user)
{
    std::lock_guard lock(d->mutex);
    if (!d->users.contains(user.accountId))
        d->userOrder.append(user.accountId);
    d->users.insert(user.accountId, user);
}

void Server::addSite(const Site &site)
{
    std::lock_guard lock(d->mutex);
    for (Site &existing : d->sites) {
        if (existing.cloudId == site.cloudId) {
            existing = site;
            return;
        }
    }
    d->sites.append(site);
}

void Server::addIssue(const Issue &issue)
{
    std::lock_guard lock(d->mutex);
    Issue stored = issue;
    stored.key = issue.key.toUpper();
    if (stored.id.isEmpty()) {
        const auto existing = d->issues.constFind(stored.key);
        stored.id = existing != d->issues.constEnd() ? existing->id : QString::number(d->nextIssueId++);
    }
    d->issues.insert(stored.key, stored);
}

bool Server::moveIssue(const QString &oldKey, const QString &newKey)
{
    std::lock_guard lock(d->mutex);
    const QString from = oldKey.toUpper();
    const QString to = newKey.toUpper();
    if (!d->issues.contains(from) || d->issues.contains(to))
        return false;
    Issue issue = d->issues.take(from);
    issue.key = to;
    d->issues.insert(to, issue);
    d->movedKeys.insert(from, to);
    for (StoredWorklog &stored : d->worklogs) {
        if (stored.worklog.issueKey == from)
            stored.worklog.issueKey = to;
    }
    return true;
}

QString Server::addWorklog(const Worklog &worklog)
{
    std::lock_guard lock(d->mutex);
    return d->storeWorklog(worklog);
}

void Server::seedDemo(const QString &timeZone)
{
    User user;
    user.accountId = QStringLiteral("5b10aa0000000000000000aa");
    user.displayName = QStringLiteral("Ada Example");
    user.emailAddress = QStringLiteral("ada@example.com");
    if (!timeZone.isEmpty())
        user.timeZone = timeZone;
    addUser(user);
    addSite({QStringLiteral("0f4c5a2e-1b7d-4e8a-9c3f-2d6b8e1a7c55"), QStringLiteral("example"),
        QStringLiteral("https://example.atlassian.net"), {kReadWork, kWriteWork, kReadUser}});
    const QJsonObject estimated {{QStringLiteral("originalEstimate"), QStringLiteral("1d")},
        {QStringLiteral("originalEstimateSeconds"), 28800}, {QStringLiteral("remainingEstimate"), QStringLiteral("1d")},
        {QStringLiteral("remainingEstimateSeconds"), 28800}};
    addIssue({QStringLiteral("ED-1"), {}, QStringLiteral("Set up the release pipeline"), estimated, {}});
    addIssue({QStringLiteral("ED-2"), {}, QStringLiteral("Review the onboarding flow"), {}, {}});
    addIssue({QStringLiteral("ED-3"), {}, QStringLiteral("Fix the export of monthly totals"), {}, {}});
    addIssue({QStringLiteral("OPS-7"), {}, QStringLiteral("Rotate the staging certificates"), {}, {}});
}

QJsonArray Server::worklogs(const QString &issueKey, const QString &viewerAccountId) const
{
    std::lock_guard lock(d->mutex);
    const QString key = d->currentKey(issueKey);
    const auto issue = d->issues.constFind(key);
    if (issue == d->issues.constEnd())
        return {};
    const Site *site = d->findSite(issue->cloudId);
    const Site fallback;
    QJsonArray result;
    for (const StoredWorklog &stored : d->worklogs) {
        if (stored.worklog.issueKey != key)
            continue;
        const QString viewer = viewerAccountId.isEmpty() ? stored.worklog.authorAccountId : viewerAccountId;
        const QString zone = d->users.value(viewer).timeZone;
        result.append(d->worklogJson(stored, site ? *site : fallback, zone, true));
    }
    return result;
}

int Server::worklogCount(const QString &issueKey) const
{
    std::lock_guard lock(d->mutex);
    const QString key = d->currentKey(issueKey);
    return int(std::count_if(d->worklogs.cbegin(), d->worklogs.cend(),
        [&](const StoredWorklog &stored) { return stored.worklog.issueKey == key; }));
}

void Server::clearWorklogs()
{
    std::lock_guard lock(d->mutex);
    d->worklogs.clear();
}

void Server::setPageSize(int maxResults)
{
    std::lock_guard lock(d->mutex);
    d->pageSize = std::max(1, maxResults);
}

int Server::pageSize() const
{
    std::lock_guard lock(d->mutex);
    return d->pageSize;
}

void Server::setWorklogLimit(int perIssue)
{
    std::lock_guard lock(d->mutex);
    d->worklogLimit = perIssue;
}

QString Server::issueAccessToken(
    const QString &accountId, const QStringList &scopes, qint64 expiresIn, const QStringList &cloudIds)
{
    std::lock_guard lock(d->mutex);
    const QString token = QStringLiteral("standin-at-") + randomHex(24);
    d->accessTokens.insert(
        token, {accountId, scopes, cloudIds, QDateTime::currentDateTimeUtc().addSecs(expiresIn), QString()});
    return token;
}

void Server::revokeAccessToken(const QString &token)
{
    std::lock_guard lock(d->mutex);
    d->accessTokens.remove(token);
}

QJsonObject Server::issueTokenPair(const QString &accountId, const QStringList &scopes)
{
    std::lock_guard lock(d->mutex);
    QStringList granted = scopes;
    if (!granted.contains(kOffline))
        granted.append(kOffline);
    return d->issueTokens(accountId, granted, {}, randomHex(8));
}

void Server::setIssueEditable(const QString &key, bool editable)
{
    std::lock_guard lock(d->mutex);
    if (editable)
        d->closedIssues.remove(key.toUpper());
    else
        d->closedIssues.insert(key.toUpper());
}

void Server::setTimeTracking(const QString &key, bool enabled)
{
    std::lock_guard lock(d->mutex);
    if (enabled)
        d->untrackedIssues.remove(key.toUpper());
    else
        d->untrackedIssues.insert(key.toUpper());
}

void Server::setWorkPermission(const QString &key, const QString &accountId, bool granted)
{
    std::lock_guard lock(d->mutex);
    if (granted)
        d->noWorkPermission.remove({key.toUpper(), accountId});
    else
        d->noWorkPermission.insert({key.toUpper(), accountId});
}

void Server::setBurstLimit(int requests, int windowMs)
{
    std::lock_guard lock(d->mutex);
    d->burstLimit = std::max(0, requests);
    d->burstWindowMs = std::max(1, windowMs);
    d->burstTimes.clear();
}

void Server::setIssueWriteLimit(int writes, int windowMs)
{
    std::lock_guard lock(d->mutex);
    d->issueWriteLimit = std::max(0, writes);
    d->issueWriteWindowMs = std::max(1, windowMs);
    d->issueWrites.clear();
}

void Server::setSignInLifetime(qint64 seconds)
{
    std::lock_guard lock(d->mutex);
    d->signInLifetime = seconds;
}

void Server::setAuthHost(const QString &host)
{
    std::lock_guard lock(d->mutex);
    d->authHost = host;
}

void Server::setAuthorizationUrlBase(const QString &base)
{
    std::lock_guard lock(d->mutex);
    d->authUrlBase = base;
}

void Server::setSignInGrant(const QString &accountId, const QStringList &scopes)
{
    std::lock_guard lock(d->mutex);
    d->grantAccount = accountId;
    d->grantScopes = scopes;
}

void Server::setTokenLifetime(qint64 expiresInSeconds)
{
    std::lock_guard lock(d->mutex);
    d->tokenLifetime = expiresInSeconds;
}

void Server::setRefreshReuseLeeway(qint64 seconds)
{
    std::lock_guard lock(d->mutex);
    d->reuseLeeway = seconds;
}

QStringList Server::pendingSignIns() const
{
    std::lock_guard lock(d->mutex);
    QStringList states;
    for (auto it = d->signIns.cbegin(); it != d->signIns.cend(); ++it) {
        if (it->stage == SignIn::Stage::Pending
            && it->started.secsTo(QDateTime::currentDateTimeUtc()) < d->signInLifetime)
            states.append(it.key());
    }
    return states;
}

bool Server::approve(const QString &state)
{
    std::lock_guard lock(d->mutex);
    auto it = d->signIns.find(state);
    if (it == d->signIns.end() || it->stage != SignIn::Stage::Pending
        || it->started.secsTo(QDateTime::currentDateTimeUtc()) >= d->signInLifetime)
        return false;
    it->stage = SignIn::Stage::Approved;
    return true;
}

bool Server::deny(const QString &state)
{
    std::lock_guard lock(d->mutex);
    auto it = d->signIns.find(state);
    if (it == d->signIns.end() || it->stage != SignIn::Stage::Pending)
        return false;
    it->stage = SignIn::Stage::Denied;
    return true;
}

QStringList Server::liveRefreshTokens() const
{
    std::lock_guard lock(d->mutex);
    QStringList live;
    for (auto it = d->refreshTokens.cbegin(); it != d->refreshTokens.cend(); ++it) {
        if (!it->rotatedAt.isValid())
            live.append(it.key());
    }
    return live;
}

void Server::setRate(const QString &base, const QString &quote, double rate, const QDate &date)
{
    std::lock_guard lock(d->mutex);
    d->rates.insert({base.toUpper(), quote.toUpper()}, {rate, date.isValid() ? date : QDate::currentDate()});
}

void Server::addFault(const Fault &fault)
{
    std::lock_guard lock(d->mutex);
    d->faults.append(fault);
}

void Server::clearFaults()
{
    std::lock_guard lock(d->mutex);
    d->faults.clear();
}

QList<ReceivedRequest> Server::requests() const
{
    std::lock_guard lock(d->mutex);
    return d->received;
}

QList<ReceivedRequest> Server::requests(const QString &method, const QString &pathPattern) const
{
    const QRegularExpression pattern(pathPattern);
    QList<ReceivedRequest> matching;
    for (const ReceivedRequest &request : requests()) {
        if ((method.isEmpty() || request.method == method) && pattern.match(request.path).hasMatch())
            matching.append(request);
    }
    return matching;
}

int Server::hitCount() const
{
    std::lock_guard lock(d->mutex);
    return int(d->received.size());
}

void Server::clearRequests()
{
    std::lock_guard lock(d->mutex);
    d->received.clear();
}

std::optional<Fault> Server::State::takeFault(const QString &method, const QString &path)
{
    for (auto it = faults.begin(); it != faults.end(); ++it) {
        if (!it->method.isEmpty() && it->method.compare(method, Qt::CaseInsensitive) != 0)
            continue;
        if (!it->pathPattern.isEmpty() && !QRegularExpression(it->pathPattern).match(path).hasMatch())
            continue;
        Fault fault = *it;
        if (it->times > 0 && --it->times == 0)
            faults.erase(it);
        return fault;
    }
    return std::nullopt;
}

bool Server::State::withinLimit(
    std::deque<qint64> &times, int limit, int windowMs, httplib::Response &res, const char *reason)
{
    if (limit <= 0)
        return true;
    const qint64 now
        = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
              .count();
    while (!times.empty() && times.front() <= now - windowMs)
        times.pop_front();
    if (qsizetype(times.size()) < limit) {
        times.push_back(now);
        // As Jira does, the answer tells how much of the budget is left and warns below a fifth of it.
        const qsizetype remaining = limit - qsizetype(times.size());
        res.set_header("X-RateLimit-Limit", std::to_string(limit));
        res.set_header("X-RateLimit-Remaining", std::to_string(remaining));
        if (remaining * 5 < limit)
            res.set_header("X-RateLimit-NearLimit", "true");
        return true;
    }
    // Whole seconds, rounded up, as Jira sends them: the client may come back exactly then.
    const qint64 waitMs = times.front() + windowMs - now;
    const qint64 seconds = std::max<qint64>(1, (waitMs + 999) / 1000);
    res.status = 429;
    res.set_header("Retry-After", std::to_string(seconds));
    res.set_header("X-RateLimit-Reset",
        QDateTime::currentDateTimeUtc()
            .addSecs(seconds + 60)
            .toString(QStringLiteral("yyyy-MM-ddTHH:mm'Z'"))
            .toStdString());
    res.set_header("RateLimit-Reason", reason);
    res.set_content("", "text/plain");
    return false;
}

bool Server::State::refuseUnsupportedMedia(const httplib::Request &req, httplib::Response &res)
{
    // Jira and the sign-in service read POST bodies as JSON only; anything else is refused unread.
    if (req.method != "POST")
        return false;
    const QString type = fromStd(req.get_header_value("Content-Type")).section(QLatin1Char(';'), 0, 0).trimmed();
    if (type.compare(QLatin1String("application/json"), Qt::CaseInsensitive) == 0)
        return false;
    answer(res, 415, "", "text/plain");
    return true;
}

void Server::State::handle(const httplib::Request &req, httplib::Response &res, std::unique_lock<std::mutex> &lock)
{
    const QString method = fromStd(req.method);
    const QString path = fromStd(req.path);
    ReceivedRequest record;
    record.method = method;
    record.path = path;
    const auto queryStart = req.target.find('?');
    if (queryStart != std::string::npos)
        record.query = fromStd(req.target.substr(queryStart + 1));
    for (const auto &[name, value] : req.headers) {
        // cpp-httplib adds the peer's address as pseudo headers; they were never sent.
        if (name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" || name == "LOCAL_PORT")
            continue;
        record.headers.append({fromStd(name).toLower(), fromStd(value)});
    }
    record.body = QByteArray::fromStdString(req.body);
    record.receivedAt = QDateTime::currentDateTimeUtc();
    received.append(record);

    const std::optional<Fault> fault = takeFault(method, path);
    if (fault) {
        switch (fault->kind) {
        case Fault::Kind::Status:
            replyWith(res, *fault);
            return;
        case Fault::Kind::Redirect:
            res.status = fault->status;
            res.set_header("Location", toStd(fault->location));
            answer(res, fault->status, "<html><body>Moved</body></html>", "text/html;charset=UTF-8");
            return;
        case Fault::Kind::Drop:
            dropConnection(req, res);
            return;
        case Fault::Kind::Slow:
            // Waits without the lock so that other requests and stop() go on.
            wake.wait_for(lock, std::chrono::milliseconds(fault->delayMs), [this] { return stopping; });
            if (stopping) {
                dropConnection(req, res);
                return;
            }
            break;
        case Fault::Kind::CreateThenDrop:
        case Fault::Kind::CreateThenReply:
            break;
        case Fault::Kind::Trickle: {
            res.status = fault->status;
            const int interval = std::max(1, fault->delayMs);
            // Runs after the handler returned, so it takes the lock itself while it waits.
            res.set_chunked_content_provider("application/json", [this, interval](size_t, httplib::DataSink &sink) {
                std::unique_lock wait(mutex);
                if (wake.wait_for(wait, std::chrono::milliseconds(interval), [this] { return stopping; }))
                    return false;
                wait.unlock();
                return sink.write(" ", 1);
            });
            return;
        }
        }
    }

    const bool toGateway
        = path.startsWith(QStringLiteral("/ex/jira/")) || path == QLatin1String("/oauth/token/accessible-resources");
    if (mode == Mode::Recorder) {
        answerJson(res, 200, QJsonObject {});
    } else if (refuseUnsupportedMedia(req, res)) {
    } else if (toGateway && !withinLimit(burstTimes, burstLimit, burstWindowMs, res, "jira-burst-based")) {
    } else if (method == QLatin1String("POST") && path == QLatin1String("/oauth/start")) {
        oauthStart(req, res);
    } else if (method == QLatin1String("GET") && path == QLatin1String("/authorize")) {
        authorize(req, res);
    } else if (method == QLatin1String("POST") && path == QLatin1String("/oauth/poll")) {
        oauthPoll(req, res);
    } else if (method == QLatin1String("POST") && path == QLatin1String("/oauth/refresh")) {
        oauthRefresh(req, res);
    } else if (path == QLatin1String("/oauth/token/accessible-resources")) {
        if (method == QLatin1String("GET")) {
            accessibleResources(req, res);
        } else {
            answerJson(res, 405, QJsonObject {{QStringLiteral("code"), 405}});
        }
    } else if (path.startsWith(QStringLiteral("/updates/")) && answerUpdateFeed(port, req, res)) {
    } else if (path.startsWith(QStringLiteral("/ex/jira/"))) {
        gateway(req, res, path);
    } else if (static const QRegularExpression ratePath(QStringLiteral("^/v2/rate/([^/]+)/([^/]+)$"));
               method == QLatin1String("GET") && ratePath.match(path).hasMatch()) {
        const QRegularExpressionMatch match = ratePath.match(path);
        rate(req, res, match.captured(1), match.captured(2));
    } else {
        answerJson(res, 404,
            QJsonObject {{QStringLiteral("status"), 404}, {QStringLiteral("message"), QStringLiteral("not found")}});
    }
    if (fault && fault->kind == Fault::Kind::CreateThenDrop) {
        dropConnection(req, res);
    } else if (fault && fault->kind == Fault::Kind::CreateThenReply) {
        res.headers.clear();
        replyWith(res, *fault);
    }
}

quint16 freeLoopbackPort()
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address);
    ::getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

} // namespace standin
