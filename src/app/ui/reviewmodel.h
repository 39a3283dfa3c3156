#pragma once

#include <QAbstractItemModel>
#include <QString>
#include <QStringList>
#include <QVariantList>
#include <QVariantMap>
#include <QVector>

// The rows of the Worklogs window: one group per issue (top level) with its drafts as children, and a spacer
// row between groups that is never selectable and draws nothing. The window's draft records are the rows; the
// controller fills their derived keys ("can_tick", "can_edit_post", "progress", ...) before handing them over.
// A refresh with the same groups and sessions only reports the changed rows, so selection, expansion, scroll
// position and an edit in progress survive the live updates.
class ReviewModel : public QAbstractItemModel
{
    Q_OBJECT

public:
    enum Column {
        IncludeColumn,
        IssueColumn,
        TitleColumn,
        TrackedColumn,
        LoggedColumn,
        NotLoggedColumn,
        ToPostColumn,
        EstimateColumn,
        JiraRemainingColumn,
        CommentColumn,
        StatusColumn,
        ColumnCount
    };
    enum class Kind { Group, Spacer, Session };
    enum Role {
        KindRole = Qt::UserRole + 1,
        StatusTextRole,
        StatusSymbolRole, // review::Symbol as int
        StatusTintRole, // review::Tint as int
        BusyRole, // the spinner turns
        UnavailableRole,
        SourceKeyRole,
        RowRole, // index into rows(), -1 for groups and spacers
    };

    explicit ReviewModel(QObject *parent = nullptr);

    // Identifier ("include", "issue", ...) and title ("Post", "Jira Issue", ...) of each column.
    static QString columnIdentifier(int column);
    static QString columnTitle(int column);
    static bool shownByDefault(int column);

    // Replaces the rows. Returns true when only values changed (reported through dataChanged), false when the
    // groups or their sessions changed and the model was reset.
    bool setRows(const QVariantList &rows);
    const QVariantList &rows() const { return m_rows; }
    QVariantMap row(int index) const { return m_rows.value(index).toMap(); }
    // Changes one row in place (a tick, an edit, a progress text).
    void updateRow(int index, const QVariantMap &row);

    Kind kind(const QModelIndex &index) const;
    int rowOf(const QModelIndex &index) const; // -1 unless a session row
    QModelIndex indexOfRow(int row, int column = 0) const;
    QModelIndex indexOfGroup(int group) const;
    int groupCount() const { return int(m_groups.size()); }
    QString groupIssue(int group) const { return m_groups.value(group).issue; }
    QList<int> groupRows(const QModelIndex &index) const;

    QModelIndex index(int row, int column, const QModelIndex &parent = {}) const override;
    QModelIndex parent(const QModelIndex &child) const override;
    int rowCount(const QModelIndex &parent = {}) const override;
    int columnCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role = Qt::DisplayRole) const override;
    Qt::ItemFlags flags(const QModelIndex &index) const override;
    bool setData(const QModelIndex &index, const QVariant &value, int role = Qt::EditRole) override;

signals:
    // A tick or a "To Post" amount changed through the view.
    void choicesChanged();
    // An edit was refused; the text says why.
    void editRefused(const QString &reason);

private:
    struct Group {
        QString issue;
        QVector<int> rows;
    };

    QVariant sessionData(int row, int column, int role) const;
    QVariant groupData(int group, int column, int role) const;
    qint64 groupSum(const Group &group, const QString &key) const;
    void setTick(int row, bool ticked);

    QVariantList m_rows;
    QVector<Group> m_groups;
    QVector<QPair<int, int>> m_where; // row -> (group, position in the group)
};
