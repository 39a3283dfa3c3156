#include "worklogs/preparedworklogs.h"

#include "records/worklog.h"
#include "worklogs/durations.h"
#include "worklogs/engineinternal.h"
#include "worklogs/marker.h"
#include "worklogs/preferences.h"
#include "worklogs/text.h"

namespace jrinternal
{

namespace
{

PreparedWorklog prepare(const QVariant &entry)
{
    PreparedWorklog prepared;
    if (!isMap(entry))
        return prepared;
    const QVariantMap worklog = entry.toMap();
    prepared.isRecord = true;
    const QVariant author = mapValue(worklog.value(WorklogKey::kAuthor)).value(WorklogKey::kAccountId);
    if (author.typeId() == QMetaType::QString)
        prepared.authorId = author.toString().isNull() ? QStringLiteral("") : author.toString();
    prepared.id = plainText(worklog.value(WorklogKey::kId));
    const QVariant started = worklog.value(WorklogKey::kStarted);
    prepared.started = textValue(started);
    prepared.hasStart = parseJiraDate(started, prepared.startedMs);
    const auto spent = worklog.constFind(WorklogKey::kTimeSpentSeconds);
    if (spent != worklog.constEnd())
        prepared.spent = int64Value(*spent, &prepared.hasSpent);
    prepared.text = JRText(worklog.value(WorklogKey::kComment));
    prepared.hasAnyTag = prepared.text.contains(QStringLiteral("[Hourloom:"))
        || prepared.text.contains(QStringLiteral("[Stintwatch Companion:"));
    // Both live in the worklog's properties; most worklogs have none.
    if (worklog.contains(QStringLiteral("properties"))) {
        prepared.marker = JRLogMarker(worklog);
        const QVariantMap sources = JRLogSources(worklog);
        if (sources.size() >= 2)
            prepared.combinedSources = sources.keys();
    }
    return prepared;
}

struct Cache {
    QVariantList held;
    std::vector<PreparedWorklog> prepared;
    bool filled = false;
};

} // namespace

const std::vector<PreparedWorklog> &preparedWorklogs(const QVariantList &worklogs)
{
    thread_local Cache cache;
    if (cache.filled && cache.held.constData() == worklogs.constData() && cache.held.size() == worklogs.size())
        return cache.prepared;
    cache.prepared.clear();
    cache.prepared.reserve(size_t(worklogs.size()));
    for (const QVariant &entry : worklogs)
        cache.prepared.push_back(prepare(entry));
    cache.held = worklogs;
    cache.filled = true;
    return cache.prepared;
}

} // namespace jrinternal
