#pragma once

// The keys of a Jira worklog as Jira answers it, and of the body the program posts (the same shape). Jira's
// own spelling: these are the JSON names of its REST API.
//
// When you add a key to the posted body, also change `JRPayload` and `JRPayloadWithTag` (worklogs/marker.cpp):
// both build the body, and `JRCompare` compares what they build with what Jira holds.

#include <QString>

namespace WorklogKey
{

// Jira's worklog id, a decimal text.
inline const QString kId = QStringLiteral("id");
// {"accountId": the author's account id, ...}.
inline const QString kAuthor = QStringLiteral("author");
inline const QString kAccountId = QStringLiteral("accountId");
// Start in Jira's date format ("yyyy-MM-dd'T'HH:mm:ss.SSSZ").
inline const QString kStarted = QStringLiteral("started");
inline const QString kTimeSpentSeconds = QStringLiteral("timeSpentSeconds");
// A rich-text document (Atlassian document format).
inline const QString kComment = QStringLiteral("comment");
// Entity properties: a list of {"key", "value"}.
inline const QString kProperties = QStringLiteral("properties");
inline const QString kPropertyKey = QStringLiteral("key");
inline const QString kPropertyValue = QStringLiteral("value");
// The name of the program's own property, whose value is {"marker", "sources"}.
inline const QString kOwnProperty = QStringLiteral("hourloom");
// The draft's marker (records/draft.h "marker").
inline const QString kMarker = QStringLiteral("marker");
// Source key -> seconds of that session the worklog covers.
inline const QString kSources = QStringLiteral("sources");

// Rich-text document nodes.
inline const QString kNodeType = QStringLiteral("type");
inline const QString kNodeText = QStringLiteral("text");
inline const QString kNodeContent = QStringLiteral("content");
inline const QString kNodeVersion = QStringLiteral("version");

} // namespace WorklogKey
