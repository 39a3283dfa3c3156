#include "app/ui/issuerulestable.h"

#include "records/assignment.h"
#include "worklogs/issueassignments.h"

#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QStackedLayout>
#include <QTableView>
#include <QVBoxLayout>

namespace
{

constexpr int kVisibleRows = 6;

QString text(const QVariantMap &rule, const QString &key)
{
    return rule.value(key).toString();
}

} // namespace

IssueRulesModel::IssueRulesModel(QObject *parent)
    : QAbstractTableModel(parent)
{
}

void IssueRulesModel::setRules(const QVariantList &rules)
{
    beginResetModel();
    m_rules = rules;
    endResetModel();
}

QVariantMap IssueRulesModel::rule(int row) const
{
    return row >= 0 && row < m_rules.size() ? m_rules.at(row).toMap() : QVariantMap();
}

int IssueRulesModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(m_rules.size());
}

int IssueRulesModel::columnCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : ColumnCount;
}

QVariant IssueRulesModel::data(const QModelIndex &index, int role) const
{
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid))
        return {};
    const QVariantMap r = rule(index.row());
    switch (index.column()) {
    case DescriptionColumn:
        if (role == Qt::DisplayRole || role == Qt::ToolTipRole) {
            const QString label = text(r, RuleKey::kLabel);
            return label.isEmpty() ? text(r, RuleKey::kDescription) : label;
        }
        break;
    case IssueColumn:
        if (role == Qt::DisplayRole || role == Qt::EditRole)
            return text(r, RuleKey::kIssue);
        if (role == Qt::ToolTipRole)
            return QStringLiteral(
                "Double-click a rule to change its issue. Sessions with this description post there.");
        break;
    case CombineColumn:
        if (role == Qt::CheckStateRole)
            return r.value(RuleKey::kAggregateDaily).toBool() ? Qt::Checked : Qt::Unchecked;
        if (role == Qt::ToolTipRole)
            return QStringLiteral("Post the day's sessions with this description as one worklog.");
        break;
    case SiteColumn:
        if (role == Qt::DisplayRole || role == Qt::ToolTipRole) {
            const QString name = siteName ? siteName(text(r, RuleKey::kSite)) : QString();
            return name.isEmpty() ? QStringLiteral("Unknown site") : name;
        }
        break;
    default:
        break;
    }
    return {};
}

QVariant IssueRulesModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole)
        return {};
    switch (section) {
    case DescriptionColumn:
        return QStringLiteral("Description");
    case IssueColumn:
        return QStringLiteral("Issue");
    case CombineColumn:
        return QStringLiteral("Combine");
    case SiteColumn:
        return QStringLiteral("Site");
    default:
        return {};
    }
}

Qt::ItemFlags IssueRulesModel::flags(const QModelIndex &index) const
{
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid))
        return Qt::NoItemFlags;
    Qt::ItemFlags flags = Qt::ItemIsEnabled | Qt::ItemIsSelectable;
    if (index.column() == IssueColumn)
        flags |= Qt::ItemIsEditable;
    if (index.column() == CombineColumn)
        flags |= Qt::ItemIsUserCheckable;
    return flags;
}

bool IssueRulesModel::setData(const QModelIndex &index, const QVariant &value, int role)
{
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid))
        return false;
    QVariantMap r = rule(index.row());
    if (index.column() == IssueColumn && role == Qt::EditRole) {
        // Typed keys and pasted browse addresses of the rule's site are both accepted.
        const QString issue = IssueAssignments::issueFromInput(value.toString(), text(r, RuleKey::kSite));
        if (issue.isNull() || issue == text(r, RuleKey::kIssue) || !changeIssue || !changeIssue(r, issue))
            return false;
        r.insert(RuleKey::kIssue, issue);
    } else if (index.column() == CombineColumn && role == Qt::CheckStateRole) {
        const bool combine = value.toInt() == Qt::Checked;
        if (!changeCombine || !changeCombine(r, combine))
            return false;
        r.insert(RuleKey::kAggregateDaily, combine);
    } else {
        return false;
    }
    m_rules[index.row()] = r;
    Q_EMIT dataChanged(index, index, {role, Qt::DisplayRole});
    return true;
}

IssueRulesTable::IssueRulesTable(QWidget *parent)
    : QWidget(parent)
    , m_model(new IssueRulesModel(this))
    , m_view(new QTableView(this))
    , m_empty(new QLabel(emptyText(), this))
    , m_stack(new QStackedLayout)
    , m_delete(new QPushButton(QStringLiteral("Delete Rule…"), this))
{
    m_model->changeIssue
        = [this](const QVariantMap &rule, const QString &issue) { return changeIssue && changeIssue(rule, issue); };
    m_model->changeCombine
        = [this](const QVariantMap &rule, bool combine) { return changeCombine && changeCombine(rule, combine); };
    m_model->siteName = [this](const QString &site) { return siteName ? siteName(site) : QString(); };

    m_view->setModel(m_model);
    m_view->setSelectionBehavior(QAbstractItemView::SelectRows);
    m_view->setSelectionMode(QAbstractItemView::SingleSelection);
    m_view->setEditTriggers(QAbstractItemView::DoubleClicked | QAbstractItemView::EditKeyPressed);
    m_view->verticalHeader()->hide();
    m_view->setAlternatingRowColors(true);
    m_view->horizontalHeader()->setSectionResizeMode(IssueRulesModel::DescriptionColumn, QHeaderView::Stretch);
    m_view->horizontalHeader()->setSectionResizeMode(IssueRulesModel::IssueColumn, QHeaderView::ResizeToContents);
    m_view->horizontalHeader()->setSectionResizeMode(IssueRulesModel::CombineColumn, QHeaderView::ResizeToContents);
    m_view->horizontalHeader()->setSectionResizeMode(IssueRulesModel::SiteColumn, QHeaderView::ResizeToContents);
    m_empty->setWordWrap(true);
    m_empty->setAlignment(Qt::AlignCenter);
    m_empty->setForegroundRole(QPalette::PlaceholderText);
    m_empty->setFrameShape(QFrame::StyledPanel);
    m_empty->setMargin(12);

    m_stack->addWidget(m_view);
    m_stack->addWidget(m_empty);
    m_empty->setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Fixed);
    setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Fixed);
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addLayout(m_stack);
    auto *buttons = new QHBoxLayout;
    buttons->addWidget(m_delete);
    buttons->addStretch(1);
    layout->addLayout(buttons);

    connect(m_delete, &QPushButton::clicked, this, &IssueRulesTable::deleteSelectedRule);
    connect(m_view->selectionModel(), &QItemSelectionModel::selectionChanged, this,
        [this] { m_delete->setEnabled(m_view->selectionModel()->hasSelection()); });
    setRules({});
}

QString IssueRulesTable::emptyText()
{
    return QStringLiteral("No rules yet. In Worklogs, edit a session and choose “All sessions with this description”.");
}

void IssueRulesTable::setRules(const QVariantList &rules)
{
    m_model->setRules(rules);
    m_stack->setCurrentWidget(rules.isEmpty() ? static_cast<QWidget *>(m_empty) : m_view);
    m_delete->setEnabled(false);
    updateHeight();
}

void IssueRulesTable::updateHeight()
{
    const int rows = std::clamp(int(m_model->rowCount()), 1, kVisibleRows);
    const int rowHeight = m_view->verticalHeader()->defaultSectionSize();
    const int height = m_model->rowCount() == 0
        ? m_empty->sizeHint().height() + 8
        : m_view->horizontalHeader()->sizeHint().height() + rows * rowHeight + 2 * m_view->frameWidth() + 2;
    if (height == m_height)
        return;
    m_height = height;
    m_view->setFixedHeight(height);
    m_empty->setFixedHeight(height);
    // The stacked layout asks for the table's own (tall) size hint whatever its fixed height; without a fixed
    // height of its own the whole would leave a gap above the button.
    setFixedHeight(height + std::max(0, layout()->spacing()) + m_delete->sizeHint().height());
    Q_EMIT heightDidChange();
}

void IssueRulesTable::deleteSelectedRule()
{
    const QModelIndexList rows = m_view->selectionModel()->selectedRows();
    if (rows.isEmpty())
        return;
    const QVariantMap rule = m_model->rule(rows.first().row());
    const QString label
        = m_model->data(m_model->index(rows.first().row(), IssueRulesModel::DescriptionColumn)).toString();
    const QString question = QStringLiteral("Delete the rule for “%1”?").arg(label);
    const QString detail
        = QStringLiteral("Sessions with this description go back to Unassigned. Worklogs already in Jira stay there.");
    bool accepted = false;
    if (confirm) {
        accepted = confirm(question, detail);
    } else {
        QMessageBox box(QMessageBox::Warning, QStringLiteral("Delete Rule"), question, QMessageBox::NoButton, window());
        box.setInformativeText(detail);
        QPushButton *remove = box.addButton(QStringLiteral("Delete"), QMessageBox::DestructiveRole);
        QPushButton *cancel = box.addButton(QStringLiteral("Cancel"), QMessageBox::RejectRole);
        box.setDefaultButton(cancel);
        box.setEscapeButton(cancel);
        box.exec();
        accepted = box.clickedButton() == remove;
    }
    if (accepted && deleteRule)
        deleteRule(rule);
}
