#include "servicefixture.h"

#include "diagnostics/diagnosticlog.h"
#include "fsguards.h"
#include "support/testenv.h"
#include "worklogs/engine.h"
#include "worklogs/namedfailure.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTimeZone>

QVariantMap credentialRecord(const QString &token, const QString &broker)
{
    return {{u"access_token"_s, token}, {u"refresh_token"_s, u"unused"_s}, {u"expires_in"_s, 3600},
        {u"broker"_s, broker}, {u"expires_at"_s, double(QDateTime::currentSecsSinceEpoch() + 3600)}};
}

QVariantMap lastDiagnostic(const QString &name)
{
    QFile file(DiagnosticLog::shared().path(0));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QVariantMap found;
    for (const QByteArray &line : file.readAll().split('\n')) {
        const QVariantMap record = QJsonDocument::fromJson(line).object().toVariantMap();
        if (record.value(u"event"_s).toString() == name)
            found = record;
    }
    return found;
}

void ServiceFixture::SetUp()
{
    // Jira answers in the user's profile zone, which differs from the local one in every registered run.
    m_server.addUser({kAccount, u"Ada Example"_s, u"Pacific/Auckland"_s, {}, u"en_US"_s});
    m_server.addUser({kOtherAccount, u"Bo Example"_s, u"America/New_York"_s, {}, u"en_US"_s});
    const QStringList scopes {u"read:jira-work"_s, u"write:jira-work"_s, u"read:jira-user"_s, u"offline_access"_s};
    m_server.addSite({kCloud, u"example"_s, u"https://example.atlassian.net"_s, scopes});
    for (const char *key : {"ABC-1", "ABC-2", "ABC-3", "OPS-7"})
        m_server.addIssue({QString::fromLatin1(key), {}, u"Summary of "_s + QString::fromLatin1(key), {}, {}});
    ASSERT_TRUE(m_server.start()) << qPrintable(m_server.errorString());
    m_token = m_server.issueAccessToken(kAccount, scopes, 24 * 3600);

    qputenv("HOURLOOM_TEST_GATEWAY", m_server.origin().toUtf8());
    qputenv("HOURLOOM_TEST_CA_FILE", m_server.caFile().toUtf8());
    qputenv("HOURLOOM_TEST_NO_KEYCHAIN", "1");
    m_client = std::make_unique<JiraClient>();
    m_client->queue().sync([this] { m_client->session().save(credentialRecord(m_token, m_server.origin())); });
    // Each session is its own worklog unless a test asks for daily combining.
    JRSetCombineDailyByIssue(false);
    m_directory = testenv::freshDir(u"support"_s);
    m_service = std::make_unique<WorklogService>(*m_client, m_directory);
    m_server.clearRequests();
}

void ServiceFixture::TearDown()
{
    m_service.reset();
    m_client.reset();
    m_server.stop();
}

QStringList ServiceFixture::states(const QVariantList &events)
{
    QStringList result;
    for (const QVariant &event : events)
        result.append(event.toMap().value(u"state"_s).toString());
    return result;
}

QDateTime ServiceFixture::at(int day, int hour, int minute)
{
    return QDateTime(QDate(2026, 3, day), QTime(hour, minute));
}

QVariantMap ServiceFixture::session(
    const QString &issue, const QDateTime &start, qint64 seconds, const QString &description, qint64 localId) const
{
    const qint64 startMs = start.toMSecsSinceEpoch();
    return {{u"date"_s, start.date().toString(Qt::ISODate)}, {u"issue"_s, issue}, {u"description"_s, description},
        {u"duration"_s, seconds}, {u"start_ms"_s, startMs}, {u"end_ms"_s, startMs + seconds * 1000},
        {u"local_id"_s, localId}, {u"api_id"_s, 0}, {u"project"_s, 1}, {u"source_seconds"_s, seconds},
        {u"source_account"_s, u"acct"_s}};
}

QVariantList ServiceFixture::draftsOf(const QVariantList &sessions, const QDateTime &day) const
{
    return JRBuildDrafts(sessions, day);
}

QVariantMap ServiceFixture::compare(const QVariantList &drafts, QVariantList *events)
{
    QVariantMap result;
    m_client->queue().sync([&] {
        try {
            result = m_service->checkDrafts(drafts, kCloud, [events](const QVariantMap &event) {
                if (events)
                    events->append(event);
            });
        } catch (const NamedFailure &failure) {
            result = {{u"error"_s, failure.reason()}};
        }
    });
    return result;
}

QVariantList ServiceFixture::approved(const QVariantMap &comparison)
{
    QVariantList ticked;
    for (const QVariant &draft : comparison.value(u"drafts"_s).toList())
        if (draft.toMap().value(u"include"_s).toBool())
            ticked.append(draft);
    return JRWorklogsToPost(ticked);
}

ServiceFixture::PostOutcome ServiceFixture::post(
    const QVariantList &rows, const QString &account, qint64 generation, bool enforcePermissions)
{
    PostOutcome outcome;
    m_client->queue().sync([&] {
        std::unique_ptr<ScopedPermissionChecks> permissions;
        if (enforcePermissions)
            permissions = std::make_unique<ScopedPermissionChecks>();
        try {
            outcome.posted = m_service->postDrafts(rows, kCloud, account, generation,
                [&outcome](const QVariantMap &event) { outcome.events.append(event); });
        } catch (const NamedFailure &failure) {
            outcome.failure = failure.name() + u": "_s + failure.reason();
        }
    });
    return outcome;
}

QVariantMap ServiceFixture::ledger() const
{
    return m_service->store().receipts();
}

int ServiceFixture::requestCount(const QString &method, const QString &pattern) const
{
    return int(m_server.requests(method, pattern).size());
}

QVariantList ServiceFixture::jiraWorklogs(const QString &issue) const
{
    return m_server.worklogs(issue, kAccount).toVariantList();
}

QString ServiceFixture::statusOf(const QVariantMap &comparison, const QString &sourceKey)
{
    for (const QVariant &draft : comparison.value(u"drafts"_s).toList())
        if (draft.toMap().value(u"source_key"_s).toString() == sourceKey)
            return draft.toMap().value(u"status"_s).toString();
    return {};
}

int ServiceFixture::expectJiraConsistentWithLedger(const QStringList &issues)
{
    const QVariantMap receipts = ledger();
    QHash<QString, QVariantMap> byMarker;
    QHash<QString, QString> sessionOwner;
    for (const QString &issue : issues) {
        for (const QVariant &item : jiraWorklogs(issue)) {
            const QVariantMap worklog = item.toMap();
            const QString marker = JRLogMarker(worklog);
            if (marker.isEmpty())
                continue; // made by hand
            EXPECT_FALSE(byMarker.contains(marker)) << "two worklogs carry marker " << qPrintable(marker);
            byMarker.insert(marker, worklog);
            const QVariantMap sources = JRLogSources(worklog);
            for (auto it = sources.constBegin(); it != sources.constEnd(); ++it) {
                EXPECT_FALSE(sessionOwner.contains(it.key()))
                    << "session " << qPrintable(it.key()) << " is in two worklogs";
                sessionOwner.insert(it.key(), worklog.value(u"id"_s).toString());
            }
            // Every worklog the program made has a receipt: nothing posted is ever forgotten.
            EXPECT_TRUE(receipts.contains(marker)) << "worklog without receipt on " << qPrintable(issue);
        }
    }
    for (auto it = receipts.constBegin(); it != receipts.constEnd(); ++it) {
        const QVariantMap receipt = it.value().toMap();
        const QString state = receipt.value(u"state"_s).toString();
        if (state == u"posted"_s) {
            EXPECT_TRUE(byMarker.contains(it.key())) << "a posted receipt without its worklog";
            EXPECT_EQ(byMarker.value(it.key()).value(u"id"_s).toString(), receipt.value(u"id"_s).toString());
            EXPECT_EQ(byMarker.value(it.key()).value(u"timeSpentSeconds"_s).toLongLong(),
                receipt.value(u"payload"_s).toMap().value(u"timeSpentSeconds"_s).toLongLong());
        } else {
            EXPECT_EQ(state, u"pending"_s);
            EXPECT_FALSE(receipt.contains(u"id"_s));
        }
    }
    return int(byMarker.size());
}

int ServiceFixture::expectNoSessionOverposted(const QVariantList &sessions, const QStringList &issues)
{
    QHash<QString, qint64> tracked;
    for (const QVariant &item : sessions) {
        const QVariantMap record = item.toMap();
        tracked.insert(JRSourceKey(record),
            (record.value(u"end_ms"_s).toLongLong() - record.value(u"start_ms"_s).toLongLong()) / 1000);
    }
    QHash<QString, qint64> inJira;
    for (const QString &issue : issues)
        for (const QVariant &worklog : jiraWorklogs(issue)) {
            const QVariantMap sources = JRLogSources(worklog.toMap());
            for (auto it = sources.constBegin(); it != sources.constEnd(); ++it)
                inJira[it.key()] += it.value().toLongLong();
        }
    int broken = 0;
    for (auto it = inJira.constBegin(); it != inJira.constEnd(); ++it) {
        EXPECT_LE(it.value(), tracked.value(it.key()))
            << "session " << qPrintable(it.key()) << " is in Jira " << it.value() << " s for "
            << tracked.value(it.key()) << " s tracked";
        broken += it.value() > tracked.value(it.key()) ? 1 : 0;
    }
    return broken;
}

QString ServiceFixture::createLate(const standin::ReceivedRequest &post)
{
    const QString issue = post.path.section(QLatin1Char('/'), -2, -2);
    const QJsonObject body = QJsonDocument::fromJson(post.body).object();
    return m_server.addWorklog({issue, kAccount, JRDate(body.value(u"started"_s).toString()),
        qint64(body.value(u"timeSpentSeconds"_s).toDouble()), body.value(u"comment"_s).toObject(),
        body.value(u"properties"_s).toArray(), {}, {}});
}
