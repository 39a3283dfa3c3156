#include "platform/sandbox.h"

#include <QFileInfo>
#include <QString>

bool HLRunningInAppSandbox()
{
    return QFileInfo::exists(QStringLiteral("/.flatpak-info"));
}
