#pragma once

#include <QUrl>

// Shows a web page in the user's default browser. The Jira sign-in hands its authorization page to one; the
// application installs the desktop's own, tests install one that records the page or approves it itself.
class UrlOpener
{
public:
    virtual ~UrlOpener() = default;

    // Called on the main thread.
    virtual void open(const QUrl &url) = 0;

    // The process-wide opener: the one `setShared` installed, or nullptr before (then nothing is opened).
    static UrlOpener *shared();
    // Installs `opener` (not owned; it must outlive its use); nullptr removes it.
    static void setShared(UrlOpener *opener);
};
