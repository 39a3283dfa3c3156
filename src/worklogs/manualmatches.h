#pragma once

// Worklogs made by hand that may already cover a draft, best candidates first.

#include <QString>
#include <QVariantList>
#include <QVariantMap>

#include <memory>

QVariantList JRManualMatches(const QVariantMap &draft, const QVariantList &worklogs, const QString &accountId);

// The same candidates for many drafts checked against the same worklogs, as one comparison run does. The
// candidate list depends only on the worklogs, the account and the draft's local day, so the user's
// hand-made worklogs are indexed once per list and day; a draft then only scores its own day's bucket and
// adds its seconds, comment and linked worklog. `matches` answers exactly what JRManualMatches answers.
class JRManualMatchIndex
{
public:
    explicit JRManualMatchIndex(const QString &accountId);
    ~JRManualMatchIndex();
    JRManualMatchIndex(const JRManualMatchIndex &) = delete;
    JRManualMatchIndex &operator=(const JRManualMatchIndex &) = delete;

    // A list is indexed on its first use and recognised by its shared data afterwards: the index keeps a copy,
    // so a list that was changed since no longer shares that data and is indexed anew.
    QVariantList matches(const QVariantMap &draft, const QVariantList &worklogs);

private:
    struct Private;
    std::unique_ptr<Private> d;
};
