#include "source/stintwatchsourceaccess.h"

#include "support/testenv.h"

#include <QDir>
#include <QFile>
#include <QHash>
#include <QSettings>
#include <QStandardPaths>

#include <gtest/gtest.h>

namespace
{

struct Bookmark {
    QString path;
    bool stale = false;
    PlatformError error;
};

// Stands in for the sandbox: bookmarks are looked up in a table the test fills.
class FakeBookmarks : public FolderBookmarks
{
public:
    QHash<QByteArray, Bookmark> table;
    bool grant = true;
    bool failCreate = false;
    QStringList accessing;
    int created = 0;

    QString resolve(const QByteArray &bookmark, bool *stale, PlatformError *error) override
    {
        const Bookmark entry = table.value(bookmark);
        *stale = entry.stale;
        *error = entry.error;
        return entry.path.isEmpty() || !QFileInfo(entry.path).exists() ? QString() : entry.path;
    }
    QByteArray create(const QString &path, PlatformError *error) override
    {
        if (failCreate) {
            *error = PlatformError {QStringLiteral("bookmarks"), 9, QStringLiteral("Bookmark refused.")};
            return {};
        }
        const QByteArray bookmark = "bookmark-" + QByteArray::number(++created);
        table.insert(bookmark, Bookmark {path, false, {}});
        return bookmark;
    }
    bool startAccessing(const QString &path) override
    {
        if (grant)
            accessing.append(path);
        return grant;
    }
    void stopAccessing(const QString &path) override { accessing.removeOne(path); }
};

QString makeTrackerFolder(const QString &name)
{
    const QString folder = testenv::freshDir(name);
    QFile db(folder + QStringLiteral("/Stintwatch.db"));
    db.open(QIODevice::WriteOnly);
    return folder;
}

class SourceAccessTest : public ::testing::Test
{
protected:
    SourceAccessTest()
        : m_defaults(
            testenv::freshDir(QStringLiteral("settings")) + QStringLiteral("/defaults.ini"), QSettings::IniFormat)
    {
    }

    StintwatchSourceAccess sandboxed()
    {
        auto fake = std::make_unique<FakeBookmarks>();
        m_fake = fake.get();
        return StintwatchSourceAccess(&m_defaults, true, std::move(fake));
    }

    QSettings m_defaults;
    FakeBookmarks *m_fake = nullptr;
};

struct ValidationCase {
    const char *name;
    const char *layout; // "missing", "empty", "file", "folder", "db-folder", "valid"
    const char *message;
};

class SourceValidationTest : public ::testing::TestWithParam<ValidationCase>
{
};

TEST_P(SourceValidationTest, ExplainsWhatIsWrongWithTheFolder)
{
    const ValidationCase c = GetParam();
    const QString base = testenv::freshDir(QString::fromLatin1(c.name));
    QString path = base + QStringLiteral("/Stintwatch");
    const QByteArray layout(c.layout);
    if (layout == "empty") {
        path.clear();
    } else if (layout == "file") {
        QFile file(path);
        file.open(QIODevice::WriteOnly);
    } else if (layout != "missing") {
        QDir().mkpath(path);
        if (layout == "db-folder")
            QDir().mkpath(path + QStringLiteral("/Stintwatch.db"));
        if (layout == "valid") {
            QFile db(path + QStringLiteral("/Stintwatch.db"));
            db.open(QIODevice::WriteOnly);
        }
    }
    PlatformError error;
    const bool valid = StintwatchSourceAccess::isValidSourceDirectory(path, &error);
    EXPECT_EQ(valid, c.message == nullptr);
    if (c.message) {
        EXPECT_EQ(error.description, QString::fromUtf8(c.message));
        EXPECT_EQ(error.code, StintwatchSourceAccess::kFolderInvalid);
        EXPECT_EQ(error.domain, QStringLiteral("app.hourloom.Hourloom.source"));
    }
}

INSTANTIATE_TEST_SUITE_P(Folders, SourceValidationTest,
    ::testing::Values(ValidationCase {"missing", "missing", "The selected folder does not exist."},
        ValidationCase {"empty", "empty", "The selected folder does not exist."},
        ValidationCase {"file", "file", "Choose the Stintwatch folder, not a file."},
        ValidationCase {"nodb", "folder", "The selected folder has no readable Stintwatch.db."},
        ValidationCase {"dbdir", "db-folder", "The selected folder has no readable Stintwatch.db."},
        ValidationCase {"valid", "valid", nullptr}),
    [](const auto &tested) { return std::string(tested.param.name); });

TEST_F(SourceAccessTest, UnsandboxedFallsBackToTheDefaultFolder)
{
    const QString expected
        = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + QStringLiteral("/Stintwatch");
    EXPECT_EQ(StintwatchSourceAccess::defaultSourcePath(), expected);
    EXPECT_TRUE(expected.startsWith(testenv::home()));

    StintwatchSourceAccess access(&m_defaults);
    ASSERT_FALSE(access.sandboxed()) << "tests do not run inside Flatpak";
    PlatformError error;
    EXPECT_TRUE(access.restoreSource(&error).isNull());
    EXPECT_EQ(error.description, QStringLiteral("The selected folder does not exist."));

    QDir().mkpath(expected);
    QFile(expected + QStringLiteral("/Stintwatch.db")).open(QIODevice::WriteOnly);
    error = {};
    EXPECT_EQ(access.restoreSource(&error), expected);
    EXPECT_FALSE(error.isError());
}

TEST_F(SourceAccessTest, UnsandboxedRemembersTheChosenPathAndKeepsItOnABadChoice)
{
    const QString folder = makeTrackerFolder(QStringLiteral("chosen"));
    StintwatchSourceAccess access(&m_defaults, false);
    PlatformError error;
    EXPECT_EQ(access.authorizeURL(QUrl::fromLocalFile(folder + QStringLiteral("/./")), &error), folder);
    EXPECT_EQ(m_defaults.value(QStringLiteral("StintwatchSourcePath")).toString(), folder);

    const QUrl file = QUrl::fromLocalFile(folder + QStringLiteral("/Stintwatch.db"));
    EXPECT_TRUE(access.authorizeURL(file, &error).isNull());
    EXPECT_EQ(error.description, QStringLiteral("Choose the Stintwatch folder, not a file."));
    EXPECT_EQ(m_defaults.value(QStringLiteral("StintwatchSourcePath")).toString(), folder);
    EXPECT_EQ(access.restoreSource(&error), folder);
}

TEST_F(SourceAccessTest, SandboxedAuthorizationStoresABookmarkInsteadOfThePath)
{
    const QString first = makeTrackerFolder(QStringLiteral("first"));
    const QString second = makeTrackerFolder(QStringLiteral("second"));
    m_defaults.setValue(QStringLiteral("StintwatchSourcePath"), first);
    auto access = sandboxed();
    PlatformError error;
    EXPECT_TRUE(access.restoreSource(&error).isNull()) << "nothing chosen yet";
    EXPECT_FALSE(error.isError());

    EXPECT_EQ(access.authorizeURL(QUrl::fromLocalFile(first), &error), first);
    EXPECT_FALSE(m_defaults.contains(QStringLiteral("StintwatchSourcePath")));
    EXPECT_EQ(m_defaults.value(QStringLiteral("StintwatchSourceBookmark")).toByteArray(), "bookmark-1");
    EXPECT_EQ(m_fake->accessing, QStringList {first});

    // Only one folder is under access at a time.
    EXPECT_EQ(access.authorizeURL(QUrl::fromLocalFile(second), &error), second);
    EXPECT_EQ(m_fake->accessing, QStringList {second});
    EXPECT_EQ(access.restoreSource(&error), second);
    EXPECT_EQ(m_fake->accessing, QStringList {second});
    access.stopAccessing();
    EXPECT_TRUE(m_fake->accessing.isEmpty());
}

TEST_F(SourceAccessTest, SandboxedAuthorizationFailuresChangeNothing)
{
    const QString folder = makeTrackerFolder(QStringLiteral("refused"));
    auto access = sandboxed();
    PlatformError error;
    m_fake->grant = false;
    EXPECT_TRUE(access.authorizeURL(QUrl::fromLocalFile(folder), &error).isNull());
    EXPECT_EQ(error.code, StintwatchSourceAccess::kAccessNotGranted);
    EXPECT_EQ(error.description, QStringLiteral("macOS did not grant access to the selected folder."));

    m_fake->grant = true;
    m_fake->failCreate = true;
    error = {};
    EXPECT_TRUE(access.authorizeURL(QUrl::fromLocalFile(folder), &error).isNull());
    EXPECT_EQ(error.description, QStringLiteral("Bookmark refused."));
    EXPECT_TRUE(m_fake->accessing.isEmpty()) << "the scope is ended when no bookmark could be made";
    EXPECT_FALSE(m_defaults.contains(QStringLiteral("StintwatchSourceBookmark")));
}

TEST_F(SourceAccessTest, StaleBookmarkIsRefreshedSilently)
{
    const QString folder = makeTrackerFolder(QStringLiteral("stale"));
    auto access = sandboxed();
    m_fake->table.insert("old", Bookmark {folder, true, {}});
    m_defaults.setValue(QStringLiteral("StintwatchSourceBookmark"), QByteArray("old"));
    PlatformError error;
    EXPECT_EQ(access.restoreSource(&error), folder);
    EXPECT_FALSE(error.isError());
    EXPECT_EQ(m_defaults.value(QStringLiteral("StintwatchSourceBookmark")).toByteArray(), "bookmark-1");
    EXPECT_EQ(m_fake->accessing, QStringList {folder});
}

TEST_F(SourceAccessTest, LostBookmarkIsRemovedWithTheResolversErrorOrAccessLost)
{
    const QString folder = makeTrackerFolder(QStringLiteral("gone"));
    auto access = sandboxed();
    m_fake->table.insert("gone", Bookmark {folder, false, {}});
    m_defaults.setValue(QStringLiteral("StintwatchSourceBookmark"), QByteArray("gone"));
    QDir(folder).removeRecursively();
    PlatformError error;
    EXPECT_TRUE(access.restoreSource(&error).isNull());
    EXPECT_EQ(error.code, StintwatchSourceAccess::kAccessLost);
    EXPECT_EQ(error.description, QStringLiteral("Hourloom no longer has access to the saved folder."));
    EXPECT_FALSE(m_defaults.contains(QStringLiteral("StintwatchSourceBookmark")));

    const PlatformError resolver {QStringLiteral("bookmarks"), 4, QStringLiteral("The volume is not mounted.")};
    m_fake->table.insert("unmounted", Bookmark {QString(), false, resolver});
    m_defaults.setValue(QStringLiteral("StintwatchSourceBookmark"), QByteArray("unmounted"));
    error = {};
    EXPECT_TRUE(access.restoreSource(&error).isNull());
    EXPECT_EQ(error.description, resolver.description);
    EXPECT_FALSE(m_defaults.contains(QStringLiteral("StintwatchSourceBookmark")));
}

TEST_F(SourceAccessTest, BookmarkOfAFolderWithoutDatabaseStaysStored)
{
    const QString folder = testenv::freshDir(QStringLiteral("emptied"));
    auto access = sandboxed();
    m_fake->table.insert("kept", Bookmark {folder, false, {}});
    m_defaults.setValue(QStringLiteral("StintwatchSourceBookmark"), QByteArray("kept"));
    PlatformError error;
    EXPECT_TRUE(access.restoreSource(&error).isNull());
    EXPECT_EQ(error.description, QStringLiteral("The selected folder has no readable Stintwatch.db."));
    EXPECT_TRUE(m_defaults.contains(QStringLiteral("StintwatchSourceBookmark")));
    EXPECT_TRUE(m_fake->accessing.isEmpty());
}

} // namespace
