#include "support/testenv.h"

#include <QDir>
#include <QUuid>

#include <ctime>

namespace testenv
{

QString home()
{
    return qEnvironmentVariable("HOME");
}

QString freshDir(const QString &name)
{
    const QString path = home() + QStringLiteral("/t/") + name + QLatin1Char('-')
        + QUuid::createUuid().toString(QUuid::WithoutBraces).left(8);
    QDir().mkpath(path);
    return path;
}

QString hourloomBinary()
{
    return QStringLiteral(HOURLOOM_BINARY_DIR "/src/app/hourloom");
}

QString dataPath(const QString &name)
{
    return QStringLiteral(HOURLOOM_TEST_DATA_DIR "/") + name;
}

ScopedTimeZone::ScopedTimeZone(const QByteArray &zone)
{
    m_hadPrevious = qEnvironmentVariableIsSet("TZ");
    m_previous = qgetenv("TZ");
    qputenv("TZ", zone);
    tzset();
}

ScopedTimeZone::~ScopedTimeZone()
{
    if (m_hadPrevious)
        qputenv("TZ", m_previous);
    else
        qunsetenv("TZ");
    tzset();
}

} // namespace testenv
