// The main of every benchmark program: the settings, data, state and diagnostic folders of a run are
// throw-away ones, so figures never depend on the user's profile and a run never writes into it.

#include "benchprofile.h"
#include "platform/appidentity.h"

#include <QCoreApplication>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

int main(int argc, char **argv)
{
    QTemporaryDir profile;
    if (!HLUseThrowAwayProfile(profile))
        return 1;
    QCoreApplication app(argc, argv);
    HLConfigureApplicationIdentity();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
