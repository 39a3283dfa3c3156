#include "uifixture.h"
#include "worklogs/engine.h"

#include "support/testenv.h"

#include <QJsonObject>
#include <QSignalSpy>
#include <QTreeView>

// A tracked day goes all the way to Jira through the window: check, tick, post, and never twice.
class EndToEndTest : public WindowFixture
{
protected:
    int markedWorklogs() const
    {
        int marked = 0;
        for (const char *issue : {"ABC-1", "ABC-2", "ABC-3", "OPS-7"})
            for (const QJsonValue &worklog : m_server.worklogs(QString::fromLatin1(issue), kAccount))
                marked += JRLogMarker(worklog.toObject().toVariantMap()).isEmpty() ? 0 : 1;
        return marked;
    }
};

TEST_F(EndToEndTest, PostsTheTickedRowsOnceWithTheirMarkers)
{
    const QDate day(2026, 3, 2);
    m_controller->setReviewDay(day);
    openChecked(uitest::realisticDay(day));

    // Only the first issue's rows stay ticked.
    QVariantList rows = model()->rows();
    int ticked = 0;
    for (int i = 0; i < rows.size(); ++i) {
        const QVariantMap row = rows[i].toMap();
        const bool keep = row.value(QStringLiteral("issue")).toString() == QStringLiteral("ABC-2");
        const QModelIndex box = model()->indexOfRow(i, ReviewModel::IncludeColumn);
        if (box.flags() & Qt::ItemIsUserCheckable)
            model()->setData(box, keep ? Qt::Checked : Qt::Unchecked, Qt::CheckStateRole);
        ticked += keep ? 1 : 0;
    }
    ASSERT_EQ(ticked, 3);
    QString asked;
    m_controller->confirmPost = [&asked](const QString &title, const QString &text) {
        asked = title + QLatin1Char('\n') + text;
        return true;
    };
    QSignalSpy postingChanges(m_controller.get(), &JiraReviewWindowController::postingChanged);
    m_controller->post();
    EXPECT_TRUE(asked.startsWith(
        QStringLiteral("Post 3 worklogs to Jira?\nSite: https://example.atlassian.net\nTotal: 3h 10m.")))
        << qPrintable(asked);
    ASSERT_TRUE(m_controller->posting());
    ASSERT_TRUE(waitIdle());
    EXPECT_EQ(m_controller->statusText(), QStringLiteral("Posted 3 worklogs."));
    EXPECT_EQ(postingChanges.count(), 2);

    // Jira holds exactly those worklogs, each with its marker.
    EXPECT_EQ(m_server.worklogs(QStringLiteral("ABC-2"), kAccount).size(), 3);
    EXPECT_EQ(markedWorklogs(), 3);
    for (int i = 0; i < model()->rows().size(); ++i) {
        const QVariantMap row = model()->row(i);
        const QString status
            = model()->indexOfRow(i, ReviewModel::StatusColumn).data(ReviewModel::StatusTextRole).toString();
        if (row.value(QStringLiteral("issue")).toString() == QStringLiteral("ABC-2")) {
            EXPECT_EQ(status, QStringLiteral("Posted"));
            EXPECT_FALSE(row.value(QStringLiteral("can_tick")).toBool()) << "a posted session is locked";
        } else {
            EXPECT_NE(status, QStringLiteral("Posted"));
        }
    }

    // Posting the same rows again is refused, and a fresh check shows them as posted.
    m_controller->post();
    EXPECT_FALSE(m_controller->posting());
    EXPECT_EQ(m_controller->statusText(),
        QStringLiteral("Checking Jira again first: the last check is over five minutes old. Post when it finishes."));
    ASSERT_TRUE(waitIdle());
    EXPECT_EQ(m_controller->statusText(), QStringLiteral("Check at least one eligible entry."));
    EXPECT_EQ(markedWorklogs(), 3);
    for (int i = 0; i < model()->rows().size(); ++i) {
        const QVariantMap row = model()->row(i);
        if (row.value(QStringLiteral("issue")).toString() != QStringLiteral("ABC-2"))
            continue;
        EXPECT_FALSE(row.value(QStringLiteral("eligible")).toBool());
        EXPECT_FALSE(row.value(QStringLiteral("include")).toBool());
    }
}
