#pragma once

#include "server.h"

#include <QByteArray>
#include <QList>
#include <QString>

namespace standin
{

// Validates worklog bodies a client sent against the request schema of Atlassian's published "add worklog"
// operation (tests/data/jira-openapi-subset.json), through tools/standin/check_schemas.py and
// python3-jsonschema. Returns an empty string when every body validates, else the report. An independent
// yardstick: the stand-in accepting a body only shows that the two sides agree with each other.
QString checkWorklogRequestBodies(const QList<QByteArray> &bodies);

// The bodies of every worklog POST the server received, in arrival order.
QList<QByteArray> worklogRequestBodies(const Server &server);

} // namespace standin
