// Records from Jira and from local files may hold anything. The engine answers with neutral values and never
// crashes; these tests feed it generated garbage under every key it reads.

#include "worklogs/compare.h"
#include "worklogs/drafts.h"
#include "worklogs/manualmatches.h"
#include "worklogs/marker.h"
#include "worklogs/preferences.h"
#include "worklogs/topost.h"

#include "worklogbuilders.h"

#include <QRandomGenerator>
#include <QSet>

using namespace wl;

namespace
{

const QString kMe = QStringLiteral("me");

class Garbage
{
public:
    explicit Garbage(quint32 seed)
        : m_random(seed)
    {
    }

    QVariant value(int depth = 0)
    {
        switch (m_random.bounded(depth > 3 ? 9 : 12)) {
        case 0:
            return QVariant();
        case 1:
            return QString();
        case 2:
            return QStringLiteral("3600");
        case 3:
            return qint64(m_random.bounded(-100000, 100000));
        case 4:
            return m_random.bounded(2) == 0 ? 1e300 : -0.5;
        case 5:
            return true;
        case 6:
            return QStringLiteral("2026-03-02T09:00:00.000+0530");
        case 7:
            return QString(QStringLiteral("[Hourloom:") + QString::number(m_random.generate()) + u']');
        case 8:
            return QByteArray("bytes");
        case 9:
            return QVariantList {value(depth + 1), value(depth + 1)};
        case 10:
            return QStringList {QStringLiteral("a"), QStringLiteral("b")};
        default:
            return QVariantMap {{QStringLiteral("text"), value(depth + 1)},
                {QStringLiteral("content"), value(depth + 1)}, {QStringLiteral("key"), QStringLiteral("hourloom")},
                {QStringLiteral("value"), value(depth + 1)}};
        }
    }

    // A worklog with each key either missing, well-formed or garbage.
    QVariantMap worklog()
    {
        QVariantMap log;
        const auto maybe = [&](const QString &key, const QVariant &good) {
            const int choice = m_random.bounded(3);
            if (choice == 1)
                log.insert(key, good);
            else if (choice == 2)
                log.insert(key, value());
        };
        maybe(QStringLiteral("id"), QStringLiteral("10001"));
        maybe(QStringLiteral("author"),
            m_random.bounded(2) == 0 ? QVariant(QVariantMap {{QStringLiteral("accountId"), kMe}})
                                     : QVariant(QVariantMap {{QStringLiteral("accountId"), value()}}));
        maybe(QStringLiteral("started"), QStringLiteral("2026-03-02T09:00:00.000+0100"));
        maybe(QStringLiteral("timeSpentSeconds"), qint64(3600));
        maybe(QStringLiteral("comment"), document(QStringLiteral("Work")));
        maybe(QStringLiteral("properties"),
            QVariantList {QVariantMap {{QStringLiteral("key"), QStringLiteral("hourloom")},
                {QStringLiteral("value"),
                    QVariantMap {{QStringLiteral("marker"), value()}, {QStringLiteral("sources"), value()}}}}});
        return log;
    }

    QVariantMap record(const QStringList &keys)
    {
        QVariantMap map;
        for (const QString &key : keys) {
            if (m_random.bounded(3) != 0)
                map.insert(key, value());
        }
        return map;
    }

    int bounded(int n) { return m_random.bounded(n); }

private:
    QRandomGenerator m_random;
};

const QSet<QString> kStatuses {QStringLiteral("Ignored for Jira"),
    QStringLiteral("Assign issue / at least 1m, at most 24h"),
    QStringLiteral("Assign issue / rounds to 0m or over 24h"), QStringLiteral("Already posted"),
    QStringLiteral("Posted entry differs"), QStringLiteral("Posted in a combined worklog"),
    QStringLiteral("Previously posted — review changes"), QStringLiteral("Uncertain submission — review in Jira"),
    QStringLiteral("Existing time — review before including"), QStringLiteral("Ready")};

class Malformed : public EngineTest
{
};

TEST_F(Malformed, JiraWorklogsGiveNeutralAnswers)
{
    Garbage garbage(7);
    const QVariantMap draft
        = first(JRBuildDrafts({session(local(2026, 3, 2, 9, 0), 3600000)}, local(2026, 3, 2, 12, 0)));
    const QString marker = JRMarker(draft, QStringLiteral("c"), kMe);
    for (int run = 0; run < 3000; ++run) {
        QVariantList logs;
        for (int i = garbage.bounded(5); i >= 0; --i)
            logs << (garbage.bounded(6) == 0 ? garbage.value() : QVariant(garbage.worklog()));
        const QVariantMap receipt = garbage.bounded(4) == 0 ? garbage.record({QStringLiteral("state")}) : QVariantMap();
        const QVariantMap result = JRCompare(draft, logs, kMe, marker, receipt);
        ASSERT_EQ(result.size(), 3);
        ASSERT_TRUE(kStatuses.contains(result.value(QStringLiteral("status")).toString()))
            << result.value(QStringLiteral("status")).toString().toStdString();
        ASSERT_GE(result.value(QStringLiteral("existing")).toLongLong(), 0);
        if (!receipt.isEmpty()) {
            ASSERT_FALSE(result.value(QStringLiteral("eligible")).toBool());
        }

        for (const QVariant &match : JRManualMatches(draft, logs, kMe)) {
            const QVariantMap candidate = match.toMap();
            ASSERT_EQ(candidate.size(), 6);
            ASSERT_FALSE(candidate.value(QStringLiteral("id")).toString().isEmpty());
            ASSERT_TRUE(JRDate(candidate.value(QStringLiteral("started"))).isValid());
        }
        for (const QVariant &log : logs) {
            const QString logMarker = JRLogMarker(log.toMap());
            ASSERT_TRUE(logMarker.isNull() || !logMarker.isEmpty());
            JRLogSources(log.toMap());
            JRText(log.toMap().value(QStringLiteral("comment")));
        }
    }
}

TEST_F(Malformed, NumbersAsTextsCountAsNumbers)
{
    const QVariantMap draft
        = first(JRBuildDrafts({session(local(2026, 3, 2, 9, 0), 3600000)}, local(2026, 3, 2, 12, 0)));
    QVariantMap log = worklog(kMe, draft.value(QStringLiteral("started")).toString(), 0, QStringLiteral("hand"));
    log.insert(QStringLiteral("timeSpentSeconds"), QStringLiteral("3600"));
    log.insert(QStringLiteral("id"), 10001);
    const QVariantMap result = JRCompare(draft, {log}, kMe, QStringLiteral("m"), {});
    EXPECT_EQ(result.value(QStringLiteral("existing")).toLongLong(), 3600);
    const QVariantList matches = JRManualMatches(draft, {log}, kMe);
    ASSERT_EQ(matches.size(), 1);
    EXPECT_EQ(matches.first().toMap().value(QStringLiteral("id")), QStringLiteral("10001"));
    EXPECT_EQ(matches.first().toMap().value(QStringLiteral("score")).toInt(), 2);

    // Without an author nothing is the user's, whatever the account id.
    log.remove(QStringLiteral("author"));
    EXPECT_EQ(
        JRCompare(draft, {log}, QString(), QStringLiteral("m"), {}).value(QStringLiteral("existing")).toLongLong(), 0);
    EXPECT_EQ(JRCompare(draft, {log}, QStringLiteral(""), QStringLiteral("m"), {})
                  .value(QStringLiteral("existing"))
                  .toLongLong(),
        0);
}

TEST_F(Malformed, DeeplyNestedCommentsAreBounded)
{
    // A document as deep as real ones are read in full; a hostile depth is cut off instead of exhausting the stack.
    const auto nested = [](int depth) {
        QVariant node = QVariantMap {{QStringLiteral("text"), QStringLiteral("deepest")}};
        for (int i = 0; i < depth; ++i)
            node = QVariantMap {{QStringLiteral("content"), QVariantList {node}}};
        return QVariantMap {{QStringLiteral("text"), QStringLiteral("top ")}, {QStringLiteral("content"), node}};
    };
    EXPECT_EQ(JRText(nested(50)), QStringLiteral("top deepest"));
    const QVariantMap hostile = nested(5000);
    EXPECT_EQ(JRText(hostile), QStringLiteral("top "));
    QVariantMap log = worklog(kMe, QStringLiteral("2026-03-02T09:00:00.000+0100"), 60);
    log.insert(QStringLiteral("comment"), hostile);
    EXPECT_TRUE(JRLogMarker(log).isNull());
    const QVariantMap draft
        = first(JRBuildDrafts({session(local(2026, 3, 2, 9, 0), 3600000)}, local(2026, 3, 2, 12, 0)));
    EXPECT_EQ(JRCompare(draft, {log}, kMe, QStringLiteral("m"), {}).value(QStringLiteral("status")),
        QStringLiteral("Existing time — review before including"));
}

TEST_F(Malformed, DamagedSessionsGiveDraftsThatAreNeverPosted)
{
    Garbage garbage(11);
    const QStringList keys {QStringLiteral("issue"), QStringLiteral("description"), QStringLiteral("end_ms"),
        QStringLiteral("local_id"), QStringLiteral("api_id"), QStringLiteral("project"),
        QStringLiteral("source_account"), QStringLiteral("comment"), QStringLiteral("comment_custom"),
        QStringLiteral("assignment"), QStringLiteral("aggregate_daily"), QStringLiteral("aggregate_description"),
        QStringLiteral("jira_exclusion"), QStringLiteral("jira_logged_seconds"), QStringLiteral("jira_receipt_state"),
        QStringLiteral("source_running"), QStringLiteral("issue_title")};
    const qint64 start = local(2026, 3, 2, 9, 0).toMSecsSinceEpoch();
    for (int run = 0; run < 2000; ++run) {
        JRSetIgnoreShortSessions(garbage.bounded(2) == 0);
        QVariantList sessions;
        for (int i = garbage.bounded(6); i >= 0; --i) {
            QVariantMap s = garbage.record(keys);
            s.insert(QStringLiteral("start_ms"), garbage.bounded(5) == 0 ? garbage.value() : QVariant(start + i));
            sessions << s;
        }
        const QVariantList drafts = JRBuildDrafts(sessions, local(2026, 3, 2, 12, 0));
        for (const QVariant &entry : drafts) {
            const QVariantMap draft = entry.toMap();
            ASSERT_EQ(draft.size(), 24);
            ASSERT_GE(draft.value(QStringLiteral("post_seconds")).toLongLong(), 0);
            ASSERT_LE(draft.value(QStringLiteral("logged_seconds")).toLongLong(),
                draft.value(QStringLiteral("seconds")).toLongLong());
            // A postable draft never invents its issue: it is the one the session carried.
            if (JRValid(draft)) {
                ASSERT_EQ(draft.value(QStringLiteral("issue")),
                    draft.value(QStringLiteral("session")).toMap().value(QStringLiteral("issue")));
            }
        }
        for (const QVariant &entry : JRWorklogsToPost(drafts)) {
            const QVariantMap draft = entry.toMap();
            JRPayload(draft, QStringLiteral("m"));
            JRComparisonFingerprint(draft);
            const QVariantMap coverage = JRCoverage(draft);
            qint64 sum = 0;
            for (const QVariant &share : coverage)
                sum += share.toLongLong();
            ASSERT_LE(sum, std::max<qint64>(JRPostSeconds(draft), 0));
        }
    }
}

} // namespace
