#pragma once

// Jira worklogs read once into plain fields. A comparison run checks every draft of a day against the same
// worklogs of its issue; reading each worklog's dictionaries again for every draft dominated its cost.

#include <QString>
#include <QStringList>
#include <QVariantList>

#include <vector>

namespace jrinternal
{

struct PreparedWorklog {
    bool isRecord = false; // false for entries that are not dictionaries: they are skipped
    QString authorId; // null when "author" "accountId" is not a text
    QString id; // "id" as text, empty when absent
    QString started; // "started" as Jira wrote it
    bool hasStart = false;
    qint64 startedMs = 0;
    bool hasSpent = false;
    qint64 spent = 0;
    QString text; // the comment as plain text
    bool hasAnyTag = false; // the comment holds a tag of either name, of any marker
    QString marker; // property marker, null = none
    QStringList combinedSources; // split keys, only when the split covers two or more sessions

    bool authoredBy(const QString &accountId) const
    {
        return !accountId.isNull() && !authorId.isNull() && authorId == accountId;
    }
};

// The prepared form of `worklogs`. The last list seen on this thread is kept with its prepared form: as long
// as it is held, a list sharing its data is the same unchanged list (implicit sharing copies before writing).
const std::vector<PreparedWorklog> &preparedWorklogs(const QVariantList &worklogs);

} // namespace jrinternal
