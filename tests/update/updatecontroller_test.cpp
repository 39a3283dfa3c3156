#include "app/updatecontroller.h"

#include "standin/feed.h"
#include "standin/server.h"
#include "support/testenv.h"

#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QSettings>

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>

namespace
{

using State = UpdateController::State;

const QByteArray kPackage = QByteArray("!<arch>\ndebian-binary   ") + QByteArray(40000, 'p');

class UpdateTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_server.start()) << qPrintable(m_server.errorString());
        ASSERT_TRUE(m_elsewhere.start());
        qputenv("HOURLOOM_TEST_CA_FILE", m_server.caFile().toLocal8Bit());
        QSettings().clear();
        m_feed = std::make_unique<standin::UpdateFeed>(m_server);
        m_updates = makeController(m_feed->feedURL(), m_feed->publicKey());
    }

    std::unique_ptr<UpdateController> makeController(const QString &feed, const QString &key)
    {
        UpdateController::Configuration configuration;
        configuration.feedURL = feed;
        configuration.publicKey = key;
        configuration.currentVersion = QStringLiteral("1.0.0");
        auto controller = std::make_unique<UpdateController>(configuration);
        controller->installer = [this](const QString &path) {
            QFile file(path);
            std::lock_guard lock(m_mutex);
            m_installedPermissions = QFileInfo(path).permissions();
            m_installed.append(file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("unreadable"));
            return true;
        };
        controller->relaunch = [this] { ++m_relaunches; };
        controller->shouldPostponeRelaunch = [this] { return m_posting; };
        controller->stateDidChange = [this] { ++m_changes; };
        return controller;
    }

    bool waitUntilSettled()
    {
        return testenv::waitFor(
            [this] {
                const State state = m_updates->state();
                return state != State::Checking && state != State::Downloading && state != State::Installing;
            },
            30000);
    }

    void check()
    {
        m_updates->start();
        m_updates->checkForUpdates();
        ASSERT_EQ(m_updates->state(), State::Checking);
        EXPECT_FALSE(m_updates->canCheckForUpdates());
        ASSERT_TRUE(waitUntilSettled());
    }

    void install()
    {
        m_updates->installUpdate();
        ASSERT_TRUE(waitUntilSettled());
    }

    standin::Server m_server;
    standin::Server m_elsewhere {standin::Server::Mode::Recorder};
    std::unique_ptr<standin::UpdateFeed> m_feed;
    std::unique_ptr<UpdateController> m_updates;
    std::mutex m_mutex;
    QList<QByteArray> m_installed;
    QFile::Permissions m_installedPermissions;
    int m_relaunches = 0;
    int m_changes = 0;
    bool m_posting = false;
};

} // namespace

TEST(UpdateAvailability, NeedsAnHTTPSFeedAndAValidKey)
{
    const QString key = QString::fromLatin1(QByteArray(32, 'k').toBase64());
    const QList<std::tuple<QString, QString, QString>> cases = {
        {QString(), QString(), QStringLiteral("This build has no update feed.")},
        {QStringLiteral("https://updates.example/appcast.xml"), QString(),
            QStringLiteral("This build has no update feed.")},
        {QString(), key, QStringLiteral("This build has no update feed.")},
        {QStringLiteral("http://updates.example/appcast.xml"), key,
            QStringLiteral("The update feed of this build is not an HTTPS address.")},
        {QStringLiteral("https://updates.example/appcast.xml"), QStringLiteral("c2hvcnQ="),
            QStringLiteral("The update signing key of this build is not a valid Ed25519 public key.")},
    };
    for (const auto &[feed, publicKey, reason] : cases) {
        UpdateController updates({feed, publicKey, QStringLiteral("1.0.0")});
        updates.start();
        EXPECT_FALSE(updates.available());
        EXPECT_EQ(updates.unavailableReason(), reason);
        EXPECT_EQ(updates.state(), State::Unavailable);
        EXPECT_FALSE(updates.canCheckForUpdates());
        updates.checkForUpdates();
        EXPECT_EQ(updates.state(), State::Unavailable);
    }
}

TEST(UpdateVersions, ComparesNumericallyPartByPart)
{
    EXPECT_GT(UpdateController::compareVersions(QStringLiteral("1.10.0"), QStringLiteral("1.9.9")), 0);
    EXPECT_EQ(UpdateController::compareVersions(QStringLiteral("1.0"), QStringLiteral("1.0.0")), 0);
    EXPECT_LT(UpdateController::compareVersions(QStringLiteral("0.9.0"), QStringLiteral("1.0.0")), 0);
    EXPECT_GT(UpdateController::compareVersions(QStringLiteral("1.0.1"), QStringLiteral("1.0")), 0);
}

TEST_F(UpdateTest, FindsTheNewestVersionAndInstallsItOnlyAfterVerifyingIt)
{
    m_feed->publish({{QStringLiteral("0.9.0"), kPackage}, {QStringLiteral("1.10.0"), kPackage},
        {QStringLiteral("1.2.0"), QByteArray("older")}, {QStringLiteral("1.0.0"), kPackage}});
    EXPECT_FALSE(m_updates->lastUpdateCheckDate().isValid());
    check();
    EXPECT_EQ(m_updates->state(), State::UpdateFound);
    EXPECT_EQ(m_updates->reason(), QStringLiteral("Hourloom 1.10.0 is available."));
    EXPECT_EQ(m_updates->offeredVersion(), QStringLiteral("1.10.0"));
    EXPECT_TRUE(m_updates->lastUpdateCheckDate().isValid());
    EXPECT_TRUE(m_updates->canCheckForUpdates());
    EXPECT_GE(m_changes, 3); // started, checking, found

    install();
    EXPECT_EQ(m_updates->state(), State::Installed);
    EXPECT_EQ(m_updates->reason(), QStringLiteral("Hourloom 1.10.0 is installed and restarts now."));
    ASSERT_EQ(m_installed, QList<QByteArray> {kPackage});
    EXPECT_EQ(m_installedPermissions & (QFile::ReadGroup | QFile::ReadOther | QFile::WriteGroup | QFile::WriteOther),
        QFile::Permissions());
    EXPECT_EQ(m_relaunches, 1);
    EXPECT_EQ(
        m_server.requests(QStringLiteral("GET"), QStringLiteral("^/updates/hourloom_1.10.0_amd64.deb$")).size(), 1);
}

TEST_F(UpdateTest, SaysSoWhenNoNewerVersionIsOffered)
{
    m_feed->publish({{QStringLiteral("0.9.0"), kPackage}, {QStringLiteral("1.0.0"), kPackage}});
    check();
    EXPECT_EQ(m_updates->state(), State::UpToDate);
    EXPECT_EQ(m_updates->reason(), QStringLiteral("Hourloom 1.0.0 is the newest version."));
    EXPECT_TRUE(m_updates->lastUpdateCheckDate().isValid());
    m_updates->installUpdate(); // nothing to install
    EXPECT_EQ(m_updates->state(), State::UpToDate);
}

TEST_F(UpdateTest, RefusesFeedsItCannotTrust)
{
    const QString get = QStringLiteral("GET");
    const QString feedPath = QStringLiteral("^/updates/appcast.xml$");
    struct Case {
        const char *name;
        std::function<void()> prepare;
        QString reason;
    };
    const QList<Case> cases = {
        {"feed over 1 MiB",
            [&] {
                m_feed->publish({{QStringLiteral("2.0.0"), kPackage}}, UpdateController::kMaxFeedBytes);
            },
            QStringLiteral("The update feed is larger than 1 MiB, so it was not read.")},
        {"redirect",
            [&] {
                m_feed->publish({{QStringLiteral("2.0.0"), kPackage}});
                m_server.addFault(
                    standin::Fault::redirect(get, feedPath, m_elsewhere.origin() + QStringLiteral("/appcast.xml")));
            },
            QStringLiteral("The update server answered with a redirect, which is never followed.")},
        {"server error", [&] { m_server.addFault(standin::Fault::serviceUnavailable(get, feedPath)); },
            QStringLiteral("The update server answered with HTTP status 503.")},
        {"not XML", [&] { m_feed->publishRaw("<rss><channel><item>"); },
            QStringLiteral("The update feed could not be read.")},
        {"entity bomb",
            [&] {
                m_feed->publishRaw("<?xml version=\"1.0\"?><!DOCTYPE r [<!ENTITY a \"aaaaaaaaaa\"><!ENTITY b "
                                   "\"&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;\"><!ENTITY c \"&b;&b;&b;&b;&b;&b;&b;&b;&b;&b;\">"
                                   "<!ENTITY d \"&c;&c;&c;&c;&c;&c;&c;&c;&c;&c;\">]><rss><channel><item>"
                                   "<sparkle:version>&d;</sparkle:version></item></channel></rss>");
            },
            QStringLiteral("The update feed could not be read.")},
    };
    for (const Case &c : cases) {
        m_server.clearFaults();
        c.prepare();
        m_updates = makeController(m_feed->feedURL(), m_feed->publicKey());
        check();
        EXPECT_EQ(m_updates->state(), State::Failed) << c.name;
        EXPECT_EQ(m_updates->reason(), c.reason) << c.name;
        EXPECT_FALSE(m_updates->lastUpdateCheckDate().isValid()) << c.name;
        EXPECT_TRUE(m_updates->canCheckForUpdates()) << c.name; // a failed check may be retried
    }
    EXPECT_EQ(m_elsewhere.hitCount(), 0);
}

TEST_F(UpdateTest, NeverInstallsADownloadThatFailsVerification)
{
    const QString version = QStringLiteral("2.0.0");
    const QString packagePath = QStringLiteral("/updates/hourloom_2.0.0_amd64.deb");
    const QList<std::tuple<const char *, standin::UpdateFeed::Release, QString>> cases = {
        {"bad signature", {version, kPackage, -1, m_feed->sign(kPackage + "tampered")},
            QStringLiteral("The download's signature is not valid, so it was not installed.")},
        {"signature of another key", {version, kPackage, -1, standin::UpdateFeed(m_elsewhere).sign(kPackage)},
            QStringLiteral("The download's signature is not valid, so it was not installed.")},
        {"longer than announced", {version, kPackage, kPackage.size() - 1},
            QStringLiteral("The download's length does not match the update feed, so it was not installed.")},
        {"shorter than announced", {version, kPackage, kPackage.size() + 1},
            QStringLiteral("The download's length does not match the update feed, so it was not installed.")},
        {"plain HTTP",
            {version, kPackage, -1, {}, QStringLiteral("http://127.0.0.1:%1%2").arg(m_server.port()).arg(packagePath)},
            QStringLiteral("The update is not offered over HTTPS, so it was not downloaded.")},
        {"redirected download", {version, kPackage, -1, {}, m_server.origin() + QStringLiteral("/updates/moved.deb")},
            QStringLiteral("The update server answered with a redirect, which is never followed.")},
    };
    m_server.addFault(standin::Fault::redirect(
        QStringLiteral("GET"), QStringLiteral("^/updates/moved.deb$"), m_elsewhere.origin() + packagePath, -1));
    for (const auto &[name, release, reason] : cases) {
        m_feed->publish({release});
        m_updates = makeController(m_feed->feedURL(), m_feed->publicKey());
        check();
        ASSERT_EQ(m_updates->state(), State::UpdateFound) << name;
        install();
        EXPECT_EQ(m_updates->state(), State::Failed) << name;
        EXPECT_EQ(m_updates->reason(), reason) << name;
    }
    EXPECT_TRUE(m_installed.isEmpty());
    EXPECT_EQ(m_relaunches, 0);
    EXPECT_EQ(m_elsewhere.hitCount(), 0);
    EXPECT_TRUE(
        UpdateController::verifySignature(kPackage, QString::fromLatin1(m_feed->sign(kPackage)), m_feed->publicKey()));
}

TEST_F(UpdateTest, HoldsTheRelaunchWhilePostingAndRunsItOnceAfterwards)
{
    m_feed->publish({{QStringLiteral("2.0.0"), kPackage}});
    check();
    m_posting = true;
    install();
    EXPECT_EQ(m_updates->state(), State::Installed);
    EXPECT_EQ(
        m_updates->reason(), QStringLiteral("Hourloom 2.0.0 is installed and restarts when posting has finished."));
    EXPECT_TRUE(m_updates->relaunchHeld());
    EXPECT_EQ(m_relaunches, 0);
    EXPECT_FALSE(m_updates->canCheckForUpdates());

    m_updates->relaunchIfPostponed(); // another posting run is still going
    EXPECT_EQ(m_relaunches, 0);
    m_posting = false;
    m_updates->relaunchIfPostponed();
    EXPECT_EQ(m_relaunches, 1);
    EXPECT_FALSE(m_updates->relaunchHeld());
    EXPECT_EQ(m_updates->reason(), QStringLiteral("Hourloom 2.0.0 is installed and restarts now."));
    m_updates->relaunchIfPostponed();
    EXPECT_EQ(m_relaunches, 1);
}

TEST_F(UpdateTest, KeepsTheAutomaticSwitch)
{
    EXPECT_TRUE(m_updates->automaticallyChecksForUpdates());
    const int before = m_changes;
    m_updates->setAutomaticallyChecksForUpdates(false);
    EXPECT_FALSE(makeController(m_feed->feedURL(), m_feed->publicKey())->automaticallyChecksForUpdates());
    EXPECT_EQ(m_changes, before + 1);
}

// The release recipe: a key pair and a signature made with the openssl tool verify here.
TEST(UpdateSignature, AcceptsWhatTheOpensslToolSigns)
{
    const QString folder = testenv::freshDir(QStringLiteral("signing"));
    auto run = [&](const QString &command) {
        QProcess shell;
        shell.setWorkingDirectory(folder);
        shell.start(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), command});
        EXPECT_TRUE(shell.waitForFinished(30000));
        EXPECT_EQ(shell.exitCode(), 0) << qPrintable(command);
        return QString::fromLatin1(shell.readAllStandardOutput()).trimmed();
    };
    QFile package(folder + QStringLiteral("/hourloom_2.0.0_amd64.deb"));
    ASSERT_TRUE(package.open(QIODevice::WriteOnly));
    package.write(kPackage);
    package.close();
    run(QStringLiteral("openssl genpkey -algorithm ed25519 -out update-key.pem"));
    const QString publicKey
        = run(QStringLiteral("openssl pkey -in update-key.pem -pubout -outform DER | tail -c 32 | base64"));
    const QString signature = run(
        QStringLiteral("openssl pkeyutl -sign -inkey update-key.pem -rawin -in hourloom_2.0.0_amd64.deb | base64 -w0"));
    EXPECT_TRUE(UpdateController::verifySignature(kPackage, signature, publicKey));
    EXPECT_FALSE(UpdateController::verifySignature(kPackage + ' ', signature, publicKey));
    EXPECT_FALSE(UpdateController::verifySignature(kPackage, signature.left(40), publicKey));
    EXPECT_FALSE(UpdateController::verifySignature(kPackage, QStringLiteral("not base64!"), publicKey));
}
