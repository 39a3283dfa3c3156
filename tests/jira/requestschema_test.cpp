// The worklog bodies the program builds and sends, checked against Atlassian's own published request schema:
// the stand-in accepting a body only shows that the two sides agree with each other.

#include "jira/jiraclient.h"
#include "standinfixture.h"
#include "worklogs/drafts.h"
#include "worklogs/marker.h"
#include "worklogs/topost.h"

#include "../../tools/standin/schemacheck.h"

#include <QDateTime>
#include <QSettings>

#include <gtest/gtest.h>

namespace
{

QVariantMap session(const QDateTime &start, qint64 seconds, const QString &description, qint64 localId)
{
    const qint64 startMs = start.toMSecsSinceEpoch();
    return {{QStringLiteral("issue"), QStringLiteral("ED-1")}, {QStringLiteral("description"), description},
        {QStringLiteral("start_ms"), startMs}, {QStringLiteral("end_ms"), startMs + seconds * 1000},
        {QStringLiteral("local_id"), localId}, {QStringLiteral("api_id"), qint64(0)},
        {QStringLiteral("project"), qint64(7)}, {QStringLiteral("source_account"), QStringLiteral("u_activity")}};
}

class RequestSchemaTest : public jiratest::SignedInTest
{
protected:
    void SetUp() override
    {
        QSettings().clear();
        jiratest::SignedInTest::SetUp();
    }
};

TEST_F(RequestSchemaTest, BodiesBuiltFromSessionsValidateAgainstAtlassiansSchema)
{
    // Plain, combined-by-comment and odd-text sessions: comments with quotes, line breaks and non-ASCII text.
    const QDateTime day(QDate(2026, 3, 2), QTime(9, 0));
    const QVariantList sessions {session(day, 3600, QStringLiteral("ED-1 Review \"the\" plan"), 1),
        session(day.addSecs(4000), 1830, QStringLiteral("ED-1 Fix\nline two — ünïcode"), 2),
        session(day.addSecs(8000), 95, QString(), 3)};
    const QVariantList worklogs = JRWorklogsToPost(JRBuildDrafts(sessions, day));
    ASSERT_FALSE(worklogs.isEmpty());

    const QString cloud = QString::fromLatin1(jiratest::kCloud);
    m_client->queue().sync([&] {
        for (const QVariant &item : worklogs) {
            const QVariantMap draft = item.toMap();
            const QString marker = JRMarker(draft, cloud, QString::fromLatin1(jiratest::kAccount));
            m_client->post(JRPayload(draft, marker), QStringLiteral("ED-1"), cloud, QStringLiteral("auto"));
            m_client->post(
                JRPayloadWithTag(draft, JRMarkerTag(marker)), QStringLiteral("ED-1"), cloud, QStringLiteral("leave"));
        }
    });

    const QList<QByteArray> bodies = standin::worklogRequestBodies(m_server);
    ASSERT_EQ(bodies.size(), worklogs.size() * 2);
    EXPECT_EQ(standin::checkWorklogRequestBodies(bodies), QString());
}

TEST_F(RequestSchemaTest, TheSchemaCheckRejectsABodyJiraWouldRefuse)
{
    // The yardstick itself must be able to fail. Atlassian's schema marks nothing required and leaves the
    // comment free, so what it can catch is wrong types and read-only fields.
    for (const QByteArray &body : {QByteArrayLiteral(R"({"started":20260302,"timeSpentSeconds":3600})"),
             QByteArrayLiteral(R"({"started":"2026-03-02T09:00:00.000+0100","timeSpentSeconds":"3600"})"),
             QByteArrayLiteral(R"({"started":"2026-03-02T09:00:00.000+0100","timeSpentSeconds":60,"id":"1"})")})
        EXPECT_NE(standin::checkWorklogRequestBodies({body}), QString()) << body.constData();
}

} // namespace
