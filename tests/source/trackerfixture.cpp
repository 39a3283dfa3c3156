#include "trackerfixture.h"

#include <QFile>

#include <sqlite3.h>

#include <stdexcept>

namespace trackertest
{

void runSql(const std::string &path, const std::string &sql)
{
    sqlite3 *db = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) != SQLITE_OK) {
        sqlite3_close(db);
        throw std::runtime_error("cannot open test database " + path);
    }
    char *error = nullptr;
    const int rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error);
    const std::string message = error ? error : "";
    sqlite3_free(error);
    sqlite3_close(db);
    if (rc != SQLITE_OK)
        throw std::runtime_error("test SQL failed: " + message);
}

std::string accountTable(const std::string &name)
{
    std::string quoted = "\"";
    for (char c : name)
        quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    quoted += '"';
    return "CREATE TABLE " + quoted
        + "(id INTEGER PRIMARY KEY, apiId INTEGER, projectId INTEGER, startTime INTEGER, endTime INTEGER, "
          "description TEXT, seconds INTEGER, active INTEGER, lastChanged INTEGER);";
}

QByteArray fileBytes(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return file.readAll();
}

SqliteChild::SqliteChild(const QString &path, const QString &sql)
{
    m_process.start(QStringLiteral("sqlite3"), {path});
    if (!m_process.waitForStarted(5000))
        return;
    m_process.write((sql + QStringLiteral("\nSELECT 'ready';\n")).toUtf8());
    QByteArray output;
    while (!output.contains("ready") && m_process.waitForReadyRead(5000))
        output += m_process.readAllStandardOutput();
    m_ready = output.contains("ready");
}

SqliteChild::~SqliteChild()
{
    // End of input makes the shell exit; an open transaction is rolled back.
    m_process.closeWriteChannel();
    if (!m_process.waitForFinished(5000)) {
        m_process.kill();
        m_process.waitForFinished(5000);
    }
}

} // namespace trackertest
