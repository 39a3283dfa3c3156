#pragma once

#include <QFile>
#include <QProcess>
#include <QString>

#include <sqlite3.h>

#include <stdexcept>
#include <string>

namespace trackertest
{

// Runs `sql` on the database at `path` (created when missing) through a connection of this process.
inline void runSql(const std::string &path, const std::string &sql)
{
    sqlite3 *db = nullptr;
    sqlite3_open(path.c_str(), &db);
    char *error = nullptr;
    const bool ok = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error) == SQLITE_OK;
    const std::string message = error ? error : "cannot open";
    sqlite3_free(error);
    sqlite3_close(db);
    if (!ok)
        throw std::runtime_error("test SQL failed: " + message);
}

inline std::string accountTable(const std::string &quotedName)
{
    return "CREATE TABLE " + quotedName
        + "(id INTEGER PRIMARY KEY, apiId INTEGER, projectId INTEGER, startTime INTEGER, endTime INTEGER, "
          "description TEXT, seconds INTEGER, active INTEGER, lastChanged INTEGER);";
}

inline QByteArray fileBytes(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// A separate `sqlite3` process that runs `sql` and then holds its connection, with whatever transaction the
// SQL left open, until destroyed (end of input makes it exit and roll back).
class SqliteChild
{
public:
    SqliteChild(const QString &path, const QString &sql)
    {
        m_process.start(QStringLiteral("sqlite3"), {path});
        m_process.write((sql + QStringLiteral("\nSELECT 'ready';\n")).toUtf8());
        while (!m_output.contains("ready") && m_process.waitForReadyRead(5000))
            m_output += m_process.readAllStandardOutput();
    }
    ~SqliteChild()
    {
        m_process.closeWriteChannel();
        if (!m_process.waitForFinished(5000))
            m_process.kill();
        m_process.waitForFinished(5000);
    }
    bool ready() const { return m_output.contains("ready"); }

private:
    QProcess m_process;
    QByteArray m_output;
};

} // namespace trackertest
