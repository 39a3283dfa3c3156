#pragma once

// The marker every posted worklog carries (as a worklog property and, where needed, as a comment tag), the
// request body that creates a worklog, and reading the marker and the per-session split back from Jira.

#include <QString>
#include <QVariantMap>

QString JRMarker(const QVariantMap &draft, const QString &cloud, const QString &account);
QString JRMarkerTag(const QString &marker);
QString JRLegacyMarkerTag(const QString &marker);
// Source key -> whole seconds of the posted worklog attributed to that session.
QVariantMap JRCoverage(const QVariantMap &draft);
QVariantMap JRPayload(const QVariantMap &draft, const QString &marker);
QVariantMap JRPayloadWithTag(const QVariantMap &draft, const QString &tag);
QString JRLogMarker(const QVariantMap &worklog); // null = nothing
QVariantMap JRLogSources(const QVariantMap &worklog);
