// The Worklogs controller's side of the log prompt against the local stand-in: the comparison result, the
// post of exactly what was compared, and the refusals and Jira texts that reach the status line.

#include "jira/jiraclient.h"
#include "support/testenv.h"
#include "uifixture.h"
#include "worklogs/engine.h"

#include <QJsonObject>
#include <QSignalSpy>

namespace
{

struct Outcome {
    bool done = false;
    bool ok = false;
    QString error;
};

} // namespace

class PromptOperationsTest : public WindowFixture
{
protected:
    void SetUp() override
    {
        WindowFixture::SetUp();
        m_controller->prepareConnection();
        ASSERT_TRUE(testenv::waitFor([this] { return m_controller->selectedCloud() == kCloud; }, 30000))
            << qPrintable(m_controller->statusText());
        const QDateTime start(QDate(2026, 3, 2), QTime(9, 0));
        m_session = uitest::session(QStringLiteral("ABC-1"), start, 80 * 60, QStringLiteral("ABC-1 Fix the login"), 1);
        m_day = {m_session,
            uitest::session(
                QStringLiteral("ABC-2"), start.addSecs(90 * 60), 30 * 60, QStringLiteral("ABC-2 Notes"), 2)};
    }

    QVariantMap compare()
    {
        QVariantMap result;
        bool done = false;
        m_controller->comparePromptSession(m_session, m_day, [&](const QVariantMap &answer) {
            result = answer;
            done = true;
        });
        EXPECT_TRUE(testenv::waitFor([&] { return done; }, 30000));
        return result;
    }

    Outcome post(const QVariantMap &result)
    {
        Outcome outcome;
        m_controller->postPrompt(result, [&outcome](bool ok, const QString &error) { outcome = {true, ok, error}; });
        EXPECT_TRUE(testenv::waitFor([&] { return outcome.done; }, 30000));
        EXPECT_TRUE(waitIdle());
        return outcome;
    }

    int marked(const QString &issue) const
    {
        int count = 0;
        for (const QJsonValue &worklog : m_server.worklogs(issue, kAccount))
            count += JRLogMarker(worklog.toObject().toVariantMap()).isEmpty() ? 0 : 1;
        return count;
    }

    QVariantMap m_session;
    QVariantList m_day;
};

TEST_F(PromptOperationsTest, ComparesTheEndedSessionAndPostsItOnce)
{
    ASSERT_TRUE(m_controller->readyForPrompt());
    const QVariantMap result = compare();
    ASSERT_FALSE(result.contains(QStringLiteral("error")))
        << qPrintable(result.value(QStringLiteral("error")).toString());
    EXPECT_TRUE(result.value(QStringLiteral("ended_eligible")).toBool());
    const QVariantMap worklog = result.value(QStringLiteral("post")).toMap();
    EXPECT_EQ(worklog.value(QStringLiteral("issue")).toString(), QStringLiteral("ABC-1"));
    EXPECT_EQ(JRPostSeconds(worklog), 80 * 60);
    EXPECT_EQ(result.value(QStringLiteral("account")).toString(), kAccount);
    EXPECT_EQ(result.value(QStringLiteral("cloud")).toString(), kCloud);
    EXPECT_EQ(result.value(QStringLiteral("date")).toString(), QStringLiteral("2026-03-02"));
    // Only the ended session's issue is compared: the other issue of the day is not the prompt's business.
    EXPECT_EQ(result.value(QStringLiteral("drafts")).toList().size(), 1);
    EXPECT_EQ(m_controller->siteName(), QStringLiteral("example"));

    const Outcome first = post(result);
    EXPECT_TRUE(first.ok) << qPrintable(first.error);
    EXPECT_EQ(marked(QStringLiteral("ABC-1")), 1);
    EXPECT_EQ(marked(QStringLiteral("ABC-2")), 0);

    // The same prompt result again is a duplicate: the receipt refuses it and Jira keeps one worklog.
    const Outcome second = post(result);
    EXPECT_FALSE(second.ok);
    EXPECT_FALSE(second.error.isEmpty());
    EXPECT_EQ(marked(QStringLiteral("ABC-1")), 1);
    // And a fresh comparison no longer offers it.
    EXPECT_FALSE(compare().value(QStringLiteral("ended_eligible")).toBool());
}

TEST_F(PromptOperationsTest, AReconnectSinceTheComparisonRefusesThePost)
{
    const QVariantMap result = compare();
    ASSERT_TRUE(result.value(QStringLiteral("ended_eligible")).toBool());
    JiraClient &client = m_controller->jiraClient();
    client.setGeneration(client.generation() + 1);

    const Outcome outcome = post(result);
    EXPECT_FALSE(outcome.ok);
    EXPECT_EQ(outcome.error, QStringLiteral("Jira connection changed. Check Jira again."));
    EXPECT_EQ(m_controller->statusText(), QStringLiteral("Jira connection changed. Check Jira again."));
    EXPECT_EQ(marked(QStringLiteral("ABC-1")), 0);

    // Another site than the one compared is refused before anything is sent.
    QVariantMap elsewhere = compare();
    elsewhere.insert(QStringLiteral("cloud"), QStringLiteral("99999999-2222-3333-4444-555555555555"));
    EXPECT_FALSE(post(elsewhere).ok);
    EXPECT_EQ(marked(QStringLiteral("ABC-1")), 0);
}

TEST_F(PromptOperationsTest, JirasReasonAndWaitNoticeShowInTheStatusLine)
{
    // A refused POST: Jira's own explanation appears under the sentence, in the outcome and the status line.
    const QString reason = QStringLiteral("You do not have the permission to associate a worklog to this issue.");
    m_server.addFault(standin::Fault::statusReply(QStringLiteral("POST"), QStringLiteral("/issue/ABC-1/worklog$"), 400,
        QByteArray(R"({"errorMessages":[")") + reason.toUtf8() + R"("],"errors":{}})"));
    const Outcome outcome = post(compare());
    EXPECT_FALSE(outcome.ok);
    EXPECT_TRUE(outcome.error.endsWith(QLatin1Char('\n') + reason)) << qPrintable(outcome.error);
    const QStringList lines = m_controller->statusText().split(QLatin1Char('\n'));
    ASSERT_EQ(lines.size(), 2) << qPrintable(m_controller->statusText());
    EXPECT_FALSE(lines[0].isEmpty());
    EXPECT_EQ(lines[1], reason);

    // A rate-limited read waits as Jira asks, and the window says so while it waits.
    QStringList shown;
    QObject::connect(m_controller.get(), &JiraReviewWindowController::statusChanged, m_controller.get(),
        [&] { shown << m_controller->statusText(); });
    m_server.addFault(
        standin::Fault::tooManyRequests(QStringLiteral("GET"), QStringLiteral("/issue/ABC-1/worklog"), 1));
    m_controller->showSessions(m_day);
    m_controller->setReviewDay(QDate(2026, 3, 2));
    m_controller->checkJira();
    ASSERT_TRUE(waitIdle());
    EXPECT_TRUE(shown.contains(QStringLiteral("Jira is limiting requests; trying again in 1 s.")))
        << qPrintable(shown.join(QStringLiteral(" | ")));
    EXPECT_TRUE(m_controller->statusText().startsWith(QStringLiteral("Checked")))
        << qPrintable(m_controller->statusText());
}
