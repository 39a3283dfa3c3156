// The main of every benchmark program: the settings, data, state and diagnostic folders of a run are
// throw-away ones, so figures never depend on the user's profile and a run never writes into it.

#include "platform/appidentity.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

int main(int argc, char **argv)
{
    QTemporaryDir profile;
    if (!profile.isValid())
        return 1;
    const QByteArray root = QFile::encodeName(profile.path());
    for (const auto &[variable, folder] :
        {std::pair {"XDG_CONFIG_HOME", "/config"}, std::pair {"XDG_DATA_HOME", "/data"},
            std::pair {"XDG_STATE_HOME", "/state"}, std::pair {"HOURLOOM_DIAGNOSTICS_DIR", "/diagnostics"}}) {
        QDir().mkpath(QFile::decodeName(root + folder));
        qputenv(variable, root + folder);
    }
    QCoreApplication app(argc, argv);
    HLConfigureApplicationIdentity();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
