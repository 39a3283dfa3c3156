#pragma once

#include <QAbstractTableModel>
#include <QVariantList>
#include <QWidget>

#include <functional>

class QLabel;
class QPushButton;
class QStackedLayout;
class QTableView;

// The description rules as a table: "Description", "Issue" (editable), "Combine" (a checkbox), "Site".
class IssueRulesModel : public QAbstractTableModel
{
    Q_OBJECT

public:
    enum Column { DescriptionColumn, IssueColumn, CombineColumn, SiteColumn, ColumnCount };

    explicit IssueRulesModel(QObject *parent = nullptr);

    void setRules(const QVariantList &rules);
    QVariantMap rule(int row) const;

    int rowCount(const QModelIndex &parent = {}) const override;
    int columnCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role = Qt::DisplayRole) const override;
    Qt::ItemFlags flags(const QModelIndex &index) const override;
    bool setData(const QModelIndex &index, const QVariant &value, int role = Qt::EditRole) override;

    // The owner's answers; each returns false when it refused the change (the row then keeps its value).
    std::function<bool(const QVariantMap &rule, const QString &issue)> changeIssue;
    std::function<bool(const QVariantMap &rule, bool combine)> changeCombine;
    std::function<QString(const QString &site)> siteName;

private:
    QVariantList m_rules;
};

// The rules table with its empty text and "Delete Rule…". The owner sets the callbacks and the rules.
class IssueRulesTable : public QWidget
{
    Q_OBJECT

public:
    explicit IssueRulesTable(QWidget *parent = nullptr);

    void setRules(const QVariantList &rules);
    IssueRulesModel *model() const { return m_model; }
    QTableView *view() const { return m_view; }

    std::function<bool(const QVariantMap &rule, const QString &issue)> changeIssue;
    std::function<bool(const QVariantMap &rule, bool combine)> changeCombine;
    std::function<void(const QVariantMap &rule)> deleteRule;
    std::function<QString(const QString &site)> siteName;

    // Asks before deleting the selected rule; `confirm` replaces the dialog in tests.
    void deleteSelectedRule();
    std::function<bool(const QString &question, const QString &detail)> confirm;

    static QString emptyText();

Q_SIGNALS:
    // The table's height changed ("IssueRulesTableHeightDidChange"); the pane refits.
    void heightDidChange();

private:
    void updateHeight();

    IssueRulesModel *m_model;
    QTableView *m_view;
    QLabel *m_empty;
    QStackedLayout *m_stack;
    QPushButton *m_delete;
    int m_height = -1;
};
