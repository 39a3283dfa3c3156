// The client's tests trust the stand-in to behave like Jira, the sign-in service and the rate service. What
// those tests would notice on their own (paging, rate limits, the sign-in flow, the request schema) is left to
// them; what they cannot notice, because the program never provokes it, is tested here over real TLS.

#include "standin/server.h"

#include <QCryptographicHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTimeZone>

#include <curl/curl.h>
#include <gtest/gtest.h>

namespace
{

const QString kCloud = QStringLiteral("11111111-2222-3333-4444-555555555555");
const QString kAccount = QStringLiteral("5b10aa0000000000000000aa");
const QStringList kAllScopes = {QStringLiteral("read:jira-work"), QStringLiteral("write:jira-work"),
    QStringLiteral("read:jira-user"), QStringLiteral("offline_access")};

struct Reply {
    long status = 0;
    QByteArray body;

    QJsonObject object() const { return QJsonDocument::fromJson(body).object(); }
    QJsonArray array() const { return QJsonDocument::fromJson(body).array(); }
};

size_t collectBody(char *data, size_t size, size_t count, void *target)
{
    static_cast<QByteArray *>(target)->append(data, qsizetype(size * count));
    return size * count;
}

// One request over TLS trusting only `caFile`; a null body makes a GET.
Reply fetch(const QString &url, const QString &token, const QByteArray &body, const QString &caFile)
{
    Reply reply;
    CURL *curl = curl_easy_init();
    const QByteArray urlBytes = url.toUtf8();
    const QByteArray ca = caFile.toUtf8();
    curl_easy_setopt(curl, CURLOPT_URL, urlBytes.constData());
    curl_easy_setopt(curl, CURLOPT_CAINFO, ca.constData());
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, 10000L);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collectBody);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &reply.body);
    curl_slist *headers = curl_slist_append(nullptr, "Accept: application/json");
    const QByteArray authorization = "Authorization: Bearer " + token.toUtf8();
    if (!token.isEmpty())
        headers = curl_slist_append(headers, authorization.constData());
    if (!body.isNull()) {
        headers = curl_slist_append(headers, "Content-Type: application/json");
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.constData());
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, long(body.size()));
    }
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_perform(curl);
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

    Reply get(const QString &url, const QString &token = {}) const { return fetch(url, token, {}, m_server.caFile()); }

    Reply post(const QString &url, const QByteArray &body, const QString &token = {}) const
    {
        return fetch(url, token, body, m_server.caFile());
    }

    Reply postWorklog(const QJsonObject &body, const QString &query = QStringLiteral("?notifyUsers=false"))
    {
        return post(api(QStringLiteral("/issue/ED-1/worklog")) + query, json(body), m_token);
    }

    QDateTime at(const char *iso) const { return QDateTime::fromString(QString::fromLatin1(iso), Qt::ISODateWithMs); }

    standin::Server m_server;
    QString m_token;
};

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

// The program always names the estimate mode and an existing issue: a stand-in that took anything would not
// notice if it stopped doing so.
TEST_F(StandinTest, RefusesAnUnknownEstimateModeOrIssue)
{
    const QJsonObject body {{QStringLiteral("started"), QStringLiteral("2026-03-02T09:00:00.000-0330")},
        {QStringLiteral("timeSpentSeconds"), 60}};
    EXPECT_EQ(postWorklog(body, QStringLiteral("?adjustEstimate=sometimes")).status, 400);
    EXPECT_EQ(post(api(QStringLiteral("/issue/NOPE-1/worklog")), json(body), m_token).status, 404);
    EXPECT_EQ(m_server.worklogCount(QStringLiteral("ED-1")), 0);
    EXPECT_EQ(postWorklog(body).status, 201); // the 60-second minimum, at an offset west of UTC
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

TEST_F(StandinTest, RotatesRefreshTokensAndRevokesTheFamilyOnReuse)
{
    const auto refresh = [this](const QString &token) {
        return post(
            m_server.origin() + QStringLiteral("/oauth/refresh"), json({{QStringLiteral("refresh_token"), token}}));
    };
    // A finished browser sign-in: start, the consent page, the poll that hands out the tokens.
    const auto signIn = [this] {
        const QString verifier = base64Url(QByteArray(32, 'v'));
        const QString challenge = base64Url(QCryptographicHash::hash(verifier.toUtf8(), QCryptographicHash::Sha256));
        const QJsonObject started = post(m_server.origin() + QStringLiteral("/oauth/start"),
            json({{QStringLiteral("challenge"),
                challenge}})).object();
        EXPECT_EQ(get(started[QStringLiteral("authorization_url")].toString()).status, 200);
        return post(m_server.origin() + QStringLiteral("/oauth/poll"),
            json({{QStringLiteral("state"), started[QStringLiteral("state")]}, {QStringLiteral("verifier"), verifier}}))
            .object()[QStringLiteral("refresh_token")]
            .toString();
    };
    // Within Atlassian's leeway of 600 s (the default) a rotated token still works once more.
    const QString again = signIn();
    ASSERT_EQ(refresh(again).status, 200);
    EXPECT_EQ(refresh(again).status, 200);

    m_server.setRefreshReuseLeeway(0);
    const QString original = signIn();
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
}

// The program asks for one direction only; the other is derived, and an unknown code is refused.
TEST_F(StandinTest, RateServiceAnswersTheInversePairAndRefusesUnknownCurrencies)
{
    m_server.setRate(QStringLiteral("EUR"), QStringLiteral("USD"), 1.25, QDate(2026, 3, 20));
    const auto rate = [this](const QString &pair) {
        return get(m_server.origin() + QStringLiteral("/v2/rate/") + pair + QStringLiteral("?providers=ECB")).object();
    };
    EXPECT_DOUBLE_EQ(rate(QStringLiteral("eur/Usd"))[QStringLiteral("rate")].toDouble(), 1.25);
    EXPECT_DOUBLE_EQ(rate(QStringLiteral("USD/EUR"))[QStringLiteral("rate")].toDouble(), 0.8);
    EXPECT_EQ(
        rate(QStringLiteral("XYZ/USD"))[QStringLiteral("message")].toString(), QStringLiteral("invalid currency: XYZ"));
}

} // namespace
