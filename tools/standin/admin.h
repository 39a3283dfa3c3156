#pragma once

#include "server.h"

#include <QJsonObject>

namespace httplib
{
struct Request;
struct Response;
} // namespace httplib

namespace standin
{

// The /__admin/ endpoints: the same control as the C++ interface, as JSON over HTTPS, so that another process
// (the demo, a script) can drive a running stand-in. README.md lists them.
void handleAdmin(Server &server, const httplib::Request &req, httplib::Response &res);

User userFromJson(const QJsonObject &object);
Site siteFromJson(const QJsonObject &object);
Issue issueFromJson(const QJsonObject &object);
Worklog worklogFromJson(const QJsonObject &object); // "started"/"created": ISO 8601 or Jira's form
Fault faultFromJson(const QJsonObject &object, QString *error);
QJsonObject requestToJson(const ReceivedRequest &request);

} // namespace standin
