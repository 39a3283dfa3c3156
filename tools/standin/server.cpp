#include "server.h"

#include "admin.h"
#include "certificate.h"
#include "jiraformat.h"

#include <QCryptographicHash>
#include <QJsonDocument>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTimeZone>
#include <QUrl>
#include <QUrlQuery>

#include <httplib.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <optional>
#include <thread>

namespace standin
{
namespace
{

const QString kReadWork = QStringLiteral("read:jira-work");
const QString kWriteWork = QStringLiteral("write:jira-work");
const QString kReadUser = QStringLiteral("read:jira-user");
const QString kOffline = QStringLiteral("offline_access");

// Currencies of the ECB reference rates: a code outside this list is "invalid", one inside it without a
// seeded rate is "not found", as the rate service tells the two apart.
const QStringList kCurrencies = {
    QStringLiteral("AUD"),
    QStringLiteral("BGN"),
    QStringLiteral("BRL"),
    QStringLiteral("CAD"),
    QStringLiteral("CHF"),
    QStringLiteral("CNY"),
    QStringLiteral("CZK"),
    QStringLiteral("DKK"),
    QStringLiteral("EUR"),
    QStringLiteral("GBP"),
    QStringLiteral("HKD"),
    QStringLiteral("HUF"),
    QStringLiteral("IDR"),
    QStringLiteral("ILS"),
    QStringLiteral("INR"),
    QStringLiteral("ISK"),
    QStringLiteral("JPY"),
    QStringLiteral("KRW"),
    QStringLiteral("MXN"),
    QStringLiteral("MYR"),
    QStringLiteral("NOK"),
    QStringLiteral("NZD"),
    QStringLiteral("PHP"),
    QStringLiteral("PLN"),
    QStringLiteral("RON"),
    QStringLiteral("SEK"),
    QStringLiteral("SGD"),
    QStringLiteral("THB"),
    QStringLiteral("TRY"),
    QStringLiteral("USD"),
    QStringLiteral("ZAR"),
};

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
std::string toStd(const QString &text)
{
    return text.toStdString();
}

void answer(httplib::Response &res, int status, const QByteArray &body,
    const char *contentType = "application/json;charset=UTF-8")
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

QJsonObject jiraErrors(const QStringList &messages, const QJsonObject &errors = {})
{
    return QJsonObject {
        {QStringLiteral("errorMessages"), QJsonArray::fromStringList(messages)}, {QStringLiteral("errors"), errors}};
}

const QString kNoIssue = QStringLiteral("Issue does not exist or you do not have permission to see it.");

// Closes the connection under the running request without an answer; what the server writes afterwards
// goes nowhere. The client sees the connection end, which is what a lost answer looks like.
void dropConnection(const httplib::Request &req, httplib::Response &res)
{
    if (req.ssl)
        ::shutdown(SSL_get_fd(req.ssl), SHUT_RDWR);
    res.status = 500;
    res.set_header("Connection", "close");
}

struct AccessToken {
    QString accountId;
    QStringList scopes;
    QStringList cloudIds;
    QDateTime expiresAt;
    QString family; // empty: issued directly, not through a sign-in
};

struct RefreshToken {
    QString accountId;
    QStringList scopes;
    QStringList cloudIds;
    QString family;
    QDateTime rotatedAt; // invalid: still the live token of its family
};

struct SignIn {
    enum class Stage { Pending, Approved, Denied, Done };
    QString challenge;
    Stage stage = Stage::Pending;
};

struct StoredWorklog {
    Worklog worklog;
    QString issueId;
    QDateTime updated;
    qint64 sequence = 0;
};

struct Rate {
    double rate = 0;
    QDate date;
};

} // namespace

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

Fault Fault::serviceUnavailable(const QString &method, const QString &pathPattern, int times)
{
    Fault fault = statusReply(
        method, pathPattern, 503, "<html><body>Service Unavailable</body></html>", {{"Retry-After", "2"}}, times);
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

Fault Fault::createThenDrop(int times)
{
    Fault fault;
    fault.method = QStringLiteral("POST");
    fault.pathPattern = QStringLiteral("/issue/[^/]+/worklog$");
    fault.times = times;
    fault.kind = Kind::CreateThenDrop;
    return fault;
}

struct Server::State {
    Mode mode = Mode::Services;

    mutable std::mutex mutex;
    std::condition_variable wake; // wakes slow answers when the server stops
    bool stopping = false;

    std::unique_ptr<httplib::SSLServer> http;
    std::thread thread;
    quint16 port = 0;
    QString error;
    std::unique_ptr<QTemporaryDir> certDir;
    bool admin = false;

    QMap<QString, User> users;
    QStringList userOrder;
    QList<Site> sites;
    QMap<QString, Issue> issues; // by upper-case key
    QList<StoredWorklog> worklogs;
    qint64 nextWorklogId = 20001;
    qint64 nextIssueId = 10001;
    qint64 sequence = 0;
    int pageSize = 5000;
    int worklogLimit = 10000;

    QHash<QString, AccessToken> accessTokens;
    QHash<QString, RefreshToken> refreshTokens;
    QString authHost = QStringLiteral("127.0.0.1");
    QString authUrlBase;
    QString grantAccount;
    QStringList grantScopes = {kReadWork, kWriteWork, kReadUser, kOffline};
    qint64 tokenLifetime = 3600;
    qint64 reuseLeeway = 0;
    QHash<QString, SignIn> signIns;

    QMap<QPair<QString, QString>, Rate> rates;

    QList<Fault> faults;
    QList<ReceivedRequest> received;

    // Everything below runs with `mutex` held.
    void handle(const httplib::Request &req, httplib::Response &res, std::unique_lock<std::mutex> &lock);
    std::optional<Fault> takeFault(const QString &method, const QString &path);

    void oauthStart(const httplib::Request &req, httplib::Response &res);
    void authorize(const httplib::Request &req, httplib::Response &res);
    void oauthPoll(const httplib::Request &req, httplib::Response &res);
    void oauthRefresh(const httplib::Request &req, httplib::Response &res);
    QJsonObject issueTokens(
        const QString &accountId, const QStringList &scopes, const QStringList &cloudIds, const QString &family);

    const AccessToken *authorizeBearer(
        const httplib::Request &req, httplib::Response &res, const QString &scope, const QString &cloudId);
    void gateway(const httplib::Request &req, httplib::Response &res, const QString &path);
    void accessibleResources(const httplib::Request &req, httplib::Response &res);
    void myself(httplib::Response &res, const AccessToken &token, const Site &site);
    void issue(const httplib::Request &req, httplib::Response &res, const AccessToken &token, const Site &site,
        const QString &key);
    void listWorklogs(const httplib::Request &req, httplib::Response &res, const AccessToken &token, const Site &site,
        const QString &key);
    void createWorklog(const httplib::Request &req, httplib::Response &res, const AccessToken &token, const Site &site,
        const QString &key);
    void rate(const httplib::Request &req, httplib::Response &res, const QString &base, const QString &quote);

    Issue *findIssue(const QString &key, const QString &cloudId);
    const Site *findSite(const QString &cloudId) const;
    QJsonObject userJson(const QString &accountId, const Site &site, bool details) const;
    QJsonObject worklogJson(const StoredWorklog &stored, const Site &site, const QString &zone, bool properties) const;
    QString storeWorklog(const Worklog &worklog);
    std::optional<double> lookupRate(const QString &base, const QString &quote, QDate *date) const;
    void seedRates();
};

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
    const QString key = issueKey.toUpper();
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
    const QString key = issueKey.toUpper();
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
        if (it->stage == SignIn::Stage::Pending)
            states.append(it.key());
    }
    return states;
}

bool Server::approve(const QString &state)
{
    std::lock_guard lock(d->mutex);
    auto it = d->signIns.find(state);
    if (it == d->signIns.end() || it->stage != SignIn::Stage::Pending)
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

// --- request handling ---

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

    bool dropAfter = false;
    if (const std::optional<Fault> fault = takeFault(method, path)) {
        switch (fault->kind) {
        case Fault::Kind::Status:
            res.status = fault->status;
            for (const auto &[name, value] : fault->headers)
                res.set_header(name.toStdString(), value.toStdString());
            res.set_content(fault->body.toStdString(), fault->contentType.toStdString());
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
            dropAfter = true;
            break;
        }
    }

    if (mode == Mode::Recorder) {
        answerJson(res, 200, QJsonObject {});
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
    if (dropAfter)
        dropConnection(req, res);
}

// --- sign-in service ---

QJsonObject Server::State::issueTokens(
    const QString &accountId, const QStringList &scopes, const QStringList &cloudIds, const QString &family)
{
    const QString access = QStringLiteral("standin-at-") + randomHex(24);
    accessTokens.insert(
        access, {accountId, scopes, cloudIds, QDateTime::currentDateTimeUtc().addSecs(tokenLifetime), family});
    QJsonObject answerObject {{QStringLiteral("access_token"), access},
        {QStringLiteral("expires_in"), double(tokenLifetime)}, {QStringLiteral("scope"), scopes.join(QLatin1Char(' '))},
        {QStringLiteral("token_type"), QStringLiteral("Bearer")}};
    if (scopes.contains(kOffline)) {
        const QString refresh = QStringLiteral("standin-rt-") + randomHex(24);
        refreshTokens.insert(refresh, {accountId, scopes, cloudIds, family, QDateTime()});
        answerObject.insert(QStringLiteral("refresh_token"), refresh);
    }
    return answerObject;
}

void Server::State::oauthStart(const httplib::Request &req, httplib::Response &res)
{
    const QJsonObject body = QJsonDocument::fromJson(QByteArray::fromStdString(req.body)).object();
    const QString challenge = body.value(QStringLiteral("challenge")).toString();
    static const QRegularExpression challengePattern(QStringLiteral("^[A-Za-z0-9_-]{43}$"));
    if (!challengePattern.match(challenge).hasMatch()) {
        answerJson(res, 400,
            QJsonObject {{QStringLiteral("error"), QStringLiteral("invalid_request")},
                {QStringLiteral("error_description"), QStringLiteral("A S256 challenge is required.")}});
        return;
    }
    const QString state = randomHex(16);
    signIns.insert(state, {challenge, SignIn::Stage::Pending});
    const QString base
        = authUrlBase.isEmpty() ? QStringLiteral("https://%1:%2/authorize").arg(authHost).arg(port) : authUrlBase;
    QUrlQuery query;
    query.addQueryItem(QStringLiteral("audience"), QStringLiteral("api.atlassian.com"));
    query.addQueryItem(QStringLiteral("client_id"), QStringLiteral("standin-client"));
    query.addQueryItem(QStringLiteral("scope"), grantScopes.join(QLatin1Char(' ')));
    query.addQueryItem(QStringLiteral("redirect_uri"), QStringLiteral("https://127.0.0.1:%1/callback").arg(port));
    query.addQueryItem(QStringLiteral("state"), state);
    query.addQueryItem(QStringLiteral("response_type"), QStringLiteral("code"));
    query.addQueryItem(QStringLiteral("prompt"), QStringLiteral("consent"));
    answerJson(res, 200,
        QJsonObject {{QStringLiteral("state"), state},
            {QStringLiteral("authorization_url"),
                QString(base + QLatin1Char('?') + query.toString(QUrl::FullyEncoded))}});
}

void Server::State::authorize(const httplib::Request &req, httplib::Response &res)
{
    const QString state = fromStd(req.get_param_value("state"));
    auto it = signIns.find(state);
    if (it == signIns.end() || it->stage != SignIn::Stage::Pending) {
        answer(
            res, 400, "<html><body><h1>This sign-in link is not valid.</h1></body></html>", "text/html;charset=UTF-8");
        return;
    }
    it->stage = SignIn::Stage::Approved;
    answer(res, 200, "<html><body><h1>Access granted</h1><p>You can return to Hourloom.</p></body></html>",
        "text/html;charset=UTF-8");
}

void Server::State::oauthPoll(const httplib::Request &req, httplib::Response &res)
{
    const QJsonObject body = QJsonDocument::fromJson(QByteArray::fromStdString(req.body)).object();
    const QString state = body.value(QStringLiteral("state")).toString();
    const QString verifier = body.value(QStringLiteral("verifier")).toString();
    auto it = signIns.find(state);
    if (it == signIns.end() || it->stage == SignIn::Stage::Done) {
        answerJson(res, 400,
            QJsonObject {{QStringLiteral("error"), QStringLiteral("invalid_grant")},
                {QStringLiteral("error_description"), QStringLiteral("Unknown or expired sign-in.")}});
        return;
    }
    const QString expected = base64Url(QCryptographicHash::hash(verifier.toUtf8(), QCryptographicHash::Sha256));
    if (expected != it->challenge) {
        answerJson(res, 400,
            QJsonObject {{QStringLiteral("error"), QStringLiteral("invalid_grant")},
                {QStringLiteral("error_description"), QStringLiteral("The verifier does not match the challenge.")}});
        return;
    }
    if (it->stage == SignIn::Stage::Pending) {
        answerJson(res, 202, QJsonObject {{QStringLiteral("status"), QStringLiteral("pending")}});
        return;
    }
    if (it->stage == SignIn::Stage::Denied) {
        it->stage = SignIn::Stage::Done;
        answerJson(res, 400,
            QJsonObject {{QStringLiteral("error"), QStringLiteral("access_denied")},
                {QStringLiteral("error_description"), QStringLiteral("The user denied access.")}});
        return;
    }
    const QString account = !grantAccount.isEmpty() ? grantAccount : userOrder.value(0);
    if (account.isEmpty()) {
        answerJson(res, 500, QJsonObject {{QStringLiteral("error"), QStringLiteral("server_error")}});
        return;
    }
    it->stage = SignIn::Stage::Done;
    answerJson(res, 200, issueTokens(account, grantScopes, {}, randomHex(8)));
}

void Server::State::oauthRefresh(const httplib::Request &req, httplib::Response &res)
{
    static const QJsonObject invalidGrant {{QStringLiteral("error"), QStringLiteral("invalid_grant")},
        {QStringLiteral("error_description"), QStringLiteral("Unknown or invalid refresh token.")}};
    const QJsonObject body = QJsonDocument::fromJson(QByteArray::fromStdString(req.body)).object();
    const QString token = body.value(QStringLiteral("refresh_token")).toString();
    const auto it = refreshTokens.constFind(token);
    if (token.isEmpty() || it == refreshTokens.constEnd()) {
        answerJson(res, 403, invalidGrant);
        return;
    }
    const RefreshToken used = *it;
    const QDateTime now = QDateTime::currentDateTimeUtc();
    if (used.rotatedAt.isValid() && used.rotatedAt.secsTo(now) >= reuseLeeway) {
        // Reuse of a rotated token means it leaked: the whole family goes, access tokens included.
        for (auto r = refreshTokens.begin(); r != refreshTokens.end();)
            r = r->family == used.family ? refreshTokens.erase(r) : std::next(r);
        for (auto a = accessTokens.begin(); a != accessTokens.end();)
            a = a->family == used.family ? accessTokens.erase(a) : std::next(a);
        answerJson(res, 403, invalidGrant);
        return;
    }
    for (RefreshToken &member : refreshTokens) {
        if (member.family == used.family && !member.rotatedAt.isValid())
            member.rotatedAt = now;
    }
    answerJson(res, 200, issueTokens(used.accountId, used.scopes, used.cloudIds, used.family));
}

// --- gateway ---

const Site *Server::State::findSite(const QString &cloudId) const
{
    for (const Site &site : sites) {
        if (site.cloudId == cloudId)
            return &site;
    }
    return cloudId.isEmpty() && !sites.isEmpty() ? &sites.first() : nullptr;
}

Issue *Server::State::findIssue(const QString &key, const QString &cloudId)
{
    auto it = issues.find(key.toUpper());
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
    stored.worklog.issueKey = worklog.issueKey.toUpper();
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
    if (!comment.isUndefined() && !(comment.isObject() && comment[QStringLiteral("type")] == QLatin1String("doc"))) {
        answerJson(res, 400,
            jiraErrors({}, {{QStringLiteral("comment"), QStringLiteral("Comment must be an Atlassian Document.")}}));
        return;
    }
    const QJsonValue properties = body.value(QStringLiteral("properties"));
    if (!properties.isUndefined()) {
        bool valid = properties.isArray();
        for (const QJsonValue &property : properties.toArray())
            valid = valid && property.isObject() && property[QStringLiteral("key")].isString();
        if (!valid) {
            answerJson(res, 400, jiraErrors({QStringLiteral("Worklog properties must be key and value pairs.")}));
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

// --- rate service ---

void Server::State::seedRates()
{
    QDate date = QDate::currentDate();
    while (date.dayOfWeek() > 5)
        date = date.addDays(-1);
    const QList<QPair<QString, double>> fromEuro = {{QStringLiteral("USD"), 1.1568}, {QStringLiteral("GBP"), 0.8642},
        {QStringLiteral("CHF"), 0.9351}, {QStringLiteral("JPY"), 161.52}, {QStringLiteral("INR"), 98.415},
        {QStringLiteral("SEK"), 11.0475}, {QStringLiteral("PLN"), 4.2705}};
    for (const auto &[quote, value] : fromEuro)
        rates.insert({QStringLiteral("EUR"), quote}, {value, date});
}

std::optional<double> Server::State::lookupRate(const QString &base, const QString &quote, QDate *date) const
{
    if (const auto it = rates.constFind({base, quote}); it != rates.constEnd()) {
        *date = it->date;
        return it->rate;
    }
    if (const auto it = rates.constFind({quote, base}); it != rates.constEnd()) {
        *date = it->date;
        return 1.0 / it->rate;
    }
    const QString euro = QStringLiteral("EUR");
    if (base == euro || quote == euro)
        return std::nullopt;
    QDate first;
    QDate second;
    const std::optional<double> toEuro = lookupRate(base, euro, &first);
    const std::optional<double> fromEuro = lookupRate(euro, quote, &second);
    if (!toEuro || !fromEuro)
        return std::nullopt;
    *date = std::min(first, second);
    return *toEuro * *fromEuro;
}

void Server::State::rate(const httplib::Request &req, httplib::Response &res, const QString &base, const QString &quote)
{
    auto fail = [&](int status, const QString &message) {
        answerJson(res, status, QJsonObject {{QStringLiteral("status"), status}, {QStringLiteral("message"), message}});
    };
    for (const auto &[name, value] : req.params) {
        if (name != "providers") {
            fail(422, QStringLiteral("invalid parameter: ") + fromStd(name));
            return;
        }
        if (fromStd(value).compare(QStringLiteral("ECB"), Qt::CaseInsensitive) != 0) {
            fail(422, QStringLiteral("invalid provider: ") + fromStd(value));
            return;
        }
    }
    const QString from = base.toUpper();
    const QString to = quote.toUpper();
    for (const QString &code : {from, to}) {
        if (!kCurrencies.contains(code)) {
            fail(422, QStringLiteral("invalid currency: ") + code);
            return;
        }
    }
    QDate date;
    std::optional<double> value;
    if (from == to) {
        value = 1.0;
        date = QDate::currentDate();
        while (date.dayOfWeek() > 5)
            date = date.addDays(-1);
    } else {
        value = lookupRate(from, to, &date);
    }
    if (!value) {
        fail(404, QStringLiteral("not found"));
        return;
    }
    answerJson(res, 200,
        QJsonObject {{QStringLiteral("date"), date.toString(Qt::ISODate)}, {QStringLiteral("base"), from},
            {QStringLiteral("quote"), to}, {QStringLiteral("rate"), std::round(*value * 1e5) / 1e5}});
}

} // namespace standin
