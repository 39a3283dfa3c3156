#include "uifixture.h"

#include "jira/jiraclient.h"
#include "support/testenv.h"
#include "worklogs/engine.h"

#include <QCoreApplication>
#include <QMainWindow>
#include <QTest>
#include <QTreeView>

namespace uitest
{

QVariantMap session(const QString &issue, const QDateTime &start, qint64 seconds, const QString &description,
    qint64 localId, bool running)
{
    const qint64 startMs = start.toMSecsSinceEpoch();
    return {{QStringLiteral("date"), start.date().toString(Qt::ISODate)}, {QStringLiteral("issue"), issue},
        {QStringLiteral("description"), description}, {QStringLiteral("duration"), seconds},
        {QStringLiteral("start_ms"), startMs},
        {QStringLiteral("end_ms"), running ? qint64(-1) : startMs + seconds * 1000},
        {QStringLiteral("local_id"), localId}, {QStringLiteral("api_id"), 0}, {QStringLiteral("project"), 1},
        {QStringLiteral("source_seconds"), seconds}, {QStringLiteral("source_account"), QStringLiteral("acct")},
        {QStringLiteral("source_running"), running}};
}

QVariantList realisticDay(const QDate &day)
{
    const struct {
        const char *issue;
        int hour, minute;
        qint64 seconds;
        const char *description;
    } plan[] = {{"ABC-1", 8, 30, 2700, "ABC-1 Triage failing nightly build"},
        {"ABC-2", 9, 20, 5400, "ABC-2 Payment retry backoff"},
        {"OPS-7", 10, 55, 900, "OPS-7 Rotate staging certificates"},
        {"ABC-2", 11, 15, 3600, "ABC-2 Payment retry backoff"}, {"Unassigned", 12, 20, 1500, "Team lunch talk prep"},
        {"ABC-1", 13, 30, 1800, "ABC-1 Triage failing nightly build"}, {"ABC-3", 14, 5, 40, "ABC-3 Quick look"},
        {"ABC-3", 14, 10, 4200, "ABC-3 Review invoice export"}, {"OPS-7", 15, 30, 1200, "OPS-7 On-call handover"},
        {"ABC-2", 16, 0, 2400, "ABC-2 Payment retry backoff"}};
    QVariantList sessions;
    qint64 id = 1;
    for (const auto &p : plan)
        sessions.append(session(QString::fromLatin1(p.issue), QDateTime(day, QTime(p.hour, p.minute)), p.seconds,
            QString::fromUtf8(p.description), id++));
    return sessions;
}

QVariantList generatedSessions(int count, const QDate &last, int issues, int days)
{
    QVariantList sessions;
    for (int i = 0; i < count; ++i) {
        const QDate day = last.addDays(-(i % days));
        const int slot = i / days;
        const QDateTime start(day, QTime(0, 0).addSecs(qint64(slot % 280) * 300));
        const QString issue = i % 17 == 0 ? QStringLiteral("Unassigned") : QStringLiteral("GEN-%1").arg(i % issues + 1);
        sessions.append(session(issue, start, 60 + (i * 37) % 240, QStringLiteral("Task %1").arg(i % 40), i + 1));
    }
    return sessions;
}

} // namespace uitest

QString WindowFixture::credentialService()
{
    // One secret-store entry per test process, so suites running side by side never share a sign-in.
    return QStringLiteral("app.hourloom.test.ui.%1").arg(QCoreApplication::applicationPid());
}

void WindowFixture::SetUp()
{
    m_server.addUser(
        {kAccount, QStringLiteral("Ada Example"), QStringLiteral("Europe/Berlin"), {}, QStringLiteral("en_US")});
    const QStringList scopes {QStringLiteral("read:jira-work"), QStringLiteral("write:jira-work"),
        QStringLiteral("read:jira-user"), QStringLiteral("offline_access")};
    m_server.addSite({kCloud, QStringLiteral("example"), QStringLiteral("https://example.atlassian.net"), scopes});
    for (const char *key : {"ABC-1", "ABC-2", "ABC-3", "OPS-7"})
        m_server.addIssue(
            {QString::fromLatin1(key), {}, QStringLiteral("Summary of ") + QString::fromLatin1(key), {}, {}});
    ASSERT_TRUE(m_server.start()) << qPrintable(m_server.errorString());
    const QString token = m_server.issueAccessToken(kAccount, scopes, 24 * 3600);
    qputenv("HOURLOOM_TEST_GATEWAY", m_server.origin().toUtf8());
    qputenv("HOURLOOM_TEST_CA_FILE", m_server.caFile().toUtf8());
    JRSetCombineDailyByIssue(false);
    JRSetAutoCompareOnOpen(false);
    m_directory = testenv::freshDir(QStringLiteral("support"));
    m_controller = std::make_unique<JiraReviewWindowController>(m_directory, credentialService());
    const QVariantMap record {{QStringLiteral("access_token"), token},
        {QStringLiteral("refresh_token"), QStringLiteral("unused")}, {QStringLiteral("expires_in"), 3600},
        {QStringLiteral("broker"), m_server.origin()},
        {QStringLiteral("expires_at"), double(QDateTime::currentSecsSinceEpoch() + 3600)}};
    JiraClient &client = m_controller->jiraClient();
    client.queue().sync([&] { client.session().save(record); });
    m_controller->confirmPost = [](const QString &, const QString &) { return true; };
}

void WindowFixture::TearDown()
{
    m_controller.reset();
    m_server.stop();
}

bool WindowFixture::waitIdle(int timeoutMs)
{
    return testenv::waitFor([this] { return !m_controller->busy(); }, timeoutMs);
}

void WindowFixture::openChecked(const QVariantList &sessions)
{
    m_controller->showSessions(sessions);
    m_controller->prepareConnection();
    ASSERT_TRUE(testenv::waitFor([this] { return m_controller->selectedCloud() == kCloud; }, 30000))
        << qPrintable(m_controller->statusText());
    m_controller->checkJira();
    ASSERT_TRUE(m_controller->busy());
    ASSERT_TRUE(waitIdle()) << qPrintable(m_controller->statusText());
    ASSERT_TRUE(m_controller->statusText().startsWith(QStringLiteral("Checked")))
        << qPrintable(m_controller->statusText());
}

ReviewModel *WindowFixture::model() const
{
    return qobject_cast<ReviewModel *>(m_controller->tree()->model());
}

int WindowFixture::rowOf(const QString &description) const
{
    const QVariantList rows = model()->rows();
    for (int i = 0; i < rows.size(); ++i)
        if (rows[i].toMap().value(QStringLiteral("session")).toMap().value(QStringLiteral("description")).toString()
            == description)
            return i;
    return -1;
}

QVariantMap WindowFixture::rowFor(const QString &description) const
{
    return model()->row(rowOf(description));
}

QModelIndex WindowFixture::indexFor(const QString &description, int column) const
{
    return model()->indexOfRow(rowOf(description), column);
}
