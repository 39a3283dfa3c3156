#include "diagnostics/diagnosticlog.h"

#include "platform/clock.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <QMutex>
#include <QMutexLocker>
#include <QSettings>
#include <QStringDecoder>
#include <QSysInfo>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

constexpr qint64 kRotateBytes = 262144;
constexpr int kFileCount = 3;
const QString kSettingKey = QStringLiteral("SaveDiagnosticLogs");

const QStringList &allowedEvents()
{
    using namespace DiagnosticEvent;
    static const QStringList names {kAppStarted, kNetworkCompleted, kNetworkFailed, kJiraOperationFailed,
        kTrackingUnavailable, kTrackingRecovered, kJiraCompareCompleted, kJiraPostCompleted};
    return names;
}

const QStringList &allowedKeys()
{
    using namespace DiagnosticKey;
    static const QStringList keys {kDurationMs, kHttpStatus, kErrorCode, kCount, kFailed};
    return keys;
}

// One process-wide lock: records from different threads (and instances over the same folder) never
// interleave, and the setting never changes halfway through a record.
QMutex &logLock()
{
    static QMutex mutex;
    return mutex;
}

// Numbers and booleans: a finished Jira check records "failed" as true or false, and dropping it would hide
// every failure. Texts, lists and maps never enter a record.
bool isNumber(const QVariant &value)
{
    switch (value.typeId()) {
    case QMetaType::Bool:
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::Long:
    case QMetaType::ULong:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Short:
    case QMetaType::UShort:
    case QMetaType::Double:
    case QMetaType::Float:
        return true;
    default:
        return false;
    }
}

// Creates the folder and any missing parents with 0700; false when the folder cannot exist.
bool makeFolder(const QString &directory)
{
    const QByteArray path = QFile::encodeName(QDir::cleanPath(directory));
    if (path.isEmpty())
        return false;
    for (qsizetype i = 1; i <= path.size(); ++i) {
        if (i != path.size() && path.at(i) != '/')
            continue;
        const QByteArray part = path.left(i);
        if (::mkdir(part.constData(), 0700) == 0)
            ::chmod(part.constData(), 0700);
        else if (errno != EEXIST)
            return false;
    }
    struct stat info {
    };
    return ::stat(path.constData(), &info) == 0 && S_ISDIR(info.st_mode);
}

qint64 fileSize(const QByteArray &path)
{
    struct stat info {
    };
    if (::stat(path.constData(), &info) != 0)
        return 0;
    return info.st_size;
}

bool writeAll(int fd, const char *data, size_t size)
{
    while (size > 0) {
        const ssize_t written = ::write(fd, data, size);
        if (written < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        data += written;
        size -= size_t(written);
    }
    return true;
}

bool isUtf8(const QByteArray &bytes)
{
    QStringDecoder decoder(QStringConverter::Utf8);
    const QString text = decoder.decode(bytes);
    return !decoder.hasError();
}

} // namespace

DiagnosticLog::DiagnosticLog(const QString &directory)
    : m_directory(directory)
{
}

QVariantMap DiagnosticLog::safeEvent(const QString &name, const QVariantMap &values)
{
    if (!allowedEvents().contains(name))
        return {};
    QVariantMap record;
    record.insert(DiagnosticKey::kEvent, name);
    for (const QString &key : allowedKeys()) {
        const auto it = values.constFind(key);
        if (it == values.constEnd() || !isNumber(*it))
            continue;
        if (!std::isfinite(it->toDouble()))
            continue;
        record.insert(key, *it);
    }
    return record;
}

bool DiagnosticLog::enabled()
{
    QSettings settings;
    return !settings.contains(kSettingKey) || settings.value(kSettingKey).toBool();
}

void DiagnosticLog::setEnabled(bool enabled)
{
    QMutexLocker locker(&logLock());
    QSettings settings;
    settings.setValue(kSettingKey, enabled);
    settings.sync();
}

QString DiagnosticLog::sharedDirectory()
{
    const QString overridden = qEnvironmentVariable("HOURLOOM_DIAGNOSTICS_DIR");
    if (!overridden.isEmpty())
        return overridden;
#ifdef Q_OS_MACOS
    return QDir::homePath() + QStringLiteral("/Library/Logs/Hourloom");
#else
    QString state = qEnvironmentVariable("XDG_STATE_HOME");
    // The XDG rules ignore a relative value.
    if (state.isEmpty() || QDir::isRelativePath(state))
        state = QDir::homePath() + QStringLiteral("/.local/state");
    return state + QStringLiteral("/Hourloom");
#endif
}

DiagnosticLog &DiagnosticLog::shared()
{
    static DiagnosticLog log(sharedDirectory());
    return log;
}

QString DiagnosticLog::path(int index) const
{
    return QDir(m_directory).filePath(QStringLiteral("diagnostics-%1.jsonl").arg(index));
}

void DiagnosticLog::setClock(const Clock *clock)
{
    QMutexLocker locker(&logLock());
    m_clock = clock;
}

void DiagnosticLog::record(const QString &name, const QVariantMap &values)
{
    QMutexLocker locker(&logLock());
    try {
        recordLocked(name, values);
    } catch (...) {
        // Diagnostics never disturb the caller: a record that cannot be written is lost.
    }
}

void DiagnosticLog::recordLocked(const QString &name, const QVariantMap &values)
{
    if (!enabled())
        return;
    QVariantMap event = safeEvent(name, values);
    if (event.isEmpty())
        return;
    event.insert(DiagnosticKey::kTime, double((m_clock ? *m_clock : Clock::shared()).wallMs()) / 1000.0);
    const QByteArray json = QJsonDocument(QJsonObject::fromVariantMap(event)).toJson(QJsonDocument::Compact);
    if (json.isEmpty())
        return;
    if (!makeFolder(m_directory))
        return;

    const QByteArray current = QFile::encodeName(path(0));
    if (fileSize(current) + json.size() >= kRotateBytes) {
        const QByteArray older = QFile::encodeName(path(1));
        const QByteArray oldest = QFile::encodeName(path(2));
        ::unlink(oldest.constData());
        ::rename(older.constData(), oldest.constData());
        ::rename(current.constData(), older.constData());
    }

    int fd = ::open(current.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd >= 0)
        ::fchmod(fd, 0600); // the umask may have taken bits we want; it never adds any
    else if (errno == EEXIST)
        fd = ::open(current.constData(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return;
    if (::lseek(fd, 0, SEEK_END) >= 0 && writeAll(fd, json.constData(), size_t(json.size())))
        writeAll(fd, "\n", 1);
    ::close(fd);
}

QString DiagnosticLog::report()
{
    QMutexLocker locker(&logLock());
    const QString version = QCoreApplication::applicationVersion();
#ifdef HOURLOOM_BUILD_VERSION
    const QString build = QStringLiteral(HOURLOOM_BUILD_VERSION);
#else
    const QString build;
#endif
#ifdef Q_OS_MACOS
    const QString system = QStringLiteral("macOS");
    const QString systemVersion = QSysInfo::productVersion();
#else
    // Without one name for the system, the line names the distribution and the kernel it runs on.
    const QString system = QSysInfo::prettyProductName();
    const QString systemVersion = QSysInfo::kernelType() + QLatin1Char(' ') + QSysInfo::kernelVersion();
#endif
    QString text = QStringLiteral("Hourloom diagnostics\nVersion: %1 (%2)\n%3: %4\n\n")
                       .arg(version.isEmpty() ? QStringLiteral("development") : version,
                           build.isEmpty() ? QStringLiteral("unknown") : build, system, systemVersion);
    text += QStringLiteral("Saving diagnostic logs: %1\n\n")
                .arg(enabled() ? QStringLiteral("enabled") : QStringLiteral("disabled"));

    for (int index = kFileCount - 1; index >= 0; --index) {
        QFile file(path(index));
        // A file this large was not written by this log; it is skipped whole rather than read.
        // Only regular files: a device or a pipe in its place would never end or would block the report.
        if (!QFileInfo(file).isFile() || file.size() > kRotateBytes || !file.open(QIODevice::ReadOnly))
            continue;
        // The file may have grown since its size was taken; the guard holds for what is actually read.
        const QByteArray contents = file.read(kRotateBytes + 1);
        if (contents.size() > kRotateBytes)
            continue;
        // The file is read as UTF-8 as a whole: one that is not valid UTF-8 was not written by this log and
        // contributes nothing, not even its readable lines.
        if (!isUtf8(contents))
            continue;
        const QList<QByteArray> lines = contents.split('\n');
        for (const QByteArray &line : lines) {
            if (line.trimmed().isEmpty())
                continue;
            QJsonParseError error {};
            const QJsonDocument document = QJsonDocument::fromJson(line, &error);
            if (error.error != QJsonParseError::NoError || !document.isObject())
                continue;
            const QJsonObject object = document.object();
            const QJsonValue name = object.value(DiagnosticKey::kEvent);
            if (!name.isString())
                continue;
            // Filtering again keeps a hand-edited file from smuggling other keys or texts into the report.
            QVariantMap event = safeEvent(name.toString(), object.toVariantMap());
            if (event.isEmpty())
                continue;
            const QJsonValue time = object.value(DiagnosticKey::kTime);
            if (time.isDouble())
                event.insert(DiagnosticKey::kTime, time.toVariant());
            const QByteArray json = QJsonDocument(QJsonObject::fromVariantMap(event)).toJson(QJsonDocument::Compact);
            text += QString::fromUtf8(json) + QLatin1Char('\n');
        }
    }
    return text;
}

bool DiagnosticLog::deleteLogs(QString *error)
{
    QMutexLocker locker(&logLock());
    for (int index = 0; index < kFileCount; ++index) {
        const QString name = path(index);
        const QByteArray encoded = QFile::encodeName(name);
        struct stat info {
        };
        if (::lstat(encoded.constData(), &info) != 0)
            continue; // a missing file is no error
        if (::unlink(encoded.constData()) != 0) {
            if (error)
                *error = QStringLiteral("Could not delete %1: %2")
                             .arg(QDir::toNativeSeparators(name), QString::fromLocal8Bit(std::strerror(errno)));
            return false;
        }
    }
    return true;
}
