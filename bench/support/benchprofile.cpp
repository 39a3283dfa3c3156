#include "benchprofile.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <utility>

bool HLUseThrowAwayProfile(const QTemporaryDir &profile)
{
    if (!profile.isValid())
        return false;
    const QByteArray root = QFile::encodeName(profile.path());
    for (const auto &[variable, folder] :
        {std::pair {"XDG_CONFIG_HOME", "/config"}, std::pair {"XDG_DATA_HOME", "/data"},
            std::pair {"XDG_STATE_HOME", "/state"}, std::pair {"HOURLOOM_DIAGNOSTICS_DIR", "/diagnostics"}}) {
        QDir().mkpath(QFile::decodeName(root + folder));
        qputenv(variable, root + folder);
    }
    return true;
}
