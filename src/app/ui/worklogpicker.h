#pragma once

#include <QDialog>
#include <QVariantList>
#include <QVariantMap>

class QLabel;
class QListWidget;

// Matches a session to one of the user's own Jira worklogs on its issue and day. Candidates are
// {"id", "seconds", "started", "comment", "reason"}; nothing in Jira changes.
class ManualWorklogPicker : public QDialog
{
    Q_OBJECT
public:
    ManualWorklogPicker(
        const QVariantList &candidates, const QString &issue, qint64 sessionSeconds, QWidget *parent = nullptr);

    // The chosen candidate, or an empty map.
    static QVariantMap chooseMatch(
        const QVariantList &candidates, const QString &issue, qint64 sessionSeconds, QWidget *parent);

    QListWidget *list() const { return m_list; }
    QString detailText() const;
    QVariantMap chosen() const;

private:
    void showDetail();

    QVariantList m_candidates;
    QListWidget *m_list = nullptr;
    QLabel *m_detail = nullptr;
};
