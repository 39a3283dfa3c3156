#include "worklogs/drafts.h"

#include "support/testenv.h"
#include "worklogbuilders.h"
#include "worklogs/preferences.h"

using namespace wl;

namespace
{

const QString kIssue = QStringLiteral("ABC-1");

QVariantMap with(QVariantMap map, const QString &key, const QVariant &value)
{
    map.insert(key, value);
    return map;
}

QVariantMap manualExclusion(const QVariant &seconds = QVariant())
{
    QVariantMap exclusion {{QStringLiteral("kind"), QStringLiteral("manual")}, {QStringLiteral("issue"), kIssue},
        {QStringLiteral("worklog_id"), QStringLiteral("10001")}};
    if (seconds.isValid())
        exclusion.insert(QStringLiteral("seconds"), seconds);
    return exclusion;
}

const QVariantMap kIgnored {{QStringLiteral("kind"), QStringLiteral("ignore")}};

class Drafts : public EngineTest
{
protected:
    QDateTime m_day = local(2026, 3, 2, 12, 0);
    QDateTime at(int hour, int minute, int second = 0) const { return local(2026, 3, 2, hour, minute, second); }
    QVariantMap only(const QVariantList &sessions) const
    {
        const QVariantList drafts = JRBuildDrafts(sessions, m_day);
        EXPECT_EQ(drafts.size(), 1);
        return first(drafts);
    }
};

TEST_F(Drafts, BuildsEveryKeyFromOneSession)
{
    const QVariantMap s = session(at(9, 0), 3600000);
    const QVariantMap d = only({s});
    EXPECT_EQ(d.size(), 24);
    EXPECT_EQ(d.value(QStringLiteral("source_key")), JRSourceKey(s));
    EXPECT_EQ(d.value(QStringLiteral("marker_seed")).toString(), JRSourceKey(s) + QStringLiteral("|0|ABC-1"));
    EXPECT_EQ(d.value(QStringLiteral("issue")), kIssue);
    EXPECT_EQ(d.value(QStringLiteral("seconds")).toLongLong(), 3600);
    EXPECT_EQ(d.value(QStringLiteral("source_milliseconds")).toLongLong(), 3600000);
    EXPECT_EQ(d.value(QStringLiteral("post_seconds")).toLongLong(), 3600);
    EXPECT_EQ(JRDate(d.value(QStringLiteral("started"))), at(9, 0));
    EXPECT_EQ(d.value(QStringLiteral("comment")), QStringLiteral("Work"));
    EXPECT_EQ(d.value(QStringLiteral("session")).toMap(), s);
    EXPECT_EQ(d.value(QStringLiteral("status")), QStringLiteral("Not checked yet"));
    EXPECT_TRUE(JRValid(d));
}

TEST_F(Drafts, KeepsOnlySessionsOfTheLocalDayInStartOrder)
{
    const QVariantList drafts
        = JRBuildDrafts({session(at(23, 59, 30), 600000, kIssue, QStringLiteral("late"), 1),
                            session(local(2026, 3, 3, 0, 0), 600000, kIssue, QStringLiteral("next"), 2),
                            session(local(2026, 3, 1, 23, 59, 59), 600000, kIssue, QStringLiteral("prev"), 3),
                            session(at(0, 0), 600000, kIssue, QStringLiteral("early"), 4)},
            m_day);
    ASSERT_EQ(drafts.size(), 2);
    EXPECT_EQ(drafts[0].toMap().value(QStringLiteral("comment")), QStringLiteral("early"));
    EXPECT_EQ(drafts[1].toMap().value(QStringLiteral("comment")), QStringLiteral("late"));
}

TEST_F(Drafts, RoundsToMinutesAndSkipsShortSessionsUnlessTheyAreFragments)
{
    EXPECT_EQ(only({session(at(9, 0), 89000)}).value(QStringLiteral("seconds")).toLongLong(), 60);
    EXPECT_EQ(only({session(at(9, 0), 90000)}).value(QStringLiteral("seconds")).toLongLong(), 120);
    EXPECT_TRUE(JRBuildDrafts({session(at(9, 0), 59999)}, m_day).isEmpty());

    const QVariantList pair = JRBuildDrafts({session(at(9, 0), 59999, kIssue, QStringLiteral("a"), 1),
                                                session(at(10, 0), 600000, kIssue, QStringLiteral("b"), 2)},
        m_day);
    ASSERT_EQ(pair.size(), 2);
    const QVariantMap fragment = pair[0].toMap();
    EXPECT_TRUE(fragment.value(QStringLiteral("fragment")).toBool());
    EXPECT_EQ(fragment.value(QStringLiteral("seconds")).toLongLong(), 59);
    EXPECT_TRUE(JRValid(fragment));
    EXPECT_FALSE(pair[1].toMap().value(QStringLiteral("fragment")).toBool());

    // With combining off and no daily rule there is no group, so no fragment.
    JRSetCombineDailyByIssue(false);
    EXPECT_EQ(JRBuildDrafts({session(at(9, 0), 59999, kIssue, QStringLiteral("a"), 1),
                                session(at(10, 0), 600000, kIssue, QStringLiteral("b"), 2)},
                  m_day)
                  .size(),
        1);
}

TEST_F(Drafts, ShortSessionsGetDraftsWhenNotIgnored)
{
    JRSetIgnoreShortSessions(false);
    const QVariantList drafts
        = JRBuildDrafts({session(at(9, 0), 0, kIssue, QStringLiteral("zero"), 1),
                            session(at(9, 1), -5000, kIssue, QStringLiteral("open"), 2),
                            session(at(9, 2), 20000, QStringLiteral("DEF-1"), QStringLiteral("s"), 3),
                            session(at(9, 3), 30000, QStringLiteral("GHI-1"), QStringLiteral("t"), 4)},
            m_day);
    ASSERT_EQ(drafts.size(), 4);
    EXPECT_EQ(drafts[0].toMap().value(QStringLiteral("seconds")).toLongLong(), 0);
    EXPECT_EQ(drafts[1].toMap().value(QStringLiteral("source_milliseconds")).toLongLong(), 0);
    EXPECT_FALSE(JRValid(drafts[2].toMap())); // 20 s rounds to 0m
    EXPECT_EQ(drafts[3].toMap().value(QStringLiteral("seconds")).toLongLong(), 60);
    EXPECT_TRUE(JRValid(drafts[3].toMap()));
}

TEST_F(Drafts, TimeAlreadyInJiraIsNotPostedAgain)
{
    const QVariantMap s = with(session(at(9, 0), 3600000), QStringLiteral("jira_logged_seconds"), 1800);
    QVariantMap d = only({s});
    EXPECT_EQ(d.value(QStringLiteral("logged_seconds")).toLongLong(), 1800);
    EXPECT_EQ(d.value(QStringLiteral("remaining_seconds")).toLongLong(), 1800);
    EXPECT_EQ(d.value(QStringLiteral("post_seconds")).toLongLong(), 1800);
    EXPECT_EQ(d.value(QStringLiteral("marker_seed")).toString().section(u'|', 1, 1), QStringLiteral("1800"));
    EXPECT_EQ(only({with(s, QStringLiteral("source_running"), true)}).value(QStringLiteral("status")),
        QStringLiteral("Tracking / not finalized"));

    // More logged than tracked is capped; a damaged negative value does not inflate what is posted.
    d = only({with(s, QStringLiteral("jira_logged_seconds"), 99999)});
    EXPECT_EQ(d.value(QStringLiteral("logged_seconds")).toLongLong(), 3600);
    EXPECT_EQ(d.value(QStringLiteral("status")), QStringLiteral("Complete"));
    d = only({with(s, QStringLiteral("jira_logged_seconds"), -600)});
    EXPECT_EQ(d.value(QStringLiteral("post_seconds")).toLongLong(), 3600);
}

TEST_F(Drafts, ManualCoverSilencesOnlyWhatItCovers)
{
    const QVariantMap s = session(at(9, 0), 3600000);
    QVariantMap d = only({with(s, QStringLiteral("jira_exclusion"), manualExclusion())});
    EXPECT_EQ(d.value(QStringLiteral("remaining_seconds")).toLongLong(), 0);
    EXPECT_EQ(d.value(QStringLiteral("status")), QStringLiteral("Complete"));
    EXPECT_EQ(d.value(QStringLiteral("jira_exclusion")).toMap(), manualExclusion());

    d = only({with(s, QStringLiteral("jira_exclusion"), manualExclusion(600))});
    EXPECT_EQ(d.value(QStringLiteral("remaining_seconds")).toLongLong(), 3000);
    EXPECT_TRUE(d.value(QStringLiteral("jira_exclusion")).toMap().isEmpty());
    EXPECT_EQ(d.value(QStringLiteral("manual_worklog_id")), QStringLiteral("10001"));
    EXPECT_EQ(d.value(QStringLiteral("status")), QStringLiteral("Not checked yet"));
}

TEST_F(Drafts, IgnoredSessionPostsNothingAndLeavesItsGroup)
{
    const QVariantList drafts = JRBuildDrafts(
        {with(session(at(9, 0), 3600000, kIssue, QStringLiteral("a"), 1), QStringLiteral("jira_exclusion"), kIgnored),
            session(at(10, 0), 30000, kIssue, QStringLiteral("b"), 2)},
        m_day);
    // The 30 s piece has no other postable session in its group, so it is dropped, not a fragment.
    ASSERT_EQ(drafts.size(), 1);
    const QVariantMap d = first(drafts);
    EXPECT_EQ(d.value(QStringLiteral("remaining_seconds")).toLongLong(), 0);
    EXPECT_EQ(d.value(QStringLiteral("status")), QStringLiteral("Ignored for Jira"));
    EXPECT_EQ(d.value(QStringLiteral("jira_exclusion")).toMap(), kIgnored);
}

TEST_F(Drafts, UncertainReceiptWinsOverEveryOtherStatus)
{
    QVariantMap s = with(session(at(9, 0), 3600000), QStringLiteral("jira_exclusion"), kIgnored);
    s.insert(QStringLiteral("jira_receipt_state"), QStringLiteral("pending"));
    EXPECT_EQ(only({s}).value(QStringLiteral("status")), QStringLiteral("Submission uncertain"));
}

TEST_F(Drafts, CommentFollowsTheUserThenTheDescription)
{
    const QVariantMap s = session(at(9, 0), 3600000);
    EXPECT_EQ(only({with(s, QStringLiteral("comment"), QStringLiteral(""))}).value(QStringLiteral("comment")),
        QStringLiteral(""));
    // Without an own comment, a known issue title replaces the description.
    const QVariantMap titled = with(s, QStringLiteral("issue_title"), QStringLiteral("Login fails"));
    EXPECT_EQ(only({titled}).value(QStringLiteral("comment")), QStringLiteral(""));
    QVariantMap custom = with(titled, QStringLiteral("comment"), QStringLiteral("mine"));
    custom.insert(QStringLiteral("comment_custom"), true);
    EXPECT_EQ(only({custom}).value(QStringLiteral("comment")), QStringLiteral("mine"));
    QVariantMap rule = with(titled, QStringLiteral("assignment"), QStringLiteral("Description rule"));
    const QVariantMap d = only({rule});
    EXPECT_EQ(d.value(QStringLiteral("activity")), QStringLiteral("Work"));
    EXPECT_EQ(d.value(QStringLiteral("comment")), QStringLiteral("Work"));
}

TEST_F(Drafts, UnassignedSessionGivesAnInvalidDraft)
{
    const QVariantMap d = only({session(at(9, 0), 3600000, QStringLiteral("Unassigned"))});
    EXPECT_EQ(d.value(QStringLiteral("issue")), QStringLiteral(""));
    EXPECT_FALSE(JRValid(d));
    EXPECT_TRUE(JRCombineKey(d).isNull());
}

TEST_F(Drafts, SourceKeyIdentifiesTheSessionNotItsContent)
{
    const QVariantMap s = session(at(9, 0), 3600000);
    QVariantMap changed = with(s, QStringLiteral("end_ms"), s.value(QStringLiteral("end_ms")).toLongLong() + 5000);
    changed.insert(QStringLiteral("issue"), QStringLiteral("XYZ-2"));
    changed.insert(QStringLiteral("description"), QStringLiteral("else"));
    EXPECT_EQ(JRSourceKey(changed), JRSourceKey(s));
    EXPECT_EQ(JRSourceKey(s),
        JRHash(QStringLiteral("user_activity|7|local:1|") + QString::number(at(9, 0).toMSecsSinceEpoch())));
    // The server id wins once the session has one; the local id then no longer matters.
    const QVariantMap synced = with(s, QStringLiteral("api_id"), 555);
    EXPECT_EQ(JRSourceKey(synced),
        JRHash(QStringLiteral("user_activity|7|api:555|") + QString::number(at(9, 0).toMSecsSinceEpoch())));
    EXPECT_EQ(JRSourceKey(with(synced, QStringLiteral("local_id"), 99)), JRSourceKey(synced));
}

TEST_F(Drafts, CombineKeysFollowTheDailyPreferenceAndRules)
{
    const auto ruled = [&](int localId, const QString &description, bool daily) {
        QVariantMap s = session(at(9 + localId, 0), 600000, kIssue, description, localId);
        s.insert(QStringLiteral("assignment"), QStringLiteral("Description rule"));
        s.insert(QStringLiteral("aggregate_description"), description.toLower());
        s.insert(QStringLiteral("aggregate_daily"), daily);
        return s;
    };
    const QVariantList sessions {ruled(1, QStringLiteral("Review"), false), ruled(2, QStringLiteral("Review"), false),
        ruled(3, QStringLiteral("Deploy"), true), session(at(13, 0), 600000, kIssue, QStringLiteral("x"), 4)};
    QVariantList drafts = JRBuildDrafts(sessions, m_day);
    ASSERT_EQ(drafts.size(), 4);
    const QString dayStart = QString::number(local(2026, 3, 2, 0, 0).toSecsSinceEpoch());
    EXPECT_EQ(JRCombineKey(drafts[0].toMap()), QStringLiteral("ABC-1|review|") + dayStart);
    EXPECT_EQ(JRCombineKey(drafts[1].toMap()), JRCombineKey(drafts[0].toMap()));
    EXPECT_EQ(JRCombineKey(drafts[2].toMap()), QStringLiteral("ABC-1|deploy|") + dayStart);
    EXPECT_EQ(JRCombineKey(drafts[3].toMap()), QStringLiteral("ABC-1|") + dayStart);

    JRSetCombineDailyByIssue(false);
    drafts = JRBuildDrafts(sessions, m_day);
    EXPECT_TRUE(JRCombineKey(drafts[0].toMap()).isNull());
    EXPECT_EQ(JRCombineKey(drafts[2].toMap()), QStringLiteral("ABC-1|deploy|") + dayStart);
    EXPECT_TRUE(JRCombineKey(drafts[3].toMap()).isNull());

    EXPECT_TRUE(JRCombineKey(with(drafts[2].toMap(), QStringLiteral("source_running"), true)).isNull());
    EXPECT_TRUE(JRCombineKey(with(drafts[2].toMap(), QStringLiteral("jira_exclusion"), kIgnored)).isNull());
}

TEST_F(Drafts, DaylightSavingNightsStayOnTheirDay)
{
    testenv::ScopedTimeZone zone("Europe/Berlin");
    for (const QDate day : {QDate(2026, 3, 29), QDate(2026, 10, 25)}) {
        const QDateTime dayNoon(day, QTime(12, 0));
        const QVariantList drafts = JRBuildDrafts(
            {session(QDateTime(day, QTime(0, 30)), 3 * 3600000, kIssue, QStringLiteral("a"), 1),
                session(QDateTime(day, QTime(23, 30)), 1800000, kIssue, QStringLiteral("b"), 2),
                session(QDateTime(day.addDays(-1), QTime(23, 59)), 600000, kIssue, QStringLiteral("c"), 3)},
            dayNoon);
        ASSERT_EQ(drafts.size(), 2) << day.toString(Qt::ISODate).toStdString();
        const QString offset = day.month() == 3 ? QStringLiteral("+0100") : QStringLiteral("+0200");
        EXPECT_EQ(drafts[0].toMap().value(QStringLiteral("started")).toString(),
            day.toString(Qt::ISODate) + QStringLiteral("T00:30:00.000") + offset);
        // Both share the combine key of that day, whatever offset each started in.
        EXPECT_EQ(JRCombineKey(drafts[0].toMap()), JRCombineKey(drafts[1].toMap()));
        EXPECT_EQ(JRCombineKey(drafts[0].toMap()).section(u'|', -1).toLongLong(),
            QDateTime(day, QTime(0, 0)).toSecsSinceEpoch());
    }
}

TEST_F(Drafts, HalfHourZoneDecidesTheDayLocally)
{
    testenv::ScopedTimeZone zone("Asia/Kolkata");
    // 00:10 in Kolkata is still the previous day in UTC.
    const QDateTime start = QDateTime(QDate(2026, 3, 1), QTime(18, 40), Qt::UTC);
    const QVariantList drafts = JRBuildDrafts({session(start, 600000)}, QDateTime(QDate(2026, 3, 2), QTime(12, 0)));
    ASSERT_EQ(drafts.size(), 1);
    EXPECT_EQ(first(drafts).value(QStringLiteral("started")), QStringLiteral("2026-03-02T00:10:00.000+0530"));
    EXPECT_TRUE(JRBuildDrafts({session(start, 600000)}, QDateTime(QDate(2026, 3, 1), QTime(12, 0))).isEmpty());
}

TEST(ExclusionStatus, NamesTheManualWorklog)
{
    EXPECT_EQ(JRExclusionStatus({}), QStringLiteral(""));
    EXPECT_EQ(JRExclusionStatus(manualExclusion()), QStringLiteral("Manually logged · ABC-1 / worklog 10001"));
    EXPECT_EQ(JRExclusionStatus(kIgnored), QStringLiteral("Ignored for Jira"));
    EXPECT_EQ(JRExclusionStatus({{QStringLiteral("kind"), QStringLiteral("odd")}}), QStringLiteral("Ignored for Jira"));
}

struct ValidCase {
    const char *name;
    QVariantMap changes;
    bool ignoreShort;
    bool valid;
};
void PrintTo(const ValidCase &c, std::ostream *os)
{
    *os << c.name;
}

class Validity : public EngineTest, public ::testing::WithParamInterface<ValidCase>
{
};

TEST_P(Validity, NeedsKeySecondsWithinADayAndADate)
{
    JRSetIgnoreShortSessions(GetParam().ignoreShort);
    QVariantMap draft {{QStringLiteral("issue"), kIssue}, {QStringLiteral("post_seconds"), 600},
        {QStringLiteral("seconds"), 600}, {QStringLiteral("started"), QStringLiteral("2026-03-02T09:00:00.000+0100")}};
    for (auto it = GetParam().changes.constBegin(); it != GetParam().changes.constEnd(); ++it) {
        if (it.value().isValid())
            draft.insert(it.key(), it.value());
        else
            draft.remove(it.key());
    }
    EXPECT_EQ(JRValid(draft), GetParam().valid);
}

const QString kPost = QStringLiteral("post_seconds");
INSTANTIATE_TEST_SUITE_P(Table, Validity,
    ::testing::Values(ValidCase {"plain", {}, true, true}, ValidCase {"full day", {{kPost, 86400}}, true, true},
        ValidCase {"over a day", {{kPost, 86401}}, true, false}, ValidCase {"negative", {{kPost, -60}}, true, false},
        ValidCase {"fraction", {{kPost, 600.5}}, true, false},
        ValidCase {"digit text", {{kPost, QStringLiteral("600")}}, true, true},
        ValidCase {"signed text", {{kPost, QStringLiteral("+600")}}, true, false},
        ValidCase {"huge digits", {{kPost, QStringLiteral("99999999999999999999999")}}, true, false},
        ValidCase {"seconds when no post", {{kPost, QVariant()}, {QStringLiteral("seconds"), 120}}, true, true},
        ValidCase {"under a minute", {{kPost, 59}}, true, false},
        ValidCase {"under a minute allowed", {{kPost, 59}}, false, true},
        ValidCase {"zero", {{kPost, 0}}, false, false},
        ValidCase {"fragment", {{kPost, 1}, {QStringLiteral("fragment"), true}}, true, true},
        ValidCase {"lower-case key", {{QStringLiteral("issue"), QStringLiteral("abc-1")}}, true, false},
        ValidCase {"key with line end", {{QStringLiteral("issue"), QStringLiteral("ABC-1\n")}}, true, false},
        ValidCase {"no issue", {{QStringLiteral("issue"), QVariant()}}, true, false},
        ValidCase {"bad date", {{QStringLiteral("started"), QStringLiteral("2026-03-02")}}, true, false}));

} // namespace
