#pragma once

#include <QDateTime>
#include <QObject>
#include <QString>
#include <QTimer>

#include <functional>
#include <memory>

class SerialQueue;

// Software updates with a small state for the rest of the application: whether updates are available in this
// build and why not, whether a check may run now, the automatic-check switch and the date of the last check.
//
// The build names an HTTPS appcast feed and the Ed25519 public key its downloads are signed with (CMake cache
// settings HOURLOOM_UPDATE_FEED and HOURLOOM_UPDATE_PUBLIC_KEY); without both, updates are unavailable. A
// check reads the feed (at most 1 MiB, never through a redirect) and offers the newest version above this
// one. Installing downloads the package over HTTPS, refuses it unless its length is the announced one and its
// Ed25519 signature verifies, and only then hands it to the system's package installer. The relaunch that
// follows is held back while worklogs are being posted.
//
// Lives on the main thread; network work runs on a queue of its own.
class UpdateController : public QObject
{
    Q_OBJECT

public:
    struct Configuration {
        QString feedURL; // "https://…/appcast.xml"
        QString publicKey; // base64 of the 32-byte Ed25519 public key
        QString currentVersion = QStringLiteral(HOURLOOM_VERSION);
    };

    enum class State {
        Unavailable,
        Idle, // nothing checked yet in this run
        Checking,
        UpToDate,
        UpdateFound,
        Downloading,
        Installing,
        Installed, // relaunch done or held
        Failed,
    };

    // The build's own settings.
    static Configuration buildConfiguration();

    explicit UpdateController(QObject *parent = nullptr);
    UpdateController(const Configuration &configuration, QObject *parent = nullptr);
    ~UpdateController() override;

    // Once: decides availability and, with automatic checks on, schedules them.
    void start();

    bool available() const { return m_available; }
    QString unavailableReason() const { return m_unavailableReason; }
    bool canCheckForUpdates() const;
    bool automaticallyChecksForUpdates() const;
    void setAutomaticallyChecksForUpdates(bool automatic);
    QDateTime lastUpdateCheckDate() const; // invalid: never checked

    // A check the user asked for ("Check Now").
    void checkForUpdates();
    // Downloads, verifies and installs the update the last check found.
    void installUpdate();

    State state() const { return m_state; }
    // One sentence for the state, shown in Settings ("Hourloom 0.2.0 is available.").
    QString reason() const { return m_reason; }
    QString offeredVersion() const { return m_offer.version; }

    // Asked before the application relaunches after an update; the shell answers true while posting.
    std::function<bool()> shouldPostponeRelaunch;
    // Runs whenever the state above may have changed.
    std::function<void()> stateDidChange;
    // Called when posting ends: runs a held relaunch once, unless it should still wait.
    void relaunchIfPostponed();
    // An update has been installed: relaunches now, or holds the relaunch while it should wait.
    void relaunchAfterInstall();
    bool relaunchHeld() const { return static_cast<bool>(m_heldRelaunch); }

    // Replaceable for tests. The installer gets the verified package's path and answers whether it
    // installed; it runs on the update queue. The default asks the system's package manager through pkexec.
    std::function<bool(const QString &packagePath)> installer;
    // The default starts the installed program again and quits this one.
    std::function<void()> relaunch;

    static constexpr qint64 kMaxFeedBytes = 1024 * 1024;
    // Verifies an Ed25519 signature (base64) of `data` with a public key (base64 of 32 bytes).
    static bool verifySignature(const QByteArray &data, const QString &signature, const QString &publicKey);
    // Negative, zero or positive as version `a` is older, equal or newer than `b` ("0.10.1" > "0.9").
    static int compareVersions(const QString &a, const QString &b);

private:
    struct Offer {
        QString version;
        QString url;
        qint64 length = -1;
        QString signature;
    };
    struct FeedOutcome;

    void setState(State state, const QString &reason);
    void checkDue();
    void finishCheck(const FeedOutcome &outcome);
    void finishInstall(bool installed, const QString &failure);
    void relaunchNow();

    Configuration m_configuration;
    bool m_started = false;
    bool m_available = false;
    QString m_unavailableReason;
    State m_state = State::Unavailable;
    QString m_reason;
    Offer m_offer;
    std::function<void()> m_heldRelaunch;
    QTimer m_schedule;
    std::unique_ptr<SerialQueue> m_queue;
};
