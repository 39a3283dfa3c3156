// The stand-in is what the client's tests trust to behave like Jira, the sign-in service and the rate service,
// so it is tested here over real TLS with libcurl, the same HTTP stack the program uses.

#include "standin/schemacheck.h"
#include "standin/server.h"

#include <QCryptographicHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTimeZone>
#include <QUrl>
#include <QUrlQuery>

#include <curl/curl.h>
#include <gtest/gtest.h>

namespace
{

const QString kCloud = QStringLiteral("11111111-2222-3333-4444-555555555555");
const QString kAccount = QStringLiteral("5b10aa0000000000000000aa");
const QStringList kAllScopes = {QStringLiteral("read:jira-work"), QStringLiteral("write:jira-work"),
    QStringLiteral("read:jira-user"), QStringLiteral("offline_access")};

struct Reply {
    CURLcode code = CURLE_OK;
    long status = 0;
    QByteArray body;
    QList<QPair<QByteArray, QByteArray>> headers;

    QJsonObject object() const { return QJsonDocument::fromJson(body).object(); }
    QJsonArray array() const { return QJsonDocument::fromJson(body).array(); }
    QByteArray header(const QByteArray &name) const
    {
        for (const auto &[key, value] : headers) {
            if (key.compare(name, Qt::CaseInsensitive) == 0)
                return value;
        }
        return {};
    }
};

size_t collectBody(char *data, size_t size, size_t count, void *target)
{
    static_cast<QByteArray *>(target)->append(data, qsizetype(size * count));
    return size * count;
}

size_t collectHeader(char *data, size_t size, size_t count, void *target)
{
    const QByteArray line = QByteArray(data, qsizetype(size * count)).trimmed();
    const qsizetype colon = line.indexOf(':');
    if (colon > 0)
        static_cast<Reply *>(target)->headers.append({line.left(colon).trimmed(), line.mid(colon + 1).trimmed()});
    return size * count;
}

struct Call {
    QString method = QStringLiteral("GET");
    QString token;
    QByteArray body;
    QString caFile;
    long timeoutMs = 10000;
    QByteArray contentType = "Content-Type: application/json";
};

Reply fetch(const QString &url, const Call &call)
{
    Reply reply;
    CURL *curl = curl_easy_init();
    const QByteArray urlBytes = url.toUtf8();
    const QByteArray method = call.method.toUtf8();
    const QByteArray ca = call.caFile.toUtf8();
    curl_easy_setopt(curl, CURLOPT_URL, urlBytes.constData());
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, method.constData());
    if (!ca.isEmpty())
        curl_easy_setopt(curl, CURLOPT_CAINFO, ca.constData());
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, call.timeoutMs);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collectBody);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &reply.body);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, collectHeader);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &reply);
    curl_slist *headers = curl_slist_append(nullptr, "Accept: application/json");
    const QByteArray authorization = "Authorization: Bearer " + call.token.toUtf8();
    if (!call.token.isEmpty())
        headers = curl_slist_append(headers, authorization.constData());
    if (!call.body.isNull()) {
        headers = curl_slist_append(headers, call.contentType.constData());
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, call.body.constData());
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, long(call.body.size()));
    }
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    reply.code = curl_easy_perform(curl);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &reply.status);
    curl_slist_free_all(headers);
    curl_easy_cleanup(curl);
    return reply;
}

QByteArray json(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

QString base64Url(const QByteArray &data)
{
    return QString::fromLatin1(data.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals));
}

class StandinTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_server.addUser({kAccount, QStringLiteral("Ada Example"), QStringLiteral("Asia/Kolkata"), {}, {}});
        m_server.addSite({kCloud, QStringLiteral("example"), QStringLiteral("https://example.atlassian.net"), {}});
        m_server.addIssue({QStringLiteral("ED-1"), QStringLiteral("10042"), QStringLiteral("Review"), {}, {}});
        ASSERT_TRUE(m_server.start()) << qPrintable(m_server.errorString());
        m_token = m_server.issueAccessToken(kAccount, kAllScopes);
    }

    QString api(const QString &path) const
    {
        return m_server.origin() + QStringLiteral("/ex/jira/") + kCloud + QStringLiteral("/rest/api/3") + path;
    }

    Reply get(const QString &url, const QString &token = {}) const
    {
        return fetch(url, {QStringLiteral("GET"), token, {}, m_server.caFile()});
    }

    Reply post(const QString &url, const QByteArray &body, const QString &token = {}) const
    {
        return fetch(url, {QStringLiteral("POST"), token, body, m_server.caFile()});
    }

    Reply postWorklog(const QJsonObject &body, const QString &query = QStringLiteral("?notifyUsers=false"))
    {
        return post(api(QStringLiteral("/issue/ED-1/worklog")) + query, json(body), m_token);
    }

    QDateTime at(const char *iso) const { return QDateTime::fromString(QString::fromLatin1(iso), Qt::ISODateWithMs); }

    standin::Server m_server;
    QString m_token;
};

TEST_F(StandinTest, VerifyingClientAcceptsCertificateOnlyWithItsAuthority)
{
    EXPECT_EQ(get(m_server.origin() + QStringLiteral("/v2/rate/EUR/USD")).status, 200);
    const QString byName = QStringLiteral("https://localhost:%1/v2/rate/EUR/USD").arg(m_server.port());
    EXPECT_EQ(get(byName).status, 200);
    const Reply untrusted
        = fetch(m_server.origin() + QStringLiteral("/v2/rate/EUR/USD"), {QStringLiteral("GET"), {}, {}, {}});
    EXPECT_EQ(untrusted.code, CURLE_PEER_FAILED_VERIFICATION);
}

TEST_F(StandinTest, PagesWorklogsInCreatedOrderWithTotalsOverAllPages)
{
    m_server.setPageSize(100);
    const QDateTime created = at("2026-03-02T08:00:00.000Z");
    for (int i = 0; i < 250; ++i) {
        standin::Worklog worklog;
        worklog.issueKey = QStringLiteral("ED-1");
        worklog.authorAccountId = kAccount;
        // Started runs backwards so that an order by started would show.
        worklog.started = created.addSecs(-60 * i);
        worklog.seconds = 60;
        worklog.created = created.addSecs(i);
        m_server.addWorklog(worklog);
    }
    QStringList ids;
    for (int startAt : {0, 100, 200}) {
        const Reply page
            = get(api(QStringLiteral("/issue/ED-1/worklog?startAt=%1&maxResults=1000").arg(startAt)), m_token);
        ASSERT_EQ(page.status, 200) << page.body.constData();
        const QJsonObject answer = page.object();
        EXPECT_EQ(answer[QStringLiteral("startAt")].toInt(), startAt);
        EXPECT_EQ(answer[QStringLiteral("maxResults")].toInt(), 100);
        EXPECT_EQ(answer[QStringLiteral("total")].toInt(), 250);
        for (const QJsonValue &worklog : answer[QStringLiteral("worklogs")].toArray())
            ids.append(worklog[QStringLiteral("id")].toString());
    }
    ASSERT_EQ(ids.size(), 250);
    ids.removeDuplicates();
    EXPECT_EQ(ids.size(), 250);
    const QJsonArray all = m_server.worklogs(QStringLiteral("ED-1"));
    EXPECT_EQ(all.first()[QStringLiteral("created")].toString(), QStringLiteral("2026-03-02T13:30:00.000+0530"));
    EXPECT_EQ(all.last()[QStringLiteral("created")].toString(), QStringLiteral("2026-03-02T13:34:09.000+0530"));

    const Reply beyond = get(api(QStringLiteral("/issue/ED-1/worklog?startAt=300")), m_token);
    EXPECT_EQ(beyond.object()[QStringLiteral("total")].toInt(), 250);
    EXPECT_TRUE(beyond.object()[QStringLiteral("worklogs")].toArray().isEmpty());
}

TEST_F(StandinTest, AnswersNotFoundForNonNumericPagingAndUnknownIssues)
{
    for (const QString &path : {QStringLiteral("/issue/ED-1/worklog?startAt=x"),
             QStringLiteral("/issue/ED-1/worklog?maxResults=1e3"), QStringLiteral("/issue/ED-1/worklog?startAt="),
             QStringLiteral("/issue/ED-9/worklog"), QStringLiteral("/issue/ED-9")}) {
        const Reply reply = get(api(path), m_token);
        EXPECT_EQ(reply.status, 404) << qPrintable(path);
        EXPECT_EQ(reply.object()[QStringLiteral("errorMessages")].toArray().first().toString(),
            QStringLiteral("Issue does not exist or you do not have permission to see it."));
    }
}

TEST_F(StandinTest, FiltersByStartedInMillisecondsAfterInclusiveBeforeExclusive)
{
    const qint64 base = at("2026-03-02T09:00:00.000Z").toMSecsSinceEpoch();
    for (int i = 0; i < 5; ++i) {
        m_server.addWorklog({QStringLiteral("ED-1"), kAccount,
            QDateTime::fromMSecsSinceEpoch(base + i * 1000, QTimeZone::utc()), 60, {}, {}, {}, {}});
    }
    const Reply reply = get(
        api(QStringLiteral("/issue/ED-1/worklog?startedAfter=%1&startedBefore=%2").arg(base + 1000).arg(base + 3000)),
        m_token);
    const QJsonObject answer = reply.object();
    EXPECT_EQ(answer[QStringLiteral("total")].toInt(), 2);
    const QJsonArray worklogs = answer[QStringLiteral("worklogs")].toArray();
    ASSERT_EQ(worklogs.size(), 2);
    EXPECT_EQ(worklogs[0][QStringLiteral("started")].toString(), QStringLiteral("2026-03-02T14:30:01.000+0530"));
    EXPECT_EQ(worklogs[1][QStringLiteral("started")].toString(), QStringLiteral("2026-03-02T14:30:02.000+0530"));
}

TEST_F(StandinTest, CreatesWorklogsInTheUsersZoneAndKeepsProperties)
{
    const QJsonArray properties {QJsonObject {{QStringLiteral("key"), QStringLiteral("hourloom")},
        {QStringLiteral("value"), QJsonObject {{QStringLiteral("marker"), QStringLiteral("abc")}}}}};
    const Reply created = postWorklog({{QStringLiteral("started"), QStringLiteral("2026-03-29T01:30:00.000+0100")},
        {QStringLiteral("timeSpentSeconds"), 12000}, {QStringLiteral("properties"), properties}});
    ASSERT_EQ(created.status, 201) << created.body.constData();
    const QJsonObject worklog = created.object();
    EXPECT_TRUE(worklog[QStringLiteral("id")].isString());
    EXPECT_EQ(worklog[QStringLiteral("issueId")].toString(), QStringLiteral("10042"));
    EXPECT_EQ(worklog[QStringLiteral("started")].toString(), QStringLiteral("2026-03-29T06:00:00.000+0530"));
    EXPECT_EQ(worklog[QStringLiteral("timeSpent")].toString(), QStringLiteral("3h 20m"));
    static const QRegularExpression jiraDate(
        QStringLiteral("^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}[+-]\\d{4}$"));
    EXPECT_TRUE(jiraDate.match(worklog[QStringLiteral("created")].toString()).hasMatch());
    EXPECT_TRUE(
        worklog[QStringLiteral("self")].toString().startsWith(QStringLiteral("https://example.atlassian.net/")));

    const QJsonObject plain = get(api(QStringLiteral("/issue/ED-1/worklog")), m_token).object();
    EXPECT_FALSE(plain[QStringLiteral("worklogs")][0].toObject().contains(QStringLiteral("properties")));
    const QJsonObject expanded = get(api(QStringLiteral("/issue/ED-1/worklog?expand=properties")), m_token).object();
    EXPECT_EQ(expanded[QStringLiteral("worklogs")][0][QStringLiteral("properties")].toArray(), properties);

    // The same instant reads differently once the profile zone changes.
    m_server.addUser({kAccount, QStringLiteral("Ada Example"), QStringLiteral("Europe/Berlin"), {}, {}});
    const QJsonObject moved = get(api(QStringLiteral("/issue/ED-1/worklog")), m_token).object();
    EXPECT_EQ(moved[QStringLiteral("worklogs")][0][QStringLiteral("started")].toString(),
        QStringLiteral("2026-03-29T01:30:00.000+0100"));
}

struct RejectedWorklog {
    const char *name;
    const char *body;
    const char *answer;
};

class RejectedWorklogTest : public StandinTest, public ::testing::WithParamInterface<RejectedWorklog>
{
};

const char kBadStarted[]
    = R"({"errorMessages":[],"errors":{"started":"Invalid date format. Please enter the date in the format \"yyyy-MM-dd'T'HH:mm:ss.SSSZ\"."}})";
const char kNoTime[]
    = R"({"errorMessages":["Worklog must not be null."],"errors":{"timeLogged":"You must indicate the time spent working."}})";

const char kNotADocument[] = R"({"errorMessages":[],"errors":{"comment":"Comment must be an Atlassian Document."}})";

TEST_P(RejectedWorklogTest, AnswersJirasValidationBody)
{
    const Reply reply = post(api(QStringLiteral("/issue/ED-1/worklog")), GetParam().body, m_token);
    EXPECT_EQ(reply.status, 400);
    EXPECT_EQ(QJsonDocument::fromJson(reply.body), QJsonDocument::fromJson(GetParam().answer))
        << reply.body.constData();
    EXPECT_EQ(m_server.worklogCount(QStringLiteral("ED-1")), 0);
}

INSTANTIATE_TEST_SUITE_P(Bodies, RejectedWorklogTest,
    ::testing::Values(
        RejectedWorklog {"UtcZ", R"({"started":"2026-03-02T09:00:00.000Z","timeSpentSeconds":600})", kBadStarted},
        RejectedWorklog {
            "ColonOffset", R"({"started":"2026-03-02T09:00:00.000+01:00","timeSpentSeconds":600})", kBadStarted},
        RejectedWorklog {
            "Nanoseconds", R"({"started":"2026-03-02T09:00:00.000000000+0100","timeSpentSeconds":600})", kBadStarted},
        RejectedWorklog {
            "NoMilliseconds", R"({"started":"2026-03-02T09:00:00+0100","timeSpentSeconds":600})", kBadStarted},
        RejectedWorklog {
            "ImpossibleDay", R"({"started":"2026-02-30T09:00:00.000+0100","timeSpentSeconds":600})", kBadStarted},
        RejectedWorklog {"MissingStarted", R"({"timeSpentSeconds":600})", kBadStarted},
        RejectedWorklog {
            "FiftyNineSeconds", R"({"started":"2026-03-02T09:00:00.000+0100","timeSpentSeconds":59})", kNoTime},
        RejectedWorklog {"ZeroSeconds", R"({"started":"2026-03-02T09:00:00.000+0100","timeSpentSeconds":0})", kNoTime},
        RejectedWorklog {"NoTime", R"({"started":"2026-03-02T09:00:00.000+0100"})", kNoTime},
        RejectedWorklog {"DocWithoutContent",
            R"({"started":"2026-03-02T09:00:00.000+0100","timeSpentSeconds":600,"comment":{"type":"doc","version":1,"content":[]}})",
            kNotADocument},
        RejectedWorklog {"EmptyTextNode",
            R"({"started":"2026-03-02T09:00:00.000+0100","timeSpentSeconds":600,"comment":{"type":"doc","version":1,"content":[{"type":"paragraph","content":[{"type":"text","text":""}]}]}})",
            kNotADocument},
        RejectedWorklog {"PlainTextComment",
            R"({"started":"2026-03-02T09:00:00.000+0100","timeSpentSeconds":600,"comment":"Review"})", kNotADocument},
        RejectedWorklog {"UnknownField",
            R"({"started":"2026-03-02T09:00:00.000+0100","timeSpentSeconds":600,"worklogId":"1"})",
            R"({"errorMessages":["Unrecognized field \"worklogId\" (class com.atlassian.jira.rest.v2.issue.worklog.WorklogJsonBean), not marked as ignorable"],"errors":{}})"},
        RejectedWorklog {"PropertyWithoutValue",
            R"({"started":"2026-03-02T09:00:00.000+0100","timeSpentSeconds":600,"properties":[{"key":"hourloom"}]})",
            R"({"errorMessages":["The property value must be a valid, non-empty JSON value."],"errors":{}})"}),
    [](const ::testing::TestParamInfo<RejectedWorklog> &rejected) { return std::string(rejected.param.name); });

TEST_F(StandinTest, HoldsPropertiesToJirasLengthLimits)
{
    const auto withProperty = [](const QString &key, const QString &marker) {
        return QJsonObject {{QStringLiteral("started"), QStringLiteral("2026-03-02T09:00:00.000+0100")},
            {QStringLiteral("timeSpentSeconds"), 600},
            {QStringLiteral("properties"),
                QJsonArray {QJsonObject {{QStringLiteral("key"), key},
                    {QStringLiteral("value"), QJsonObject {{QStringLiteral("marker"), marker}}}}}}};
    };
    const qsizetype room = 32768 - qsizetype(qstrlen(R"({"marker":""})"));
    EXPECT_EQ(postWorklog(withProperty(QString(255, QLatin1Char('k')), QString(room, QLatin1Char('m')))).status, 201);
    const Reply longKey = postWorklog(withProperty(QString(256, QLatin1Char('k')), QStringLiteral("m")));
    EXPECT_EQ(longKey.status, 400);
    EXPECT_EQ(longKey.object()[QStringLiteral("errorMessages")][0].toString(),
        QStringLiteral("The property key can't be longer than 255 characters."));
    const Reply longValue = postWorklog(withProperty(QStringLiteral("hourloom"), QString(room + 1, QLatin1Char('m'))));
    EXPECT_EQ(longValue.status, 400);
    EXPECT_EQ(longValue.object()[QStringLiteral("errorMessages")][0].toString(),
        QStringLiteral("The property value can't be longer than 32768 characters."));
    EXPECT_EQ(m_server.worklogCount(QStringLiteral("ED-1")), 1);
}

TEST_F(StandinTest, LimitsBurstsAndWritesPerIssueWithRetryAfter)
{
    m_server.setBurstLimit(3, 60000);
    const QString myself = api(QStringLiteral("/myself"));
    EXPECT_TRUE(get(myself, m_token).header("X-RateLimit-NearLimit").isEmpty());
    EXPECT_EQ(get(myself, m_token).header("X-RateLimit-Remaining"), QByteArray("1"));
    EXPECT_EQ(get(myself, m_token).header("X-RateLimit-NearLimit"), QByteArray("true"));
    const Reply refused = get(myself, m_token);
    EXPECT_EQ(refused.status, 429);
    const int retryAfter = refused.header("Retry-After").toInt();
    EXPECT_GE(retryAfter, 1);
    EXPECT_LE(retryAfter, 60);
    EXPECT_EQ(refused.header("RateLimit-Reason"), QByteArray("jira-burst-based"));
    // The sign-in service is not part of the gateway's budget.
    EXPECT_EQ(post(m_server.origin() + QStringLiteral("/oauth/refresh"), R"({"refresh_token":"x"})").status, 403);

    m_server.setBurstLimit(0);
    m_server.setIssueWriteLimit(1, 60000);
    const QJsonObject body {{QStringLiteral("started"), QStringLiteral("2026-03-02T09:00:00.000+0100")},
        {QStringLiteral("timeSpentSeconds"), 600}};
    EXPECT_EQ(postWorklog(body).status, 201);
    const Reply limited = postWorklog(body);
    EXPECT_EQ(limited.status, 429);
    EXPECT_EQ(limited.header("RateLimit-Reason"), QByteArray("jira-per-issue-on-write"));
    EXPECT_EQ(m_server.worklogCount(QStringLiteral("ED-1")), 1);
}

TEST_F(StandinTest, AcceptsTimeSpentTextAndTheSixtySecondMinimum)
{
    EXPECT_EQ(postWorklog({{QStringLiteral("started"), QStringLiteral("2026-03-02T09:00:00.000-0330")},
                              {QStringLiteral("timeSpentSeconds"), 60}})
                  .status,
        201);
    const Reply text = postWorklog({{QStringLiteral("started"), QStringLiteral("2026-03-02T09:00:00.000+0000")},
        {QStringLiteral("timeSpent"), QStringLiteral("1d 2h")}});
    EXPECT_EQ(text.object()[QStringLiteral("timeSpentSeconds")].toInt(), 10 * 3600);
    const Reply badMode = postWorklog({{QStringLiteral("started"), QStringLiteral("2026-03-02T09:00:00.000+0000")},
                                          {QStringLiteral("timeSpentSeconds"), 600}},
        QStringLiteral("?adjustEstimate=sometimes"));
    EXPECT_EQ(badMode.status, 400);
    EXPECT_EQ(post(api(QStringLiteral("/issue/NOPE-1/worklog")), R"({"started":"x"})", m_token).status, 404);

    // The per-issue cap answers 413 and stores nothing.
    m_server.setWorklogLimit(2);
    const Reply full = postWorklog({{QStringLiteral("started"), QStringLiteral("2026-03-02T09:00:00.000+0000")},
        {QStringLiteral("timeSpentSeconds"), 600}});
    EXPECT_EQ(full.status, 413);
    EXPECT_EQ(m_server.worklogCount(QStringLiteral("ED-1")), 2);
}

TEST_F(StandinTest, MovedIssueAnswersUnderItsCurrentKey)
{
    m_server.addWorklog({QStringLiteral("ED-1"), kAccount, at("2026-03-02T09:00:00.000Z"), 600, {}, {}, {}, {}});
    ASSERT_TRUE(m_server.moveIssue(QStringLiteral("ED-1"), QStringLiteral("NEW-5")));
    const QJsonObject issue = get(api(QStringLiteral("/issue/ed-1?fields=summary")), m_token).object();
    EXPECT_EQ(issue[QStringLiteral("key")].toString(), QStringLiteral("NEW-5"));
    EXPECT_EQ(issue[QStringLiteral("fields")][QStringLiteral("summary")].toString(), QStringLiteral("Review"));
    EXPECT_FALSE(issue[QStringLiteral("fields")].toObject().contains(QStringLiteral("timetracking")));
    EXPECT_EQ(get(api(QStringLiteral("/issue/ED-1/worklog")), m_token).object()[QStringLiteral("total")].toInt(), 1);
    EXPECT_EQ(m_server.worklogCount(QStringLiteral("NEW-5")), 1);
}

TEST_F(StandinTest, RefusesMissingExpiredForeignAndUnderScopedTokens)
{
    const QString worklogs = api(QStringLiteral("/issue/ED-1/worklog"));
    EXPECT_EQ(get(worklogs).status, 401);
    EXPECT_EQ(get(worklogs, QStringLiteral("standin-at-made-up")).status, 401);
    EXPECT_EQ(get(worklogs, m_server.issueAccessToken(kAccount, kAllScopes, 0)).status, 401);
    EXPECT_EQ(
        get(worklogs, m_server.issueAccessToken(kAccount, kAllScopes, 3600, {QStringLiteral("other-site")})).status,
        401);

    const QString readOnly = m_server.issueAccessToken(kAccount, {QStringLiteral("read:jira-work")});
    EXPECT_EQ(get(worklogs, readOnly).status, 200);
    const Reply write
        = post(worklogs, R"({"started":"2026-03-02T09:00:00.000+0100","timeSpentSeconds":600})", readOnly);
    EXPECT_EQ(write.status, 401);
    EXPECT_EQ(write.body, QByteArray(R"({"code":401,"message":"Unauthorized; scope does not match"})"));
    EXPECT_EQ(get(api(QStringLiteral("/myself")), readOnly).status, 401);
    EXPECT_EQ(m_server.worklogCount(QStringLiteral("ED-1")), 0);

    const Reply resources = get(m_server.origin() + QStringLiteral("/oauth/token/accessible-resources"), readOnly);
    ASSERT_EQ(resources.status, 200);
    EXPECT_EQ(resources.array().first()[QStringLiteral("id")].toString(), kCloud);
}

class SignInTest : public StandinTest
{
protected:
    // Starts a sign-in; returns the state and fills the verifier.
    QJsonObject start(QString *verifier)
    {
        *verifier = base64Url(QByteArray(32, 'v'));
        const QString challenge = base64Url(QCryptographicHash::hash(verifier->toUtf8(), QCryptographicHash::Sha256));
        return post(
            m_server.origin() + QStringLiteral("/oauth/start"), json({{QStringLiteral("challenge"), challenge}}))
            .object();
    }

    Reply poll(const QString &state, const QString &verifier)
    {
        return post(m_server.origin() + QStringLiteral("/oauth/poll"),
            json({{QStringLiteral("state"), state}, {QStringLiteral("verifier"), verifier}}));
    }

    Reply refresh(const QString &token)
    {
        return post(
            m_server.origin() + QStringLiteral("/oauth/refresh"), json({{QStringLiteral("refresh_token"), token}}));
    }

    QJsonObject signIn()
    {
        QString verifier;
        const QJsonObject started = start(&verifier);
        EXPECT_EQ(get(started[QStringLiteral("authorization_url")].toString()).status, 200);
        return poll(started[QStringLiteral("state")].toString(), verifier).object();
    }
};

TEST_F(SignInTest, ApprovesWhenTheAuthorizationPageIsFetched)
{
    m_server.setTokenLifetime(120);
    QString verifier;
    const QJsonObject started = start(&verifier);
    const QString state = started[QStringLiteral("state")].toString();
    const QUrl url(started[QStringLiteral("authorization_url")].toString());
    EXPECT_EQ(url.scheme(), QStringLiteral("https"));
    EXPECT_EQ(url.host(), QStringLiteral("127.0.0.1"));
    EXPECT_EQ(url.path(), QStringLiteral("/authorize"));
    EXPECT_EQ(QUrlQuery(url).queryItemValue(QStringLiteral("state")), state);

    EXPECT_EQ(poll(state, verifier).status, 202);
    EXPECT_EQ(poll(state, base64Url(QByteArray(32, 'w'))).status, 400);
    ASSERT_EQ(get(url.toString(QUrl::FullyEncoded)).status, 200);
    const Reply done = poll(state, verifier);
    ASSERT_EQ(done.status, 200);
    const QJsonObject tokens = done.object();
    EXPECT_EQ(tokens[QStringLiteral("token_type")].toString(), QStringLiteral("Bearer"));
    EXPECT_EQ(tokens[QStringLiteral("expires_in")].toInt(), 120);
    EXPECT_TRUE(tokens[QStringLiteral("refresh_token")].isString());
    EXPECT_EQ(get(api(QStringLiteral("/myself")), tokens[QStringLiteral("access_token")].toString())
                  .object()[QStringLiteral("accountId")],
        kAccount);
    // A finished sign-in cannot hand out a second set of tokens.
    EXPECT_EQ(poll(state, verifier).status, 400);

    m_server.setAuthHost(QStringLiteral("auth.example.test"));
    EXPECT_EQ(QUrl(start(&verifier)[QStringLiteral("authorization_url")].toString()).host(),
        QStringLiteral("auth.example.test"));
}

TEST_F(SignInTest, RotatesRefreshTokensAndRevokesTheFamilyOnReuse)
{
    // Within Atlassian's leeway of 600 s (the default) a rotated token still works once more.
    const QString again = signIn()[QStringLiteral("refresh_token")].toString();
    ASSERT_EQ(refresh(again).status, 200);
    EXPECT_EQ(refresh(again).status, 200);

    m_server.setRefreshReuseLeeway(0);
    const QJsonObject first = signIn();
    const QString original = first[QStringLiteral("refresh_token")].toString();
    const Reply rotated = refresh(original);
    ASSERT_EQ(rotated.status, 200);
    const QString next = rotated.object()[QStringLiteral("refresh_token")].toString();
    const QString access = rotated.object()[QStringLiteral("access_token")].toString();
    EXPECT_NE(next, original);
    EXPECT_EQ(get(api(QStringLiteral("/myself")), access).status, 200);

    const Reply reused = refresh(original);
    EXPECT_EQ(reused.status, 403);
    EXPECT_EQ(reused.body,
        QByteArray(R"({"error":"invalid_grant","error_description":"Unknown or invalid refresh token."})"));
    // The leak takes the whole family with it: the newest refresh token and its access token too.
    EXPECT_EQ(refresh(next).status, 403);
    EXPECT_EQ(get(api(QStringLiteral("/myself")), access).status, 401);
    EXPECT_EQ(refresh(QString()).status, 403);
}

TEST_F(SignInTest, RefusesMalformedChallengesAndExpiredSignIns)
{
    const QString startURL = m_server.origin() + QStringLiteral("/oauth/start");
    const QString digest = base64Url(QByteArray(32, 'd'));
    // 43 characters whose last one carries bits a 32-byte digest cannot have; 42 and 44 characters; base64 "+".
    for (const QString &challenge : QStringList {digest.chopped(1) + QLatin1Char('B'), digest.chopped(1),
             digest + QLatin1Char('A'), QString(digest).replace(0, 1, QLatin1Char('+'))})
        EXPECT_EQ(post(startURL, json({{QStringLiteral("challenge"), challenge}})).status, 400)
            << qPrintable(challenge);
    // Without a JSON content type the body is not read at all.
    const QByteArray valid = json({{QStringLiteral("challenge"), digest}});
    for (const QByteArray &type : {QByteArray("Content-Type:"), QByteArray("Content-Type: text/plain")})
        EXPECT_EQ(fetch(startURL, {QStringLiteral("POST"), {}, valid, m_server.caFile(), 10000, type}).status, 415);
    EXPECT_EQ(post(startURL, valid).status, 200);

    m_server.setSignInLifetime(0);
    QString verifier;
    const QJsonObject started = start(&verifier);
    EXPECT_TRUE(m_server.pendingSignIns().isEmpty());
    EXPECT_EQ(get(started[QStringLiteral("authorization_url")].toString()).status, 400);
    EXPECT_EQ(poll(started[QStringLiteral("state")].toString(), verifier).status, 400);
}

TEST_F(StandinTest, RateServiceKnowsCurrenciesCaseInsensitively)
{
    m_server.setRate(QStringLiteral("EUR"), QStringLiteral("USD"), 1.25, QDate(2026, 3, 20));
    const QJsonObject rate = get(m_server.origin() + QStringLiteral("/v2/rate/eur/Usd?providers=ECB")).object();
    EXPECT_EQ(rate,
        (QJsonObject {{QStringLiteral("date"), QStringLiteral("2026-03-20")},
            {QStringLiteral("base"), QStringLiteral("EUR")}, {QStringLiteral("quote"), QStringLiteral("USD")},
            {QStringLiteral("rate"), 1.25}}));
    EXPECT_DOUBLE_EQ(get(m_server.origin() + QStringLiteral("/v2/rate/USD/EUR?providers=ECB"))
                         .object()[QStringLiteral("rate")]
                         .toDouble(),
        0.8);
    EXPECT_DOUBLE_EQ(
        get(m_server.origin() + QStringLiteral("/v2/rate/CHF/CHF")).object()[QStringLiteral("rate")].toDouble(), 1.0);

    const Reply invalid = get(m_server.origin() + QStringLiteral("/v2/rate/XYZ/USD?providers=ECB"));
    EXPECT_EQ(invalid.status, 422);
    EXPECT_EQ(invalid.object()[QStringLiteral("message")].toString(), QStringLiteral("invalid currency: XYZ"));
    EXPECT_EQ(get(m_server.origin() + QStringLiteral("/v2/rate/EUR/USD?providers=ECB&x=1")).status, 422);
    const Reply missing = get(m_server.origin() + QStringLiteral("/v2/rate/EUR/ISK?providers=ECB"));
    EXPECT_EQ(missing.status, 404);
    EXPECT_EQ(missing.body, QByteArray(R"({"message":"not found","status":404})"));
}

TEST_F(StandinTest, AdminEndpointDrivesTheServerFromOutside)
{
    const QString admin = m_server.origin() + QStringLiteral("/__admin/");
    EXPECT_EQ(post(admin + QStringLiteral("issues"), R"({"key":"OPS-2","summary":"x"})").status, 404);
    m_server.setAdminEnabled(true);
    ASSERT_EQ(post(admin + QStringLiteral("issues"), R"([{"key":"OPS-2","summary":"Rotate keys"}])").status, 200);
    ASSERT_EQ(
        post(admin + QStringLiteral("worklogs"),
            R"({"issueKey":"OPS-2","authorAccountId":"5b10aa0000000000000000aa","started":"2026-03-02T09:00:00.000+0100","seconds":900})")
            .status,
        200);
    ASSERT_EQ(post(admin + QStringLiteral("config"), R"({"pageSize":1})").status, 200);
    ASSERT_EQ(post(admin + QStringLiteral("faults"),
                  R"({"kind":"tooManyRequests","method":"GET","path":"/myself$","retryAfter":3})")
                  .status,
        200);
    EXPECT_EQ(post(admin + QStringLiteral("faults"), R"({"kind":"gremlins"})").status, 400);

    const QJsonObject page = get(api(QStringLiteral("/issue/ops-2/worklog?maxResults=50")), m_token).object();
    EXPECT_EQ(page[QStringLiteral("maxResults")].toInt(), 1);
    EXPECT_EQ(page[QStringLiteral("worklogs")][0][QStringLiteral("timeSpent")].toString(), QStringLiteral("15m"));
    EXPECT_EQ(get(api(QStringLiteral("/myself")), m_token).header("Retry-After"), QByteArray("3"));

    const QJsonArray requests = get(admin + QStringLiteral("requests")).array();
    ASSERT_EQ(requests.size(), 2); // admin calls are not recorded
    EXPECT_EQ(requests[0][QStringLiteral("path")].toString(),
        QStringLiteral("/ex/jira/") + kCloud + QStringLiteral("/rest/api/3/issue/ops-2/worklog"));
}

TEST_F(StandinTest, ChecksCapturedWorklogBodiesAgainstThePublishedSchema)
{
    postWorklog({{QStringLiteral("started"), QStringLiteral("2026-03-02T09:00:00.000+0100")},
        {QStringLiteral("timeSpentSeconds"), 600},
        {QStringLiteral("properties"),
            QJsonArray {QJsonObject {{QStringLiteral("key"), QStringLiteral("hourloom")},
                {QStringLiteral("value"), QJsonObject {{QStringLiteral("marker"), QStringLiteral("abc")}}}}}}});
    const QList<QByteArray> sent = standin::worklogRequestBodies(m_server);
    ASSERT_EQ(sent.size(), 1);
    EXPECT_EQ(standin::checkWorklogRequestBodies(sent), QString());

    // Fields the client must not send: a read-only id and a property with an extra member.
    const QString report = standin::checkWorklogRequestBodies(
        {R"({"started":"2026-03-02T09:00:00.000+0100","timeSpentSeconds":600,"id":"1"})",
            R"({"started":"2026-03-02T09:00:00.000+0100","timeSpentSeconds":600,"properties":[{"key":"k","value":1,"x":2}]})"});
    EXPECT_TRUE(report.contains(QStringLiteral("read-only field 'id'"))) << qPrintable(report);
    EXPECT_TRUE(report.contains(QStringLiteral("'x' was unexpected"))) << qPrintable(report);
}

} // namespace
