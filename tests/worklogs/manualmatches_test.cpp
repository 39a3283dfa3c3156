#include "worklogs/manualmatches.h"

#include "support/testenv.h"
#include "worklogbuilders.h"
#include "worklogs/durations.h"
#include "worklogs/marker.h"
#include "worklogs/preferences.h"
#include "worklogs/text.h"

#include <QRandomGenerator>
#include <QTimeZone>

#include <algorithm>

using namespace wl;

namespace
{

const QString kMe = S("me-123");

// The candidate rules applied one worklog at a time, without any index, straight from the records.
QVariantList straightforwardMatches(const QVariantMap &draft, const QVariantList &worklogs, const QString &accountId)
{
    const QDateTime start = JRDate(draft.value(S("started")));
    if (!start.isValid())
        return {};
    const QString linked = draft.value(S("manual_worklog_id")).toString();
    const qint64 postSeconds = JRPostSeconds(draft);
    const QString draftComment = draft.value(S("comment")).toString();
    struct Candidate {
        int score;
        QString started;
        QVariantMap record;
    };
    std::vector<Candidate> candidates;
    for (const QVariant &item : worklogs) {
        const QVariantMap worklog = item.toMap();
        const QString id = worklog.value(S("id")).toString();
        const QDateTime started = JRDate(worklog.value(S("started")));
        const QString text = JRText(worklog.value(S("comment")));
        if (!linked.isEmpty() && id == linked)
            continue;
        if (!started.isValid() || worklog.value(S("author")).toMap().value(S("accountId")).toString() != accountId)
            continue;
        if (id.isEmpty() || !JRLogMarker(worklog).isNull())
            continue;
        if (started.toLocalTime().date() != start.toLocalTime().date())
            continue;
        if (text.contains(S("[Hourloom:")) || text.contains(S("[Stintwatch Companion:")))
            continue;
        const bool hasSeconds = worklog.contains(S("timeSpentSeconds"));
        const qint64 seconds = hasSeconds ? worklog.value(S("timeSpentSeconds")).toLongLong() : 0;
        const int score = (hasSeconds && seconds == postSeconds ? 2 : 0)
            + (!text.trimmed().isEmpty() && text.compare(draftComment, Qt::CaseInsensitive) == 0 ? 1 : 0);
        const char *reasons[]
            = {"Same issue and day — verify coverage", "Same comment", "Same duration", "Same duration and comment"};
        const QString startedText = worklog.value(S("started")).toString();
        candidates.push_back({score, startedText,
            rec({{"id", id}, {"started", startedText}, {"seconds", seconds}, {"comment", text}, {"score", score},
                {"reason", S(reasons[score])}})});
    }
    std::stable_sort(candidates.begin(), candidates.end(), [](const Candidate &a, const Candidate &b) {
        return a.score != b.score ? a.score > b.score : a.started < b.started;
    });
    QVariantList result;
    for (const Candidate &candidate : candidates)
        result.append(candidate.record);
    return result;
}

// Days of one issue made to hit every rule and its edges: other authors, missing ids, markers and tags, other
// offsets, instants next to midnight (and next to the clock changes of zones that have them), shared starts,
// equal seconds, comments that differ in case or blank lines, linked worklogs.
class GeneratedDay
{
public:
    explicit GeneratedDay(quint32 seed)
        : m_random(seed)
    {
        static const QDate days[] = {QDate(2026, 3, 2), QDate(2026, 3, 29), QDate(2026, 10, 25), QDate(2026, 12, 31)};
        m_day = days[m_random.bounded(4)];
        const int starts = 1 + m_random.bounded(12);
        for (int i = 0; i < starts; ++i)
            m_starts.append(instant());
    }

    QVariantList worklogs()
    {
        QVariantList logs;
        const int count = m_random.bounded(60);
        for (int i = 0; i < count; ++i) {
            QVariantMap log = rec({{"id", pick<QVariant>({S("1"), S("2"), S("3"), qint64(4), S(""), QVariant()})},
                {"author", rec({{"accountId", pick({kMe, kMe, kMe, S("other")})}})}, {"started", started()},
                {"timeSpentSeconds", pick<QVariant>({qint64(60), qint64(120), qint64(3600), QVariant()})},
                {"comment", commentDocument()}});
            if (m_random.bounded(8) == 0)
                log = withMarkerProperty(log, S("a-marker"));
            logs.append(log);
        }
        return logs;
    }

    QVariantMap draft()
    {
        return rec({{"started", m_random.bounded(20) == 0 ? S("soon") : JRISO(instant())},
            {"post_seconds", pick<QVariant>({qint64(60), qint64(120), qint64(3600)})},
            {"comment", pick<QVariant>({S("Work"), S("  "), S(""), S("Other"), QVariant()})},
            {"manual_worklog_id", pick<QVariant>({S("1"), S("4"), S(""), QVariant(), QVariant()})}});
    }

private:
    template<typename T> T pick(std::initializer_list<T> values)
    {
        return values.begin()[m_random.bounded(int(values.size()))];
    }
    // Local instants of the day and the evenings and mornings around it.
    QDateTime instant()
    {
        const QDateTime midnight = m_day.startOfDay();
        return midnight.addSecs(m_random.bounded(-3 * 3600, 27 * 3600) + pick({0, 0, 1, -1}));
    }
    QVariant started()
    {
        switch (m_random.bounded(10)) {
        case 0:
            return S("not a date");
        case 1: // local wall-clock time written as UTC: hours away from the local instant
            return QString(JRISO(instant()).left(23) + S("+0000"));
        case 2:
            return instant().toTimeZone(QTimeZone(9 * 3600)).toString(S("yyyy-MM-ddTHH:mm:ss.zzz+0900"));
        default: // often the same start as another worklog: ties are ordered by the list
            return JRISO(m_starts.at(m_random.bounded(int(m_starts.size()))));
        }
    }
    QVariant commentDocument()
    {
        const QVariant text = pick<QVariant>({S("Work"), S("wORK"), S("Work\n\n"), S("  "), S("Other"),
            S("Work\n[Hourloom:abc]"), S("[Stintwatch Companion:abc] old"), QVariant()});
        return text.isValid() ? QVariant(document(text.toString())) : QVariant();
    }

    QRandomGenerator m_random;
    QDate m_day;
    QList<QDateTime> m_starts;
};

class ManualMatches : public EngineTest
{
};

TEST_F(ManualMatches, IndexGivesTheStraightforwardAnswerOnGeneratedDays)
{
    // One index per run, as a comparison uses it: several issues' lists, many drafts each.
    JRManualMatchIndex index(kMe);
    qsizetype candidates = 0;
    for (quint32 seed = 1; seed <= 120; ++seed) {
        GeneratedDay day(seed);
        QVariantList logs = day.worklogs();
        for (int round = 0; round < 2; ++round) {
            for (int i = 0; i < 12; ++i) {
                const QVariantMap draft = day.draft();
                const QVariantList expected = straightforwardMatches(draft, logs, kMe);
                ASSERT_EQ(index.matches(draft, logs), expected) << "seed " << seed << " draft " << i;
                ASSERT_EQ(JRManualMatches(draft, logs, kMe), expected) << "seed " << seed << " draft " << i;
                candidates += expected.size();
            }
            // The same list changed in place is indexed anew.
            if (!logs.isEmpty())
                logs[0] = day.worklogs().value(0, logs[0]);
            logs.append(day.worklogs());
        }
    }
    // The days must hold real candidates for the comparison to mean anything.
    EXPECT_GT(candidates, 1000);
}

} // namespace
