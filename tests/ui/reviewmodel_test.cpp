#include "app/ui/reviewmodel.h"

#include "uifixture.h"
#include "worklogs/engine.h"

#include <QAbstractItemModelTester>
#include <QSignalSpy>

#include <gtest/gtest.h>

namespace
{

QVariantList draftsFor(const QVariantList &sessions, const QDate &last, int days)
{
    QVariantList rows;
    for (int i = days - 1; i >= 0; --i) {
        const QDate day = last.addDays(-i);
        rows.append(JRBuildDrafts(sessions, day.startOfDay()));
    }
    return rows;
}

} // namespace

TEST(ReviewModel, PassesTheModelTesterOverGeneratedPeriods)
{
    const QDate last(2026, 3, 6);
    ReviewModel model;
    QAbstractItemModelTester tester(&model, QAbstractItemModelTester::FailureReportingMode::Fatal);
    for (const auto &[count, issues, days] : {std::tuple {0, 1, 1}, {1, 1, 1}, {40, 5, 1}, {300, 23, 7}, {12, 3, 7}}) {
        const QVariantList rows = draftsFor(uitest::generatedSessions(count, last, issues, days), last, days);
        model.setRows(rows);
        ASSERT_EQ(model.rows().size(), rows.size());
        int children = 0;
        for (int top = 0; top < model.rowCount(); ++top) {
            const QModelIndex index = model.index(top, 0);
            if (top % 2 == 1) {
                EXPECT_EQ(model.kind(index), ReviewModel::Kind::Spacer);
                EXPECT_EQ(model.flags(index), Qt::NoItemFlags) << "a spacer is never selectable";
                EXPECT_EQ(model.rowCount(index), 0);
            } else {
                children += model.rowCount(index);
            }
        }
        EXPECT_EQ(children, rows.size());
    }
}

TEST(ReviewModel, LiveUpdateReportsOnlyChangedRowsWithoutReset)
{
    const QDate day(2026, 3, 2);
    QVariantList sessions = uitest::realisticDay(day);
    ReviewModel model;
    model.setRows(JRBuildDrafts(sessions, day.startOfDay()));
    QSignalSpy resets(&model, &QAbstractItemModel::modelReset);
    QSignalSpy changes(&model, &QAbstractItemModel::dataChanged);

    // One session grew by a second: its row and its group change, nothing else.
    QVariantMap grown = sessions[3].toMap();
    grown.insert(QStringLiteral("end_ms"), grown.value(QStringLiteral("end_ms")).toLongLong() + 1000);
    sessions[3] = grown;
    EXPECT_TRUE(model.setRows(JRBuildDrafts(sessions, day.startOfDay())));
    EXPECT_EQ(resets.count(), 0);
    ASSERT_EQ(changes.count(), 2);
    const QModelIndex changed = changes[0][0].value<QModelIndex>();
    EXPECT_EQ(model.row(model.rowOf(changed)).value(QStringLiteral("source_key")).toString(), JRSourceKey(grown));
    EXPECT_EQ(model.kind(changes[1][0].value<QModelIndex>()), ReviewModel::Kind::Group);

    // The same rows again report nothing.
    changes.clear();
    model.setRows(JRBuildDrafts(sessions, day.startOfDay()));
    EXPECT_EQ(changes.count(), 0);

    // A new session changes the shape: a reset.
    sessions.append(
        uitest::session(QStringLiteral("ABC-9"), QDateTime(day, QTime(18, 0)), 600, QStringLiteral("New"), 99));
    EXPECT_FALSE(model.setRows(JRBuildDrafts(sessions, day.startOfDay())));
    EXPECT_EQ(resets.count(), 1);
}

TEST(ReviewModel, TicksAndToPostEditsFollowTheRowPermissions)
{
    const QDate day(2026, 3, 2);
    QVariantList rows = JRBuildDrafts(uitest::realisticDay(day), day.startOfDay());
    for (QVariant &item : rows) {
        QVariantMap row = item.toMap();
        row.insert(QStringLiteral("can_tick"), true);
        row.insert(QStringLiteral("can_edit_post"), true);
        item = row;
    }
    QVariantMap locked = rows[0].toMap();
    locked.insert(QStringLiteral("can_tick"), false);
    locked.insert(QStringLiteral("can_edit_post"), false);
    rows[0] = locked;
    ReviewModel model;
    model.setRows(rows);
    QSignalSpy refused(&model, &ReviewModel::editRefused);

    EXPECT_FALSE(model.setData(model.indexOfRow(0, ReviewModel::IncludeColumn), Qt::Checked, Qt::CheckStateRole));
    EXPECT_FALSE(model.setData(model.indexOfRow(0, ReviewModel::ToPostColumn), QStringLiteral("10m")));
    EXPECT_TRUE(model.setData(model.indexOfRow(1, ReviewModel::IncludeColumn), Qt::Checked, Qt::CheckStateRole));
    EXPECT_TRUE(model.row(1).value(QStringLiteral("include")).toBool());

    const QModelIndex toPost = model.indexOfRow(1, ReviewModel::ToPostColumn);
    EXPECT_TRUE(model.flags(toPost) & Qt::ItemIsEditable);
    EXPECT_FALSE(model.flags(model.indexOfRow(1, ReviewModel::TrackedColumn)) & Qt::ItemIsEditable);
    EXPECT_TRUE(model.setData(toPost, QStringLiteral("1h")));
    EXPECT_EQ(model.row(1).value(QStringLiteral("post_seconds")).toLongLong(), 3600);
    EXPECT_FALSE(model.setData(toPost, QStringLiteral("2h")));
    ASSERT_EQ(refused.count(), 1);
    EXPECT_EQ(
        refused[0][0].toString(), QStringLiteral("Enter a positive whole-minute amount no greater than Not logged."));
    EXPECT_EQ(model.row(1).value(QStringLiteral("post_seconds")).toLongLong(), 3600);

    // Exactly two columns are editable in place.
    int editable = 0;
    for (int column = 0; column < ReviewModel::ColumnCount; ++column) {
        const Qt::ItemFlags flags = model.flags(model.indexOfRow(1, column));
        editable += (flags & (Qt::ItemIsEditable | Qt::ItemIsUserCheckable)) ? 1 : 0;
    }
    EXPECT_EQ(editable, 2);
}
