#pragma once

#include <QString>

// The build identifier (`git describe` when the build was configured, or what the packager set).
QString HLBuildVersion();
// "0.1.0 (v0.1.0-12-gabcdef0)": the release and the build, as About and the diagnostics report show them.
QString HLVersionText();
