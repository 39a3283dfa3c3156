#include "jira/issuetitlecache.h"

#include "jira/jiraclient.h"
#include "jira/keychainstore.h"
#include "standinfixture.h"
#include "support/testenv.h"

#include <QDataStream>
#include <QFile>
#include <QSaveFile>

#include <gtest/gtest.h>

namespace
{

const QString kCloud = QString::fromLatin1(jiratest::kCloud);
const QString kIssuePath = QStringLiteral("/issue/[A-Z]+-[0-9]+$");

class IssueTitleCacheTest : public jiratest::SignedInTest
{
protected:
    void SetUp() override
    {
        jiratest::SignedInTest::SetUp();
        m_directory = testenv::freshDir(QStringLiteral("support"));
    }
    void TearDown() override
    {
        m_cache.reset();
        jiratest::SignedInTest::TearDown();
    }

    IssueTitleCache &cache()
    {
        if (!m_cache) {
            m_cache = std::make_unique<IssueTitleCache>(*m_client, m_directory, &m_clock);
            m_cache->setDidChange([this] { ++m_changes; });
        }
        return *m_cache;
    }

    int issueRequests() const { return int(m_server.requests(QStringLiteral("GET"), kIssuePath).size()); }

    // Asks for a title and waits until the fetch it may start has come back.
    QString titleAndSettle(const QString &issue, bool refresh = false)
    {
        const int before = m_changes;
        const int requestsBefore = issueRequests();
        const QString title = cache().title(issue, kCloud, refresh);
        m_client->queue().drain();
        if (issueRequests() > requestsBefore)
            testenv::waitFor([&] { return m_changes > before; });
        return title;
    }

    void writeFile(const QVariantMap &entries)
    {
        QSaveFile file(m_directory + QStringLiteral("/jira-titles.plist"));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        QDataStream stream(&file);
        stream.setVersion(QDataStream::Qt_6_4);
        stream << entries;
        ASSERT_TRUE(file.commit());
    }

    static QVariantMap entry(const QString &title, const QDateTime &date)
    {
        return {{QStringLiteral("title"), title}, {QStringLiteral("date"), date}};
    }

    QString m_directory;
    QDateTime now() const { return m_clock.wallNow().toUTC(); }

    TestClock m_clock;
    int m_changes = 0;
    std::unique_ptr<IssueTitleCache> m_cache;
};

TEST_F(IssueTitleCacheTest, FetchesOnceThenAnswersFromTheFile)
{
    EXPECT_TRUE(titleAndSettle(QStringLiteral("ED-1")).isNull());
    EXPECT_EQ(m_changes, 1);
    EXPECT_EQ(cache().cachedTitle(QStringLiteral("ED-1"), kCloud), QStringLiteral("Review the parser"));
    const QVariantMap details = cache().cachedDetails(QStringLiteral("ED-1"), kCloud);
    EXPECT_EQ(details.value(QStringLiteral("estimate_seconds")).toLongLong(), 10800);
    EXPECT_EQ(details.value(QStringLiteral("remaining_seconds")).toLongLong(), 3600);
    EXPECT_EQ(details.value(QStringLiteral("date")).toDateTime(), now());

    const QString path = m_directory + QStringLiteral("/jira-titles.plist");
    EXPECT_EQ(QFile::permissions(path),
        QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadUser | QFileDevice::WriteUser);

    // A new cache on the same folder answers from the file without asking Jira.
    m_cache.reset();
    EXPECT_EQ(titleAndSettle(QStringLiteral("ED-1")), QStringLiteral("Review the parser"));
    EXPECT_EQ(issueRequests(), 1);
}

TEST_F(IssueTitleCacheTest, RefetchesOnlyStaleOrForcedEntriesAtMostOncePerMinute)
{
    writeFile({{kCloud + QStringLiteral("|ED-1"), entry(QStringLiteral("old title"), now().addSecs(-23 * 3600))},
        {kCloud + QStringLiteral("|ED-2"), entry(QStringLiteral("stale"), now().addSecs(-86400))}});

    EXPECT_EQ(titleAndSettle(QStringLiteral("ED-1")), QStringLiteral("old title"));
    EXPECT_EQ(issueRequests(), 0);
    EXPECT_EQ(titleAndSettle(QStringLiteral("ED-2")), QStringLiteral("stale"));
    EXPECT_EQ(issueRequests(), 1);
    EXPECT_EQ(cache().cachedTitle(QStringLiteral("ED-2"), kCloud), QStringLiteral("Write the manual"));

    EXPECT_EQ(titleAndSettle(QStringLiteral("ED-1"), true), QStringLiteral("old title"));
    EXPECT_EQ(issueRequests(), 2);
    m_clock.advance(59 * 1000);
    titleAndSettle(QStringLiteral("ED-1"), true);
    EXPECT_EQ(issueRequests(), 2);
    m_clock.advance(1 * 1000);
    titleAndSettle(QStringLiteral("ED-1"), true);
    EXPECT_EQ(issueRequests(), 3);
}

TEST_F(IssueTitleCacheTest, StartsAtMostFourFetchesAtOnce)
{
    // The results come back through the main thread's event loop, which does not run here: every fetch
    // started stays in flight.
    for (int i = 1; i <= 6; ++i)
        cache().title(QStringLiteral("ED-%1").arg(i), kCloud, false);
    cache().title(QStringLiteral("ED-1"), kCloud, true); // already in flight
    m_client->queue().drain();
    EXPECT_EQ(issueRequests(), 4);

    testenv::waitFor([&] { return m_changes >= 4; });
    EXPECT_EQ(m_changes, 4);
}

TEST_F(IssueTitleCacheTest, NeverFetchesForNothingToShow)
{
    m_client->setOffline(true);
    titleAndSettle(QStringLiteral("ED-1"));
    m_client->setOffline(false);
    EXPECT_TRUE(cache().title(QStringLiteral("Unassigned"), kCloud, true).isNull());
    EXPECT_TRUE(cache().title(QStringLiteral("ED-1"), QString(), true).isNull());
    EXPECT_TRUE(cache().title(QString(), kCloud, true).isNull());
    m_client->queue().drain();
    EXPECT_EQ(issueRequests(), 0);
}

TEST_F(IssueTitleCacheTest, BacksOffForFifteenMinutesAfterAFailure)
{
    m_server.addFault(standin::Fault::statusReply(QStringLiteral("GET"), kIssuePath, 500, "{}"));
    titleAndSettle(QStringLiteral("ED-1"));
    EXPECT_EQ(issueRequests(), 1);
    EXPECT_EQ(m_changes, 1);
    EXPECT_TRUE(cache().cachedTitle(QStringLiteral("ED-1"), kCloud).isNull());

    m_clock.advance(899 * 1000);
    titleAndSettle(QStringLiteral("ED-2"), true);
    titleAndSettle(QStringLiteral("ED-1"), true);
    EXPECT_EQ(issueRequests(), 1);

    m_clock.advance(1 * 1000);
    titleAndSettle(QStringLiteral("ED-2"));
    EXPECT_EQ(issueRequests(), 2);
    EXPECT_EQ(cache().cachedTitle(QStringLiteral("ED-2"), kCloud), QStringLiteral("Write the manual"));
}

TEST_F(IssueTitleCacheTest, DropsAFetchThatOutlivedItsConnection)
{
    m_server.addFault(standin::Fault::slow(QStringLiteral("GET"), kIssuePath, 300));
    cache().title(QStringLiteral("ED-1"), kCloud, false);
    m_client->setGeneration(m_client->generation() + 1); // what a disconnect does
    m_client->queue().drain();
    testenv::waitFor([] { return false; }, 200);
    EXPECT_EQ(m_changes, 0);
    EXPECT_TRUE(cache().cachedTitle(QStringLiteral("ED-1"), kCloud).isNull());
    EXPECT_FALSE(QFile::exists(m_directory + QStringLiteral("/jira-titles.plist")));

    // No back-off followed: another issue is fetched at once.
    titleAndSettle(QStringLiteral("ED-2"));
    EXPECT_EQ(cache().cachedTitle(QStringLiteral("ED-2"), kCloud), QStringLiteral("Write the manual"));
}

TEST_F(IssueTitleCacheTest, KeepsAtMostAThousandEntries)
{
    QVariantMap entries;
    for (int i = 0; i < 1000; ++i)
        entries.insert(kCloud + QStringLiteral("|OLD-%1").arg(i), entry(QStringLiteral("t"), now().addSecs(-i)));
    writeFile(entries);

    titleAndSettle(QStringLiteral("ED-1"));
    EXPECT_EQ(cache().cachedTitle(QStringLiteral("ED-1"), kCloud), QStringLiteral("Review the parser"));
    EXPECT_TRUE(cache().cachedTitle(QStringLiteral("OLD-999"), kCloud).isNull()); // the oldest went
    EXPECT_FALSE(cache().cachedTitle(QStringLiteral("OLD-998"), kCloud).isNull());

    // The file holds the same 1000 entries.
    m_cache.reset();
    EXPECT_FALSE(cache().cachedTitle(QStringLiteral("ED-1"), kCloud).isNull());
    EXPECT_TRUE(cache().cachedTitle(QStringLiteral("OLD-999"), kCloud).isNull());
}

TEST_F(IssueTitleCacheTest, LoadsOnlyWellFormedEntriesFromAFileWithinBounds)
{
    writeFile({{kCloud + QStringLiteral("|ED-1"), entry(QStringLiteral("kept"), now())},
        {kCloud + QStringLiteral("|ED-2"), QVariantMap {{QStringLiteral("title"), QStringLiteral("no date")}}},
        {kCloud + QStringLiteral("|ED-3"), QStringLiteral("not a record")}});
    EXPECT_EQ(cache().cachedTitle(QStringLiteral("ED-1"), kCloud), QStringLiteral("kept"));
    EXPECT_TRUE(cache().cachedDetails(QStringLiteral("ED-2"), kCloud).isEmpty());
    EXPECT_TRUE(cache().cachedDetails(QStringLiteral("ED-3"), kCloud).isEmpty());

    QVariantMap outgrown;
    for (int i = 0; i < 1001; ++i)
        outgrown.insert(kCloud + QStringLiteral("|ED-%1").arg(i), entry(QStringLiteral("t"), now()));
    writeFile(outgrown);
    m_cache.reset();
    EXPECT_TRUE(cache().cachedTitle(QStringLiteral("ED-1"), kCloud).isNull());

    QFile damaged(m_directory + QStringLiteral("/jira-titles.plist"));
    ASSERT_TRUE(damaged.open(QIODevice::WriteOnly));
    damaged.write("\x00\x00\x00\x05garbage", 11);
    damaged.close();
    m_cache.reset();
    EXPECT_TRUE(cache().cachedTitle(QStringLiteral("ED-1"), kCloud).isNull());
}

} // namespace
