#pragma once

// Short builders for the records the engine reads, and a fixture that starts every test with default
// preferences.

#include <QDateTime>
#include <QSettings>
#include <QString>
#include <QVariantList>
#include <QVariantMap>

#include <gtest/gtest.h>

#include <initializer_list>
#include <utility>

namespace wl
{

inline QString S(const char *text)
{
    return QString::fromUtf8(text);
}
inline QVariant get(const QVariantMap &map, const char *key)
{
    return map.value(S(key));
}
inline QString str(const QVariantMap &map, const char *key)
{
    return get(map, key).toString();
}
inline qint64 num(const QVariantMap &map, const char *key)
{
    return get(map, key).toLongLong();
}
inline QVariantMap at(const QVariantList &list, int index)
{
    return list.value(index).toMap();
}

using Fields = std::initializer_list<std::pair<const char *, QVariant>>;
// A copy of `map` with the fields set; an invalid value removes the field.
inline QVariantMap with(QVariantMap map, Fields fields)
{
    for (const auto &[key, value] : fields) {
        if (value.isValid())
            map.insert(S(key), value);
        else
            map.remove(S(key));
    }
    return map;
}
inline QVariantMap rec(Fields fields)
{
    return with({}, fields);
}

inline QDateTime local(int year, int month, int day, int hour, int minute, int second = 0)
{
    return QDateTime(QDate(year, month, day), QTime(hour, minute, second));
}

// A session record as the monitor publishes it, with its issue already resolved.
inline QVariantMap session(const QDateTime &start, qint64 durationMs, const char *issue = "ABC-1",
    const char *description = "Work", qint64 localId = 1)
{
    const qint64 startMs = start.toMSecsSinceEpoch();
    return rec({{"issue", S(issue)}, {"description", S(description)}, {"start_ms", startMs},
        {"end_ms", startMs + durationMs}, {"local_id", localId}, {"api_id", qint64(0)}, {"project", qint64(7)},
        {"source_account", S("user_activity")}});
}

inline QVariantMap document(const QString &text)
{
    const QVariantMap paragraph
        = rec({{"type", S("paragraph")}, {"content", QVariantList {rec({{"type", S("text")}, {"text", text}})}}});
    return rec({{"type", S("doc")}, {"version", 1}, {"content", QVariantList {paragraph}}});
}

// A worklog as Jira lists it.
inline QVariantMap worklog(const QString &accountId, const QString &started, qint64 seconds,
    const QString &comment = QString(), const QString &id = S("10001"))
{
    return rec({{"id", id}, {"author", rec({{"accountId", accountId}})}, {"started", started},
        {"timeSpentSeconds", seconds}, {"comment", comment.isNull() ? QVariant() : document(comment)}});
}

inline QVariantMap withMarkerProperty(QVariantMap log, const QString &marker, const QVariantMap &sources = {})
{
    const QVariantMap value = rec({{"marker", marker}, {"sources", sources}});
    return with(log, {{"properties", QVariantList {rec({{"key", S("hourloom")}, {"value", value}})}}});
}

class EngineTest : public ::testing::Test
{
protected:
    void SetUp() override { QSettings().clear(); }
    void TearDown() override { QSettings().clear(); }
};

} // namespace wl
