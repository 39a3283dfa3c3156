#include "app/updatecontroller.h"

#include "jira/httptransport.h"
#include "platform/clock.h"
#include "platform/serialqueue.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QSaveFile>
#include <QSettings>
#include <QStandardPaths>
#include <QUrl>
#include <QXmlStreamReader>

#include <openssl/evp.h>
#include <syslog.h>
#include <unistd.h>

#include <exception>
#include <memory>

namespace
{

const QString kAutomaticKey = QStringLiteral("SUEnableAutomaticChecks");
const QString kLastCheckKey = QStringLiteral("SULastCheckTime");

const QString kNoFeed = QStringLiteral("This build has no update feed.");
const QString kCouldNotStart = QStringLiteral("Updates could not start.");
const QString kFeedNotHTTPS = QStringLiteral("The update feed of this build is not an HTTPS address.");
const QString kBadKey = QStringLiteral("The update signing key of this build is not a valid Ed25519 public key.");
const QString kChecking = QStringLiteral("Checking for updates…");
const QString kUpToDate = QStringLiteral("Hourloom %1 is the newest version.");
const QString kFound = QStringLiteral("Hourloom %1 is available.");
const QString kFeedTooLarge = QStringLiteral("The update feed is larger than 1 MiB, so it was not read.");
const QString kRedirect = QStringLiteral("The update server answered with a redirect, which is never followed.");
const QString kHTTPStatus = QStringLiteral("The update server answered with HTTP status %1.");
const QString kBadFeed = QStringLiteral("The update feed could not be read.");
const QString kPlainHTTP = QStringLiteral("The update is not offered over HTTPS, so it was not downloaded.");
const QString kWrongLength
    = QStringLiteral("The download's length does not match the update feed, so it was not installed.");
const QString kBadSignature = QStringLiteral("The download's signature is not valid, so it was not installed.");
const QString kNotSaved = QStringLiteral("The download could not be saved: %1");
const QString kDownloading = QStringLiteral("Downloading Hourloom %1…");
const QString kInstalling = QStringLiteral("Installing Hourloom %1…");
const QString kInstallFailed = QStringLiteral("The package installer did not install Hourloom %1.");
const QString kInstalledNow = QStringLiteral("Hourloom %1 is installed and restarts now.");
const QString kInstalledHeld = QStringLiteral("Hourloom %1 is installed and restarts when posting has finished.");

constexpr qint64 kMaxDownloadBytes = qint64(1) << 30;
constexpr int kCheckIntervalSeconds = 86400;

bool isHTTPS(const QString &text)
{
    const QUrl url(text, QUrl::StrictMode);
    return text.startsWith(QLatin1String("https://")) && url.isValid() && !url.host().isEmpty();
}

QByteArray rawPublicKey(const QString &base64)
{
    const auto decoded
        = QByteArray::fromBase64Encoding(base64.trimmed().toLatin1(), QByteArray::AbortOnBase64DecodingErrors);
    return decoded && decoded.decoded.size() == 32 ? decoded.decoded : QByteArray();
}

void logStartFailure(const QString &reason)
{
    const QByteArray line = QStringLiteral("Hourloom: updater did not start: %1").arg(reason).toUtf8();
    syslog(LOG_WARNING, "%s", line.constData());
}

} // namespace

struct UpdateController::FeedOutcome {
    State state = State::Failed;
    QString reason;
    Offer offer;
};

UpdateController::Configuration UpdateController::buildConfiguration()
{
    Configuration configuration;
    configuration.feedURL = QStringLiteral(HOURLOOM_UPDATE_FEED);
    configuration.publicKey = QStringLiteral(HOURLOOM_UPDATE_PUBLIC_KEY);
    return configuration;
}

UpdateController::UpdateController(QObject *parent)
    : UpdateController(buildConfiguration(), parent)
{
}

UpdateController::UpdateController(const Configuration &configuration, QObject *parent)
    : QObject(parent)
    , m_configuration(configuration)
    , m_unavailableReason(kNoFeed)
{
    installer = [](const QString &packagePath) {
        // The system's package manager, after the user authorises it; it checks the package's dependencies.
        QProcess process;
        process.start(QStringLiteral("pkexec"),
            {QStringLiteral("/usr/bin/apt-get"), QStringLiteral("install"), QStringLiteral("--yes"), packagePath});
        if (!process.waitForStarted())
            return false;
        process.waitForFinished(-1);
        return process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    };
    relaunch = [] {
        // The new process waits for this one to end, so the single-instance lock is free when it starts.
        const QString script = QStringLiteral("while kill -0 %1 2>/dev/null; do sleep 0.2; done; exec \"$0\"")
                                   .arg(QCoreApplication::applicationPid());
        QProcess::startDetached(
            QStringLiteral("/bin/sh"), {QStringLiteral("-c"), script, QCoreApplication::applicationFilePath()});
        QCoreApplication::quit();
    };
    m_schedule.setInterval(3600 * 1000);
    connect(&m_schedule, &QTimer::timeout, this, &UpdateController::checkDue);
}

UpdateController::~UpdateController() = default;

void UpdateController::start()
{
    if (m_started)
        return;
    m_started = true;
    if (m_configuration.feedURL.isEmpty() || m_configuration.publicKey.isEmpty()) {
        m_unavailableReason = kNoFeed;
    } else if (!isHTTPS(m_configuration.feedURL)) {
        m_unavailableReason = kFeedNotHTTPS;
        logStartFailure(m_unavailableReason);
    } else if (rawPublicKey(m_configuration.publicKey).isEmpty()) {
        m_unavailableReason = kBadKey;
        logStartFailure(m_unavailableReason);
    } else {
        m_available = true;
        m_unavailableReason.clear();
        m_queue = std::make_unique<SerialQueue>(QStringLiteral(HOURLOOM_APP_ID ".updates"));
        m_schedule.start();
        QTimer::singleShot(60 * 1000, this, &UpdateController::checkDue);
    }
    setState(m_available ? State::Idle : State::Unavailable, m_available ? QString() : m_unavailableReason);
}

bool UpdateController::canCheckForUpdates() const
{
    return m_available && m_state != State::Checking && m_state != State::Downloading && m_state != State::Installing
        && m_state != State::Installed;
}

bool UpdateController::automaticallyChecksForUpdates() const
{
    return QSettings().value(kAutomaticKey, true).toBool();
}

void UpdateController::setAutomaticallyChecksForUpdates(bool automatic)
{
    QSettings().setValue(kAutomaticKey, automatic);
    if (stateDidChange)
        stateDidChange();
}

QDateTime UpdateController::lastUpdateCheckDate() const
{
    const QVariant value = QSettings().value(kLastCheckKey);
    return value.typeId() == QMetaType::QDateTime ? value.toDateTime() : QDateTime();
}

void UpdateController::checkDue()
{
    const QDateTime last = lastUpdateCheckDate();
    if (automaticallyChecksForUpdates() && canCheckForUpdates()
        && (!last.isValid() || last.secsTo(Clock::shared().wallNow().toUTC()) >= kCheckIntervalSeconds))
        checkForUpdates();
}

void UpdateController::setState(State state, const QString &reason)
{
    m_state = state;
    m_reason = reason;
    if (stateDidChange)
        stateDidChange();
}

void UpdateController::checkForUpdates()
{
    if (!canCheckForUpdates())
        return;
    setState(State::Checking, kChecking);
    const QString feedURL = m_configuration.feedURL;
    const QString current = m_configuration.currentVersion;
    m_queue->async([this, feedURL, current] {
        FeedOutcome outcome;
        try {
            const HTTPTransport transport;
            qint64 status = 0;
            bool tooLarge = false;
            const QByteArray feed = transport.get(feedURL, kMaxFeedBytes, status, tooLarge);
            if (tooLarge) {
                outcome.reason = kFeedTooLarge;
            } else if (status >= 300 && status <= 399) {
                outcome.reason = kRedirect;
            } else if (status != 200) {
                outcome.reason = kHTTPStatus.arg(status);
            } else {
                static const QRegularExpression versionPattern(QStringLiteral("^[0-9A-Za-z.+~-]{1,64}$"));
                QXmlStreamReader reader(feed);
                bool sawChannel = false;
                Offer item;
                bool inItem = false;
                while (!reader.atEnd()) {
                    reader.readNext();
                    if (reader.isStartElement()) {
                        const QStringView name = reader.name();
                        if (name == QLatin1String("channel")) {
                            sawChannel = true;
                        } else if (name == QLatin1String("item")) {
                            inItem = true;
                            item = Offer();
                        } else if (inItem && name == QLatin1String("version")) {
                            item.version = reader.readElementText().trimmed();
                        } else if (inItem && name == QLatin1String("enclosure")) {
                            const QXmlStreamAttributes attributes = reader.attributes();
                            item.url = attributes.value(QLatin1String("url")).toString();
                            bool ok = false;
                            item.length = attributes.value(QLatin1String("length")).toLongLong(&ok);
                            if (!ok)
                                item.length = -1;
                            for (const QXmlStreamAttribute &attribute : attributes) {
                                if (attribute.name() == QLatin1String("edSignature"))
                                    item.signature = attribute.value().toString();
                                else if (attribute.name() == QLatin1String("version") && item.version.isEmpty())
                                    item.version = attribute.value().toString();
                            }
                        }
                    } else if (reader.isEndElement() && reader.name() == QLatin1String("item")) {
                        inItem = false;
                        if (versionPattern.match(item.version).hasMatch() && !item.url.isEmpty()
                            && compareVersions(item.version, current) > 0
                            && (outcome.offer.version.isEmpty()
                                || compareVersions(item.version, outcome.offer.version) > 0))
                            outcome.offer = item;
                    }
                }
                if (reader.hasError() || !sawChannel) {
                    outcome.reason = kBadFeed;
                    outcome.offer = Offer();
                } else if (outcome.offer.version.isEmpty()) {
                    outcome.state = State::UpToDate;
                    outcome.reason = kUpToDate.arg(current);
                } else {
                    outcome.state = State::UpdateFound;
                    outcome.reason = kFound.arg(outcome.offer.version);
                }
            }
        } catch (const std::exception &error) {
            outcome.reason = QString::fromUtf8(error.what());
        }
        QMetaObject::invokeMethod(
            this, [this, outcome] { finishCheck(outcome); }, Qt::QueuedConnection);
    });
}

void UpdateController::finishCheck(const FeedOutcome &outcome)
{
    if (outcome.state != State::Failed)
        QSettings().setValue(kLastCheckKey, Clock::shared().wallNow().toUTC());
    m_offer = outcome.offer;
    setState(outcome.state, outcome.reason);
}

void UpdateController::installUpdate()
{
    if (m_state != State::UpdateFound)
        return;
    const Offer offer = m_offer;
    if (!isHTTPS(offer.url)) {
        setState(State::Failed, kPlainHTTP);
        return;
    }
    if (offer.length <= 0 || offer.length > kMaxDownloadBytes) {
        setState(State::Failed, kWrongLength);
        return;
    }
    setState(State::Downloading, kDownloading.arg(offer.version));
    const QString publicKey = m_configuration.publicKey;
    const QString folder = QStandardPaths::writableLocation(QStandardPaths::CacheLocation) + QStringLiteral("/updates");
    auto install = installer;
    m_queue->async([this, offer, publicKey, folder, install] {
        auto done = [this](bool installed, const QString &failure) {
            QMetaObject::invokeMethod(
                this, [this, installed, failure] { finishInstall(installed, failure); }, Qt::QueuedConnection);
        };
        QByteArray package;
        try {
            const HTTPTransport transport;
            qint64 status = 0;
            bool tooLarge = false;
            package = transport.get(offer.url, offer.length, status, tooLarge);
            if (tooLarge)
                return done(false, kWrongLength);
            if (status >= 300 && status <= 399)
                return done(false, kRedirect);
            if (status != 200)
                return done(false, kHTTPStatus.arg(status));
        } catch (const std::exception &error) {
            return done(false, QString::fromUtf8(error.what()));
        }
        if (package.size() != offer.length)
            return done(false, kWrongLength);
        if (!verifySignature(package, offer.signature, publicKey))
            return done(false, kBadSignature);

        QDir().mkpath(folder);
        QFile::setPermissions(folder, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        const QString path = folder + QStringLiteral("/hourloom_%1.deb").arg(offer.version);
        QSaveFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(package) != package.size()
            || !file.setPermissions(QFile::ReadOwner | QFile::WriteOwner) || !file.commit())
            return done(false, kNotSaved.arg(file.errorString()));
        QMetaObject::invokeMethod(
            this, [this, offer] { setState(State::Installing, kInstalling.arg(offer.version)); }, Qt::QueuedConnection);
        const bool installed = install && install(path);
        QFile::remove(path);
        done(installed, installed ? QString() : kInstallFailed.arg(offer.version));
    });
}

void UpdateController::finishInstall(bool installed, const QString &failure)
{
    if (!installed) {
        setState(State::Failed, failure);
        return;
    }
    relaunchAfterInstall();
}

void UpdateController::relaunchAfterInstall()
{
    const QString version = m_offer.version;
    m_heldRelaunch = [this] { relaunchNow(); };
    if (shouldPostponeRelaunch && shouldPostponeRelaunch()) {
        setState(State::Installed, kInstalledHeld.arg(version));
        return;
    }
    setState(State::Installed, kInstalledNow.arg(version));
    const auto run = std::move(m_heldRelaunch);
    m_heldRelaunch = nullptr;
    run();
}

void UpdateController::relaunchIfPostponed()
{
    if (!m_heldRelaunch || (shouldPostponeRelaunch && shouldPostponeRelaunch()))
        return;
    const auto run = std::move(m_heldRelaunch);
    m_heldRelaunch = nullptr;
    m_reason = kInstalledNow.arg(m_offer.version);
    if (stateDidChange)
        stateDidChange();
    run();
}

void UpdateController::relaunchNow()
{
    if (relaunch)
        relaunch();
}

bool UpdateController::verifySignature(const QByteArray &data, const QString &signature, const QString &publicKey)
{
    const QByteArray key = rawPublicKey(publicKey);
    const auto decoded
        = QByteArray::fromBase64Encoding(signature.trimmed().toLatin1(), QByteArray::AbortOnBase64DecodingErrors);
    if (key.isEmpty() || !decoded || decoded.decoded.size() != 64)
        return false;
    const QByteArray &raw = decoded.decoded;
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> pkey(
        EVP_PKEY_new_raw_public_key(
            EVP_PKEY_ED25519, nullptr, reinterpret_cast<const unsigned char *>(key.constData()), size_t(key.size())),
        &EVP_PKEY_free);
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
    if (!pkey || !context || EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, pkey.get()) != 1)
        return false;
    return EVP_DigestVerify(context.get(), reinterpret_cast<const unsigned char *>(raw.constData()), size_t(raw.size()),
               reinterpret_cast<const unsigned char *>(data.constData()), size_t(data.size()))
        == 1;
}

int UpdateController::compareVersions(const QString &a, const QString &b)
{
    static const QRegularExpression separators(QStringLiteral("[.+~-]"));
    const QStringList left = a.split(separators);
    const QStringList right = b.split(separators);
    for (qsizetype index = 0; index < std::max(left.size(), right.size()); ++index) {
        const QString x = index < left.size() ? left[index] : QStringLiteral("0");
        const QString y = index < right.size() ? right[index] : QStringLiteral("0");
        bool xNumber = false;
        bool yNumber = false;
        const qulonglong xValue = x.toULongLong(&xNumber);
        const qulonglong yValue = y.toULongLong(&yNumber);
        if (xNumber && yNumber) {
            if (xValue != yValue)
                return xValue < yValue ? -1 : 1;
        } else if (const int order = QString::compare(x, y); order != 0) {
            return order < 0 ? -1 : 1;
        }
    }
    return 0;
}
