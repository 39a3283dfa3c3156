// The main of every test executable. Each test process gets its own temporary HOME with fresh XDG folders,
// so nothing a test does can touch the real profile, the real settings or the real keyring data.

#include "platform/appidentity.h"

#ifdef HOURLOOM_TEST_GUI
#include <QApplication>
#else
#include <QCoreApplication>
#endif
#include <QByteArray>
#include <QDir>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace
{

std::string g_home;

void removeHome()
{
    if (!g_home.empty() && qEnvironmentVariableIsEmpty("HOURLOOM_KEEP_TEST_HOME"))
        QDir(QString::fromStdString(g_home)).removeRecursively();
}

void isolateHome()
{
    const QByteArray base = qEnvironmentVariableIsEmpty("TMPDIR") ? QByteArray("/tmp") : qgetenv("TMPDIR");
    QByteArray pattern = base + "/hourloom-test-XXXXXX";
    if (!mkdtemp(pattern.data()))
        std::abort();
    g_home = pattern.toStdString();
    const QByteArray home = pattern;
    qputenv("HOME", home);
    qputenv("XDG_CONFIG_HOME", home + "/.config");
    qputenv("XDG_DATA_HOME", home + "/.local/share");
    qputenv("XDG_STATE_HOME", home + "/.local/state");
    qputenv("XDG_CACHE_HOME", home + "/.cache");
    for (const char *dir : {"/.config", "/.local/share", "/.local/state", "/.cache"})
        QDir().mkpath(QString::fromUtf8(home + dir));
    // Variables a developer's shell may carry must not steer the code under test.
    for (const char *name : {"HL_TEST_SOURCE", "HL_TEST_STORE", "HOURLOOM_SMOKE_HOLD_SECONDS",
             "HOURLOOM_DIAGNOSTICS_DIR", "HOURLOOM_TEST_NO_KEYCHAIN"})
        qunsetenv(name);
    std::atexit(removeHome);
}

} // namespace

int main(int argc, char **argv)
{
    isolateHome();
    ::testing::InitGoogleMock(&argc, argv);
#ifdef HOURLOOM_TEST_GUI
    // Listing the tests (ctest's discovery) runs without the tests' environment: never need a display for it.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
#else
    QCoreApplication app(argc, argv);
#endif
    HLConfigureApplicationIdentity();
    return RUN_ALL_TESTS();
}
