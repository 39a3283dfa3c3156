#include "source/stintwatchsourceaccess.h"

#include "platform/appidentity.h"
#include "platform/sandbox.h"

#include <QDir>
#include <QFileInfo>
#include <QSettings>
#include <QStandardPaths>

#include <pwd.h>
#include <unistd.h>

namespace
{

const QString kBookmarkKey = QStringLiteral("StintwatchSourceBookmark");
const QString kPathKey = QStringLiteral("StintwatchSourcePath");

void fail(PlatformError *error, int code, const QString &message)
{
    if (error)
        *error = PlatformError {StintwatchSourceAccess::errorDomain(), code, message};
}

} // namespace

StintwatchSourceAccess::StintwatchSourceAccess(QSettings *defaults)
    : StintwatchSourceAccess(defaults, HLRunningInAppSandbox())
{
}

StintwatchSourceAccess::StintwatchSourceAccess(
    QSettings *defaults, bool sandboxed, std::unique_ptr<FolderBookmarks> bookmarks)
    : m_defaults(defaults)
    , m_sandboxed(sandboxed)
    , m_bookmarks(bookmarks ? std::move(bookmarks) : std::make_unique<PathFolderBookmarks>())
{
}

StintwatchSourceAccess::~StintwatchSourceAccess()
{
    stopAccessing();
}

QString StintwatchSourceAccess::errorDomain()
{
    return HLApplicationIdentifier() + QStringLiteral(".source");
}

QString StintwatchSourceAccess::defaultSourcePath()
{
    if (!HLRunningInAppSandbox())
        return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + QStringLiteral("/Stintwatch");
    // Inside the sandbox the data folder is the application's private one: take the host's, or the real
    // home folder from the user database.
    QString data = qEnvironmentVariable("HOST_XDG_DATA_HOME");
    if (data.isEmpty()) {
        const passwd *entry = getpwuid(getuid());
        const QString home
            = entry && entry->pw_dir && *entry->pw_dir ? QString::fromLocal8Bit(entry->pw_dir) : QDir::homePath();
        data = home + QStringLiteral("/.local/share");
    }
    return QDir::cleanPath(data + QStringLiteral("/Stintwatch"));
}

bool StintwatchSourceAccess::isValidSourceDirectory(const QString &path, PlatformError *error)
{
    const QFileInfo folder(path);
    if (path.isEmpty() || !folder.exists()) {
        fail(error, kFolderInvalid, QStringLiteral("The selected folder does not exist."));
        return false;
    }
    if (!folder.isDir()) {
        fail(error, kFolderInvalid, QStringLiteral("Choose the Stintwatch folder, not a file."));
        return false;
    }
    const QFileInfo database(QDir(path).filePath(QStringLiteral("Stintwatch.db")));
    if (!database.isFile() || !database.isReadable()) {
        fail(error, kFolderInvalid, QStringLiteral("The selected folder has no readable Stintwatch.db."));
        return false;
    }
    return true;
}

void StintwatchSourceAccess::stopAccessing()
{
    if (m_sandboxed && !m_url.isNull())
        m_bookmarks->stopAccessing(m_url);
    m_url.clear();
}

QString StintwatchSourceAccess::restoreSource(PlatformError *error)
{
    stopAccessing();
    if (!m_sandboxed) {
        QString path = m_defaults->value(kPathKey).toString();
        if (path.isEmpty())
            path = defaultSourcePath();
        return isValidSourceDirectory(path, error) ? path : QString();
    }

    const QByteArray bookmark = m_defaults->value(kBookmarkKey).toByteArray();
    if (bookmark.isEmpty())
        return {};

    bool stale = false;
    PlatformError resolveError;
    const QString path = m_bookmarks->resolve(bookmark, &stale, &resolveError);
    if (!path.isNull() && m_bookmarks->startAccessing(path)) {
        m_url = path;
        if (!isValidSourceDirectory(path, error)) {
            // The permission is still good; only the folder's content is not what it should be.
            stopAccessing();
            return {};
        }
        if (stale) {
            const QByteArray fresh = m_bookmarks->create(path, nullptr);
            if (!fresh.isEmpty())
                m_defaults->setValue(kBookmarkKey, fresh);
        }
        return path;
    }

    m_defaults->remove(kBookmarkKey);
    if (resolveError.isError()) {
        if (error)
            *error = resolveError;
    } else {
        fail(error, kAccessLost, QStringLiteral("Hourloom no longer has access to the saved folder."));
    }
    return {};
}

QString StintwatchSourceAccess::authorizeURL(const QUrl &url, PlatformError *error)
{
    const QString path = QDir::cleanPath(url.isLocalFile() ? url.toLocalFile() : url.path());
    if (!isValidSourceDirectory(path, error))
        return {};
    stopAccessing();
    if (!m_sandboxed) {
        m_defaults->setValue(kPathKey, path);
        return path;
    }
    if (!m_bookmarks->startAccessing(path)) {
        fail(error, kAccessNotGranted, QStringLiteral("macOS did not grant access to the selected folder."));
        return {};
    }
    PlatformError bookmarkError;
    const QByteArray bookmark = m_bookmarks->create(path, &bookmarkError);
    if (bookmark.isEmpty()) {
        m_bookmarks->stopAccessing(path);
        if (error)
            *error = bookmarkError;
        return {};
    }
    m_url = path;
    m_defaults->setValue(kBookmarkKey, bookmark);
    m_defaults->remove(kPathKey);
    return path;
}
