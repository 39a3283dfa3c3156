#pragma once

#include "platform/folderbookmarks.h"
#include "platform/platformerror.h"

#include <QString>
#include <QUrl>

#include <memory>

class QSettings;

// Decides which folder the monitor reads and checks that it really is the tracker's folder. Outside a
// sandbox it remembers a path; inside one it keeps the user's permission as a bookmark.
class StintwatchSourceAccess
{
public:
    static constexpr int kFolderInvalid = 1;
    static constexpr int kAccessLost = 2;
    static constexpr int kAccessNotGranted = 3;

    // `defaults` must outlive this object. Sandboxed when HLRunningInAppSandbox() says so.
    explicit StintwatchSourceAccess(QSettings *defaults);
    // Without `bookmarks` the platform's own are used.
    StintwatchSourceAccess(QSettings *defaults, bool sandboxed, std::unique_ptr<FolderBookmarks> bookmarks = {});
    ~StintwatchSourceAccess();
    StintwatchSourceAccess(const StintwatchSourceAccess &) = delete;
    StintwatchSourceAccess &operator=(const StintwatchSourceAccess &) = delete;

    // The tracker's folder in the user's real data folder, also from inside a sandbox.
    static QString defaultSourcePath();
    static bool isValidSourceDirectory(const QString &path, PlatformError *error);
    static QString errorDomain();

    bool sandboxed() const { return m_sandboxed; }

    // The folder to read, or a null string (with the error set unless the user never chose one).
    QString restoreSource(PlatformError *error);
    // Remembers the folder the user chose; returns its standardized path, or a null string with the error.
    QString authorizeURL(const QUrl &url, PlatformError *error);
    void stopAccessing();

private:
    QSettings *m_defaults;
    bool m_sandboxed;
    std::unique_ptr<FolderBookmarks> m_bookmarks;
    QString m_url;
};
