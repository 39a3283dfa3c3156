#pragma once

// Builders for the records the engine reads, and a fixture that starts every test with default preferences.

#include <QDateTime>
#include <QSettings>
#include <QString>
#include <QVariantList>
#include <QVariantMap>

#include <gtest/gtest.h>

namespace wl
{

inline QDateTime local(int year, int month, int day, int hour, int minute, int second = 0, int ms = 0)
{
    return QDateTime(QDate(year, month, day), QTime(hour, minute, second, ms));
}

// A session record as the monitor publishes it, with the issue already resolved.
inline QVariantMap session(const QDateTime &start, qint64 durationMs, const QString &issue = QStringLiteral("ABC-1"),
    const QString &description = QStringLiteral("Work"), qint64 localId = 1)
{
    const qint64 startMs = start.toMSecsSinceEpoch();
    return QVariantMap {{QStringLiteral("date"), QStringLiteral("")}, {QStringLiteral("issue"), issue},
        {QStringLiteral("description"), description}, {QStringLiteral("duration"), QStringLiteral("")},
        {QStringLiteral("start_ms"), startMs}, {QStringLiteral("end_ms"), startMs + durationMs},
        {QStringLiteral("local_id"), localId}, {QStringLiteral("api_id"), qint64(0)},
        {QStringLiteral("project"), qint64(7)}, {QStringLiteral("source_seconds"), durationMs / 1000},
        {QStringLiteral("source_account"), QStringLiteral("user_activity")}};
}

inline QVariantMap document(const QString &text)
{
    const QVariantMap node {{QStringLiteral("type"), QStringLiteral("text")}, {QStringLiteral("text"), text}};
    const QVariantMap paragraph {
        {QStringLiteral("type"), QStringLiteral("paragraph")}, {QStringLiteral("content"), QVariantList {node}}};
    return QVariantMap {{QStringLiteral("type"), QStringLiteral("doc")}, {QStringLiteral("version"), 1},
        {QStringLiteral("content"), QVariantList {paragraph}}};
}

// A worklog as Jira lists it.
inline QVariantMap worklog(const QString &accountId, const QString &started, qint64 seconds,
    const QString &comment = QString(), const QString &id = QStringLiteral("10001"))
{
    QVariantMap log {{QStringLiteral("id"), id},
        {QStringLiteral("author"), QVariantMap {{QStringLiteral("accountId"), accountId}}},
        {QStringLiteral("started"), started}, {QStringLiteral("timeSpentSeconds"), seconds}};
    if (!comment.isNull())
        log.insert(QStringLiteral("comment"), document(comment));
    return log;
}

inline QVariantMap withMarkerProperty(QVariantMap log, const QString &marker, const QVariantMap &sources = {})
{
    const QVariantMap value {{QStringLiteral("marker"), marker}, {QStringLiteral("sources"), sources}};
    log.insert(QStringLiteral("properties"),
        QVariantList {
            QVariantMap {{QStringLiteral("key"), QStringLiteral("hourloom")}, {QStringLiteral("value"), value}}});
    return log;
}

inline QVariantMap first(const QVariantList &list)
{
    return list.isEmpty() ? QVariantMap() : list.first().toMap();
}

class EngineTest : public ::testing::Test
{
protected:
    void SetUp() override { QSettings().clear(); }
    void TearDown() override { QSettings().clear(); }
};

} // namespace wl
