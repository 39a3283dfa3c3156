#pragma once

#include <QByteArray>
#include <QProcess>
#include <QString>

#include <string>

namespace trackertest
{

// Runs `sql` on the database at `path` through a read-write connection of this process, creating the file.
void runSql(const std::string &path, const std::string &sql);

// CREATE TABLE for an account table with the tracker's columns.
std::string accountTable(const std::string &name);

// The bytes of a file, or a null array when it does not exist.
QByteArray fileBytes(const QString &path);

// A separate `sqlite3` process that runs `sql` on a database and then holds its connection (and whatever
// transaction the SQL left open) until the object is destroyed.
class SqliteChild
{
public:
    SqliteChild(const QString &path, const QString &sql);
    ~SqliteChild();
    SqliteChild(const SqliteChild &) = delete;
    SqliteChild &operator=(const SqliteChild &) = delete;

    bool ready() const { return m_ready; }

private:
    QProcess m_process;
    bool m_ready = false;
};

} // namespace trackertest
