#include "platform/appidentity.h"

#include <QCoreApplication>

void HLConfigureApplicationIdentity()
{
    QCoreApplication::setOrganizationName(QStringLiteral("Hourloom"));
    QCoreApplication::setOrganizationDomain(QStringLiteral("hourloom.app"));
    QCoreApplication::setApplicationName(QStringLiteral("Hourloom"));
    QCoreApplication::setApplicationVersion(QStringLiteral(HOURLOOM_VERSION));
}

QString HLApplicationIdentifier()
{
    return QStringLiteral(HOURLOOM_APP_ID);
}
