#include "app/buildinfo.h"

#include <QCoreApplication>

QString HLBuildVersion()
{
#ifdef HOURLOOM_BUILD_VERSION
    return QStringLiteral(HOURLOOM_BUILD_VERSION);
#else
    return QStringLiteral("unknown");
#endif
}

QString HLVersionText()
{
    return QStringLiteral("%1 (%2)").arg(QCoreApplication::applicationVersion(), HLBuildVersion());
}
