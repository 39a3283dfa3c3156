#include "app/ui/reviewrules.h"

#include "worklogs/engine.h"

#include <gtest/gtest.h>

using namespace review;

namespace
{

QVariantMap row(std::initializer_list<std::pair<QString, QVariant>> values)
{
    QVariantMap map {{QStringLiteral("source_key"), QStringLiteral("k1")}, {QStringLiteral("seconds"), 1800},
        {QStringLiteral("remaining_seconds"), 1800}, {QStringLiteral("post_seconds"), 1800},
        {QStringLiteral("status"), QStringLiteral("Ready")}, {QStringLiteral("issue"), QStringLiteral("ABC-1")},
        {QStringLiteral("started"), QStringLiteral("2026-03-02T09:00:00.000+0000")}};
    for (const auto &[key, value] : values)
        map.insert(key, value);
    return map;
}

const QVariantMap kReadyRow = row({{QStringLiteral("comparison_current"), true}, {QStringLiteral("eligible"), true}});

} // namespace

struct LookCase {
    const char *name;
    QVariantMap row;
    QString text;
    Symbol symbol;
};

class StatusLookTest : public ::testing::TestWithParam<LookCase>
{
};

TEST_P(StatusLookTest, ShowsTextAndSymbol)
{
    const StatusLook look = statusLook(GetParam().row);
    EXPECT_EQ(look.text, GetParam().text);
    EXPECT_EQ(look.symbol, GetParam().symbol);
}

INSTANTIATE_TEST_SUITE_P(Rows, StatusLookTest,
    ::testing::Values(LookCase {"ready", row({}), QStringLiteral("Ready"), Symbol::Ready},
        LookCase {"combinedReady",
            row({{QStringLiteral("combined_seconds"), 3600}, {QStringLiteral("activity"), QStringLiteral("Review")}}),
            QStringLiteral("Part of 1h worklog · Review"), Symbol::Combined},
        LookCase {"combinedOther",
            row({{QStringLiteral("combined_seconds"), 120},
                {QStringLiteral("status"), QStringLiteral("Not checked yet")}}),
            QStringLiteral("Part of 2m worklog · Not checked yet"), Symbol::Combined},
        LookCase {"fragment", row({{QStringLiteral("fragment"), true}}),
            QStringLiteral("Under a minute · posts only combined"), Symbol::Ready},
        LookCase {"review", row({{QStringLiteral("status"), QStringLiteral("Previously posted — review changes")}}),
            QStringLiteral("Previously posted — review changes"), Symbol::Attention},
        LookCase {"uncertain", row({{QStringLiteral("status"), QStringLiteral("Submission uncertain")}}),
            QStringLiteral("Submission uncertain"), Symbol::Attention},
        LookCase {"confirm",
            row({{QStringLiteral("status"), QStringLiteral("Possible manual worklog — confirm match or review")}}),
            QStringLiteral("Possible manual worklog — confirm match or review"), Symbol::Attention},
        LookCase {"complete", row({{QStringLiteral("status"), QStringLiteral("Complete")}}), QStringLiteral("Complete"),
            Symbol::Done},
        LookCase {"posted", row({{QStringLiteral("status"), QStringLiteral("Posted · 30m")}}),
            QStringLiteral("Posted · 30m"), Symbol::Done},
        LookCase {"manual", row({{QStringLiteral("status"), QStringLiteral("Manually logged · ABC-1 / worklog 7")}}),
            QStringLiteral("Manually logged · ABC-1 / worklog 7"), Symbol::Done},
        LookCase {"other", row({{QStringLiteral("status"), QStringLiteral("Not checked yet")}}),
            QStringLiteral("Not checked yet"), Symbol::Neutral}),
    [](const auto &param) { return std::string(param.param.name); });

struct TickCase {
    const char *name;
    QVariantMap row;
    bool busy;
    bool locked;
    bool withIntent;
    bool unavailable;
    bool selectable;
};

class TickTest : public ::testing::TestWithParam<TickCase>
{
};

TEST_P(TickTest, DecidesAvailabilityAndTicking)
{
    const TickCase &c = GetParam();
    const QHash<QString, bool> intent {{QStringLiteral("k1"), true}};
    EXPECT_EQ(unavailable(c.row), c.unavailable);
    EXPECT_EQ(canSelectDraft(c.row, c.busy, c.locked, c.withIntent ? &intent : nullptr), c.selectable);
}

INSTANTIATE_TEST_SUITE_P(Rows, TickTest,
    ::testing::Values(TickCase {"readyCurrent", kReadyRow, false, false, false, false, true},
        TickCase {"notYetChecked", row({}), false, false, false, false, false},
        TickCase {"intentBeforeCheck", row({}), true, false, true, false, true},
        TickCase {"busy", kReadyRow, true, false, false, false, false},
        TickCase {"locked", kReadyRow, false, true, false, false, false},
        TickCase {"history", row({{QStringLiteral("history_row"), true}}), false, false, true, false, false},
        TickCase {
            "currentNotEligible", row({{QStringLiteral("comparison_current"), true}}), false, false, true, true, false},
        TickCase {"running", row({{QStringLiteral("source_running"), true}}), false, false, true, true, false},
        TickCase {"nothingRemains", row({{QStringLiteral("remaining_seconds"), 0}}), false, false, true, true, false},
        TickCase {"excluded",
            row({{QStringLiteral("jira_exclusion"), QVariantMap {{QStringLiteral("kind"), QStringLiteral("ignore")}}}}),
            false, false, true, true, false}),
    [](const auto &param) { return std::string(param.param.name); });

TEST(ReviewRules, GroupIsUnavailableOnlyWhenAllChildrenAre)
{
    const QVariantMap running = row({{QStringLiteral("source_running"), true}});
    EXPECT_FALSE(groupUnavailable({}));
    EXPECT_TRUE(groupUnavailable({running, running}));
    EXPECT_FALSE(groupUnavailable({running, kReadyRow}));
}

TEST(ReviewRules, ToPostIsEditableOnlyForAWholeUnlockedIdleRow)
{
    EXPECT_TRUE(toPostEditable(row({}), false, false));
    EXPECT_FALSE(toPostEditable(row({{QStringLiteral("fragment"), true}}), false, false));
    EXPECT_FALSE(toPostEditable(row({}), true, false));
    EXPECT_FALSE(toPostEditable(row({}), false, true));
    EXPECT_FALSE(toPostEditable(row({{QStringLiteral("history_row"), true}}), false, false));
    EXPECT_FALSE(toPostEditable(
        row({{QStringLiteral("jira_exclusion"), QVariantMap {{QStringLiteral("kind"), QStringLiteral("manual")}}}}),
        false, false));
}

TEST(ReviewRules, ToPostAcceptsPositiveWholeMinutesUpToNotLogged)
{
    const struct {
        const char *text;
        qint64 remaining;
        qint64 seconds;
    } cases[] = {{"30m", 1800, 1800}, {"1h", 3600, 3600}, {"15", 1800, 900}, {"31m", 1800, -1}, {"0m", 1800, -1},
        {"abc", 1800, -1}, {"", 1800, -1}, {"1h 1m", 3600, -1}};
    for (const auto &c : cases)
        EXPECT_EQ(toPostSeconds(QString::fromUtf8(c.text), c.remaining), c.seconds) << c.text;
    EXPECT_EQ(toPostRefusal(), QStringLiteral("Enter a positive whole-minute amount no greater than Not logged."));
}

TEST(ReviewRules, DurationCellShowsUnderAMinute)
{
    EXPECT_EQ(durationCell(1), QStringLiteral("<1m"));
    EXPECT_EQ(durationCell(59), QStringLiteral("<1m"));
    EXPECT_EQ(durationCell(60), JRDurationText(60));
    EXPECT_EQ(durationCell(0), JRDurationText(0));
}

TEST(ReviewRules, DaySignatureChangesWithEveryFieldButNotOthers)
{
    const QVariantMap base {{QStringLiteral("start_ms"), 1000}, {QStringLiteral("end_ms"), 61000},
        {QStringLiteral("source_running"), false}, {QStringLiteral("description"), QStringLiteral("Fix")},
        {QStringLiteral("issue"), QStringLiteral("ABC-1")}, {QStringLiteral("project"), 3}};
    const QString signature = daySignature({base});
    EXPECT_EQ(signature, QStringLiteral("1000|61000|0|Fix|ABC-1\n"));
    for (const auto &[key, value] : std::initializer_list<std::pair<QString, QVariant>> {
             {QStringLiteral("start_ms"), 2000}, {QStringLiteral("end_ms"), 62000},
             {QStringLiteral("source_running"), true}, {QStringLiteral("description"), QStringLiteral("Fix it")},
             {QStringLiteral("issue"), QStringLiteral("ABC-2")}}) {
        QVariantMap changed = base;
        changed.insert(key, value);
        EXPECT_NE(daySignature({changed}), signature) << qPrintable(key);
    }
    QVariantMap other = base;
    other.insert(QStringLiteral("project"), 4);
    EXPECT_EQ(daySignature({other}), signature);
}

TEST(ReviewRules, LockedByReceiptsAssignmentAndLockedSet)
{
    const QString cloud = QStringLiteral("c1");
    const QVariantMap session {{QStringLiteral("start_ms"), 0}, {QStringLiteral("end_ms"), 1800 * 1000}};
    const QVariantMap draft = row({{QStringLiteral("session"), session}});
    auto receipt = [&](const char *state, qint64 seconds, const char *via) {
        QVariantMap r {{QStringLiteral("state"), QString::fromLatin1(state)}, {QStringLiteral("cloud"), cloud},
            {QStringLiteral("payload"), QVariantMap {{QStringLiteral("timeSpentSeconds"), seconds}}}};
        if (QLatin1String(via) == QLatin1String("direct"))
            r.insert(QStringLiteral("source_key"), QStringLiteral("k1"));
        else
            r.insert(QStringLiteral("coverage"), QVariantMap {{QStringLiteral("k1"), seconds}});
        return r;
    };
    const QSet<QString> none;
    auto lock = [&](const QVariantMap &receipts) {
        return lockedSession(draft, cloud, QStringLiteral("acct"), none, ReceiptIndex(receipts, cloud));
    };
    EXPECT_EQ(lock({}), Lock::None);
    EXPECT_EQ(lock({{QStringLiteral("m"), receipt("pending", 60, "direct")}}), Lock::Recorded);
    EXPECT_EQ(lock({{QStringLiteral("m"), receipt("pending", 60, "coverage")}}), Lock::Recorded);
    EXPECT_EQ(lock({{QStringLiteral("m"), receipt("posted", 1800, "coverage")}}), Lock::Recorded);
    EXPECT_EQ(lock({{QStringLiteral("m"), receipt("posted", 1799, "coverage")}}), Lock::None);
    const QString marker = JRMarker(draft, cloud, QStringLiteral("acct"));
    EXPECT_EQ(lock({{marker, receipt("posted", 600, "direct")}}), Lock::Recorded);

    QVariantMap elsewhere = receipt("pending", 60, "direct");
    elsewhere.insert(QStringLiteral("cloud"), QStringLiteral("c2"));
    EXPECT_EQ(lock({{QStringLiteral("m"), elsewhere}}), Lock::None);

    EXPECT_EQ(lockedSession(draft, cloud, QStringLiteral("acct"), {QStringLiteral("c1|k1")}, {}), Lock::Assignment);
    EXPECT_EQ(lockedSession(draft, cloud, QStringLiteral("acct"), {QStringLiteral("c2|k1")}, {}), Lock::None);
    QVariantMap frozen = draft;
    frozen.insert(QStringLiteral("session"), QVariantMap {{QStringLiteral("assignment_locked"), true}});
    EXPECT_EQ(lockedSession(frozen, cloud, QStringLiteral("acct"), none, {}), Lock::Assignment);
}

TEST(ReviewRules, SettlingAnIntentTicksWhatIsReadyAndCountsTheRest)
{
    QVariantList rows {kReadyRow, row({{QStringLiteral("source_key"), QStringLiteral("k2")}}),
        row({{QStringLiteral("source_key"), QStringLiteral("k3")}, {QStringLiteral("comparison_current"), true},
            {QStringLiteral("eligible"), true}, {QStringLiteral("include"), true}})};
    const QHash<QString, bool> intent {{QStringLiteral("k1"), true}, {QStringLiteral("k2"), true}};
    EXPECT_EQ(settleSelectionIntent(rows, &intent), 1);
    EXPECT_TRUE(rows[0].toMap().value(QStringLiteral("include")).toBool());
    EXPECT_FALSE(rows[1].toMap().value(QStringLiteral("include")).toBool());
    EXPECT_TRUE(rows[2].toMap().value(QStringLiteral("include")).toBool())
        << "a row the intent does not name keeps its tick";

    QVariantList ticked {row({{QStringLiteral("include"), true}}),
        row({{QStringLiteral("include"), true}, {QStringLiteral("comparison_current"), true},
            {QStringLiteral("eligible"), true}})};
    EXPECT_EQ(settleSelectionIntent(ticked, nullptr), 1);
    EXPECT_FALSE(ticked[0].toMap().value(QStringLiteral("include")).toBool());
    EXPECT_TRUE(ticked[1].toMap().value(QStringLiteral("include")).toBool());
    EXPECT_EQ(untickedMessage(1),
        QStringLiteral("1 ticked worklog cannot be posted and was unticked; Jira Status says why."));
    EXPECT_EQ(untickedMessage(2),
        QStringLiteral("2 ticked worklogs cannot be posted and were unticked; Jira Status says why."));
}

TEST(ReviewRules, FooterSumsRowsOrCountsHistory)
{
    EXPECT_EQ(footerText({}, false, 0), QStringLiteral("Tracked 0m · Logged 0m · Not logged 0m"));
    const QVariantList rows {
        row({{QStringLiteral("logged_seconds"), 600}, {QStringLiteral("remaining_seconds"), 1200}}),
        row({{QStringLiteral("seconds"), 3600}, {QStringLiteral("logged_seconds"), 0}})};
    EXPECT_EQ(footerText(rows, false, 0), QStringLiteral("Tracked 1h 30m · Logged 10m · Not logged 50m"));
    EXPECT_EQ(footerText(rows, true, 0), QStringLiteral("2 sessions · Tracked 1h 30m"));
    EXPECT_EQ(footerText(rows.mid(0, 1), true, 3), QStringLiteral("1 session · Tracked 30m · 3 under a minute hidden"));
}

TEST(ReviewRules, PostButtonCountsWorklogsNotTickedRows)
{
    JRSetCombineDailyByIssue(false);
    EXPECT_EQ(postButton({}, false).title, QStringLiteral("Select Worklogs to Post"));
    EXPECT_EQ(postButton({}, false).toolTip, QStringLiteral("Select at least one ready worklog"));
    EXPECT_FALSE(postButton({}, false).enabled);

    QVariantMap ticked = kReadyRow;
    ticked.insert(QStringLiteral("include"), true);
    QVariantMap second = ticked;
    second.insert(QStringLiteral("source_key"), QStringLiteral("k2"));
    second.insert(QStringLiteral("post_seconds"), 600);
    QVariantMap unchecked = ticked;
    unchecked.insert(QStringLiteral("comparison_current"), false);

    const PostButton one = postButton({ticked, unchecked}, false);
    EXPECT_EQ(one.title, QStringLiteral("Post 1 Worklog · 30m…"));
    EXPECT_EQ(one.toolTip, QStringLiteral("Post 30m to Jira"));
    EXPECT_TRUE(one.enabled);
    EXPECT_EQ(postButton({ticked, second}, false).title, QStringLiteral("Post 2 Worklogs · 40m…"));
    EXPECT_FALSE(postButton({ticked, second}, true).enabled);

    // Three sessions combined into one daily worklog count as one.
    JRSetCombineDailyByIssue(true);
    const QDateTime day(QDate(2026, 3, 2), QTime(9, 0));
    QVariantList sessions;
    for (int i = 0; i < 3; ++i) {
        const qint64 start = day.addSecs(i * 3600).toMSecsSinceEpoch();
        sessions.append(QVariantMap {{QStringLiteral("issue"), QStringLiteral("ABC-1")},
            {QStringLiteral("description"), QStringLiteral("Review")}, {QStringLiteral("start_ms"), start},
            {QStringLiteral("end_ms"), start + 1200 * 1000}, {QStringLiteral("local_id"), i + 1},
            {QStringLiteral("project"), 1}});
    }
    QVariantList drafts = JRBuildDrafts(sessions, day);
    ASSERT_EQ(drafts.size(), 3);
    for (QVariant &item : drafts) {
        QVariantMap draft = item.toMap();
        draft.insert(QStringLiteral("include"), true);
        draft.insert(QStringLiteral("eligible"), true);
        draft.insert(QStringLiteral("comparison_current"), true);
        item = draft;
    }
    EXPECT_EQ(postButton(drafts, false).title, QStringLiteral("Post 1 Worklog · 1h…"));
    JRSetCombineDailyByIssue(false);
}

TEST(ReviewRules, PostsOnACheckOfExactly300SecondsAndRechecksAfter)
{
    QVariantMap ticked = kReadyRow;
    ticked.insert(QStringLiteral("include"), true);
    const QDateTime at = QDateTime::fromSecsSinceEpoch(1'770'000'000);
    EXPECT_EQ(postStep(at, at.addSecs(300), {ticked}), PostStep::Confirm);
    EXPECT_EQ(postStep(at, at.addSecs(301), {ticked}), PostStep::Recheck);
    EXPECT_EQ(postStep(QDateTime(), at, {ticked}), PostStep::Recheck);
    EXPECT_EQ(postStep(at, at, {kReadyRow}), PostStep::NothingEligible);
    QVariantMap shortRow = row({{QStringLiteral("include"), true}, {QStringLiteral("seconds"), 40}});
    EXPECT_EQ(postStep(at, at, {shortRow}), PostStep::OnlyFragments);
    EXPECT_EQ(postStepText(PostStep::Recheck),
        QStringLiteral("Checking Jira again first: the last check is over five minutes old. Post when it finishes."));
}

TEST(ReviewRules, ConfirmationNamesSiteTotalCombiningAndEstimate)
{
    QVariantMap single = kReadyRow;
    QVariantMap combined = kReadyRow;
    combined.insert(QStringLiteral("combined_count"), 3);
    combined.insert(QStringLiteral("post_seconds"), 3600);
    const Confirmation one = confirmation({single}, QStringLiteral("https://example.atlassian.net"), false);
    EXPECT_EQ(one.title, QStringLiteral("Post 1 worklog to Jira?"));
    EXPECT_EQ(one.text,
        QStringLiteral(
            "Site: https://example.atlassian.net\nTotal: 30m.\nThis writes the checked preview entries under "
            "your Jira account. Remaining estimates stay unchanged."));
    const Confirmation two = confirmation({single, combined}, QStringLiteral("s"), true);
    EXPECT_EQ(two.title, QStringLiteral("Post 2 worklogs to Jira?"));
    EXPECT_TRUE(two.text.startsWith(QStringLiteral("Site: s\nTotal: 1h 30m.\n4 sessions combine into 2 worklogs.\n")));
    EXPECT_TRUE(two.text.endsWith(QStringLiteral("which cannot be undone from here.")));
    EXPECT_EQ(postedText(1, {}), QStringLiteral("Posted 1 worklog."));
    EXPECT_EQ(postedText(2, QStringLiteral("Jira request failed.")),
        QStringLiteral("Posted 2 worklogs. Jira request failed."));
}

TEST(ReviewRules, ProgressCountsIssuesOrWorklogs)
{
    EXPECT_EQ(progressCount(0, 3, false), QStringLiteral("0 of 3 issues"));
    EXPECT_EQ(progressCount(0, 1, false), QStringLiteral("0 of 1 issue"));
    EXPECT_EQ(progressCount(2, 5, true), QStringLiteral("2 of 5 worklogs"));
    const QDateTime at = QDateTime::fromSecsSinceEpoch(1'770'000'000);
    EXPECT_TRUE(checkedText(at, at.addSecs(5)).startsWith(QStringLiteral("Checked just now · ")));
}
