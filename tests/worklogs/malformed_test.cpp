// Records from Jira and from local files may hold anything. The engine answers with neutral values and never
// crashes; these tests feed it generated garbage under every key it reads.

#include "worklogs/compare.h"
#include "worklogs/drafts.h"
#include "worklogs/durations.h"
#include "worklogs/manualmatches.h"
#include "worklogs/marker.h"
#include "worklogs/preferences.h"
#include "worklogs/text.h"
#include "worklogs/topost.h"

#include "worklogbuilders.h"

#include <QRandomGenerator>
#include <QSet>

using namespace wl;

namespace
{

const QString kMe = S("me");

class Garbage
{
public:
    explicit Garbage(quint32 seed)
        : m_random(seed)
    {
    }
    int bounded(int n) { return m_random.bounded(n); }

    QVariant value(int depth = 0)
    {
        // Wrong types, numbers as texts, huge and fractional numbers, stray tags and nested structures.
        const QVariantList flat {QVariant(), QString(), S("3600"), qint64(-100000), 1e300, -0.5, true,
            S("2026-03-02T09:00:00.000+0530"), S("x\n[Hourloom:m]"), QByteArray("bytes"), QStringList {S("a")}};
        const int pick = m_random.bounded(int(flat.size()) + (depth > 3 ? 0 : 2));
        if (pick < flat.size())
            return flat[pick];
        if (pick == flat.size())
            return QVariantList {value(depth + 1), value(depth + 1)};
        return rec({{"text", value(depth + 1)}, {"content", value(depth + 1)}, {"key", S("hourloom")},
            {"value", value(depth + 1)}, {"marker", value(depth + 1)}});
    }
    // Each key missing, well-formed or garbage.
    QVariantMap record(std::initializer_list<std::pair<const char *, QVariant>> wellFormed)
    {
        QVariantMap map;
        for (const auto &[key, good] : wellFormed) {
            const int choice = m_random.bounded(3);
            if (choice > 0)
                map.insert(S(key), choice == 1 ? good : value());
        }
        return map;
    }
    QVariantMap worklog()
    {
        const QVariantMap property = rec(
            {{"key", S("hourloom")}, {"value", record({{"marker", S("m")}, {"sources", rec({{"a", 1}, {"b", 2}})}})}});
        return record({{"id", S("10001")}, {"author", record({{"accountId", kMe}})},
            {"started", S("2026-03-02T09:00:00.000+0100")}, {"timeSpentSeconds", qint64(3600)},
            {"comment", document(S("Work"))}, {"properties", QVariantList {property}}});
    }

private:
    QRandomGenerator m_random;
};

const QSet<QString> kStatuses {S("Ignored for Jira"), S("Assign issue / at least 1m, at most 24h"),
    S("Assign issue / rounds to 0m or over 24h"), S("Already posted"), S("Posted entry differs"),
    S("Posted in a combined worklog"), S("Previously posted — review changes"),
    S("Uncertain submission — review in Jira"), S("Existing time — review before including"), S("Ready")};

class Malformed : public EngineTest
{
protected:
    QVariantMap m_draft = at(JRBuildDrafts({session(local(2026, 3, 2, 9, 0), 3600000)}, local(2026, 3, 2, 12, 0)), 0);
};

TEST_F(Malformed, JiraWorklogsGiveNeutralAnswers)
{
    Garbage garbage(7);
    for (int run = 0; run < 3000; ++run) {
        QVariantList logs;
        for (int i = garbage.bounded(5); i >= 0; --i)
            logs << (garbage.bounded(6) == 0 ? garbage.value() : QVariant(garbage.worklog()));
        const QVariantMap receipt = garbage.bounded(4) == 0 ? garbage.record({{"state", S("posted")}}) : QVariantMap();
        const QVariantMap result = JRCompare(m_draft, logs, kMe, S("m"), receipt);
        ASSERT_EQ(result.size(), 3);
        ASSERT_TRUE(kStatuses.contains(str(result, "status"))) << str(result, "status").toStdString();
        ASSERT_GE(num(result, "existing"), 0);
        ASSERT_TRUE(receipt.isEmpty() || !get(result, "eligible").toBool());
        for (const QVariant &match : JRManualMatches(m_draft, logs, kMe)) {
            ASSERT_EQ(match.toMap().size(), 6);
            ASSERT_FALSE(str(match.toMap(), "id").isEmpty());
        }
        for (const QVariant &log : logs) {
            const QString marker = JRLogMarker(log.toMap());
            ASSERT_TRUE(marker.isNull() || !marker.isEmpty());
            JRLogSources(log.toMap());
        }
    }
}

TEST_F(Malformed, NumbersAsTextsCountAsNumbersAndNoAuthorIsNobody)
{
    const QVariantMap log
        = with(worklog(kMe, str(m_draft, "started"), 0, S("hand")), {{"timeSpentSeconds", S("3600")}, {"id", 10001}});
    EXPECT_EQ(num(JRCompare(m_draft, {log}, kMe, S("m"), {}), "existing"), 3600);
    const QVariantMap match = at(JRManualMatches(m_draft, {log}, kMe), 0);
    EXPECT_EQ(get(match, "id"), S("10001"));
    EXPECT_EQ(num(match, "score"), 2);
    for (const QString &account : {QString(), S("")})
        EXPECT_EQ(num(JRCompare(m_draft, {with(log, {{"author", {}}})}, account, S("m"), {}), "existing"), 0);
}

TEST_F(Malformed, DeeplyNestedCommentsAreBounded)
{
    const auto nested = [](int depth) {
        QVariant node = rec({{"text", S("deepest")}});
        for (int i = 0; i < depth; ++i)
            node = rec({{"content", QVariantList {node}}});
        return rec({{"text", S("top ")}, {"content", node}});
    };
    // As deep as real documents get, everything is read; a hostile depth is cut off instead of exhausting the stack.
    EXPECT_EQ(JRText(nested(50)), S("top deepest"));
    const QVariantMap log = with(worklog(kMe, S("2026-03-02T09:00:00.000+0100"), 60), {{"comment", nested(5000)}});
    EXPECT_EQ(JRText(get(log, "comment")), S("top "));
    EXPECT_EQ(str(JRCompare(m_draft, {log}, kMe, S("m"), {}), "status"), S("Existing time — review before including"));
}

TEST_F(Malformed, DamagedSessionsGiveDraftsThatAreNeverPostedWrongly)
{
    Garbage garbage(11);
    const qint64 start = local(2026, 3, 2, 9, 0).toMSecsSinceEpoch();
    for (int run = 0; run < 2000; ++run) {
        JRSetIgnoreShortSessions(garbage.bounded(2) == 0);
        QVariantList sessions;
        for (int i = garbage.bounded(6); i >= 0; --i) {
            sessions << garbage.record({{"start_ms", start + i}, {"end_ms", start + 600000}, {"issue", S("ABC-1")},
                {"description", S("d")}, {"local_id", i}, {"api_id", 0}, {"project", 7}, {"source_account", S("a")},
                {"comment", S("c")}, {"comment_custom", true}, {"assignment", S("Description rule")},
                {"aggregate_daily", true}, {"aggregate_description", S("d")},
                {"jira_exclusion", rec({{"kind", S("ignore")}})}, {"jira_logged_seconds", 60},
                {"jira_receipt_state", S("pending")}, {"source_running", true}, {"issue_title", S("t")}});
        }
        const QVariantList drafts = JRBuildDrafts(sessions, local(2026, 3, 2, 12, 0));
        for (const QVariant &entry : drafts) {
            const QVariantMap draft = entry.toMap();
            ASSERT_EQ(draft.size(), 24);
            ASSERT_TRUE(num(draft, "post_seconds") >= 0 && num(draft, "logged_seconds") <= num(draft, "seconds"));
            // A postable draft never invents its issue: it is the one its session carried.
            ASSERT_TRUE(!JRValid(draft) || get(draft, "issue") == get(get(draft, "session").toMap(), "issue"));
        }
        for (const QVariant &entry : JRWorklogsToPost(drafts)) {
            const QVariantMap draft = entry.toMap();
            qint64 sum = 0;
            for (const QVariant &share : JRCoverage(draft))
                sum += share.toLongLong();
            ASSERT_LE(sum, std::max<qint64>(JRPostSeconds(draft), 0));
            JRPayload(draft, S("m"));
            JRComparisonFingerprint(draft);
        }
    }
}

} // namespace
