#include "app/ui/reviewmodel.h"

#include "app/ui/reviewrules.h"
#include "app/ui/rowkeys.h"
#include "records/draft.h"
#include "records/session.h"
#include "worklogs/durations.h"
#include "worklogs/preferences.h"
#include "worklogs/text.h"

#include <QFont>
#include <QGuiApplication>
#include <QHash>
#include <QPalette>
#include <QSize>

namespace
{

struct ColumnInfo {
    const char *identifier;
    const char *title;
    bool shown;
};

constexpr ColumnInfo kColumns[] = {{"include", "Post", true}, {"issue", "Jira Issue", true}, {"title", "Title", true},
    {"seconds", "Tracked", true}, {"logged_seconds", "Logged", true}, {"remaining_seconds", "Not logged", false},
    {"post_seconds", "To Post", true}, {"jira_estimate", "Estimate", true}, {"jira_remaining", "Jira Remaining", true},
    {"comment", "Comment", false}, {"status", "Jira Status", true}};

QString str(const QVariantMap &map, const QString &key)
{
    return map.value(key).toString();
}

qint64 num(const QVariantMap &map, const QString &key)
{
    return map.value(key).toLongLong();
}

bool flag(const QVariantMap &map, const QString &key)
{
    return map.value(key).toBool();
}

// Estimates come from the title cache and may be missing: an empty cell rather than "0m".
QVariant optionalDuration(const QVariantMap &row, const QString &key)
{
    const QVariant value = row.value(key);
    if (!value.isValid() || value.isNull())
        return {};
    return JRDurationText(value.toLongLong());
}

QVariant dimmedText()
{
    return QGuiApplication::palette().brush(QPalette::Disabled, QPalette::Text);
}

} // namespace

ReviewModel::ReviewModel(QObject *parent)
    : QAbstractItemModel(parent)
{
}

QString ReviewModel::columnIdentifier(int column)
{
    return column >= 0 && column < ColumnCount ? QString::fromLatin1(kColumns[column].identifier) : QString();
}

QString ReviewModel::columnTitle(int column)
{
    return column >= 0 && column < ColumnCount ? QString::fromUtf8(kColumns[column].title) : QString();
}

bool ReviewModel::shownByDefault(int column)
{
    return column >= 0 && column < ColumnCount && kColumns[column].shown;
}

bool ReviewModel::setRows(const QVariantList &rows)
{
    QVector<Group> groups;
    QHash<QString, int> byIssue;
    for (int i = 0; i < rows.size(); ++i) {
        const QString issue = str(rows.at(i).toMap(), DraftKey::kIssue);
        auto found = byIssue.find(issue);
        if (found == byIssue.end()) {
            found = byIssue.insert(issue, int(groups.size()));
            groups.append(Group {issue, {}});
        }
        groups[found.value()].rows.append(i);
    }

    bool sameShape = groups.size() == m_groups.size() && rows.size() == m_rows.size();
    for (int g = 0; sameShape && g < groups.size(); ++g)
        sameShape = groups[g].issue == m_groups[g].issue && groups[g].rows == m_groups[g].rows;
    for (int i = 0; sameShape && i < rows.size(); ++i)
        sameShape = str(rows[i].toMap(), DraftKey::kSourceKey) == str(m_rows[i].toMap(), DraftKey::kSourceKey);

    if (!sameShape) {
        beginResetModel();
        m_rows = rows;
        m_groups = groups;
        m_where.resize(m_rows.size());
        for (int g = 0; g < m_groups.size(); ++g)
            for (int p = 0; p < m_groups[g].rows.size(); ++p)
                m_where[m_groups[g].rows[p]] = {g, p};
        endResetModel();
        return false;
    }

    QVector<bool> groupChanged(m_groups.size(), false);
    for (int g = 0; g < m_groups.size(); ++g) {
        for (int i : std::as_const(m_groups[g].rows)) {
            // Shared data compares by pointer first, so unchanged rows cost almost nothing.
            if (rows[i] == m_rows[i])
                continue;
            m_rows[i] = rows[i];
            groupChanged[g] = true;
            emit dataChanged(indexOfRow(i, 0), indexOfRow(i, ColumnCount - 1));
        }
    }
    for (int g = 0; g < m_groups.size(); ++g)
        if (groupChanged[g])
            emit dataChanged(indexOfGroup(g), indexOfGroup(g).siblingAtColumn(ColumnCount - 1));
    return true;
}

void ReviewModel::updateRow(int index, const QVariantMap &row)
{
    if (index < 0 || index >= m_rows.size())
        return;
    m_rows[index] = row;
    emit dataChanged(indexOfRow(index, 0), indexOfRow(index, ColumnCount - 1));
    const QModelIndex group = parent(indexOfRow(index, 0));
    emit dataChanged(group, group.siblingAtColumn(ColumnCount - 1));
}

ReviewModel::Kind ReviewModel::kind(const QModelIndex &index) const
{
    if (index.internalId() != 0)
        return Kind::Session;
    return index.row() % 2 == 0 ? Kind::Group : Kind::Spacer;
}

int ReviewModel::rowOf(const QModelIndex &index) const
{
    if (!index.isValid() || index.internalId() == 0)
        return -1;
    const int group = int(index.internalId()) - 1;
    return m_groups.value(group).rows.value(index.row(), -1);
}

QModelIndex ReviewModel::indexOfRow(int row, int column) const
{
    if (row < 0 || row >= m_where.size())
        return {};
    return createIndex(m_where[row].second, column, quintptr(m_where[row].first + 1));
}

QModelIndex ReviewModel::indexOfGroup(int group) const
{
    if (group < 0 || group >= m_groups.size())
        return {};
    return createIndex(group * 2, 0, quintptr(0));
}

QList<int> ReviewModel::groupRows(const QModelIndex &index) const
{
    if (!index.isValid() || kind(index) != Kind::Group)
        return {};
    const QVector<int> &rows = m_groups[index.row() / 2].rows;
    return QList<int>(rows.begin(), rows.end());
}

QModelIndex ReviewModel::index(int row, int column, const QModelIndex &parent) const
{
    if (column < 0 || column >= ColumnCount || row < 0)
        return {};
    if (!parent.isValid())
        return row < rowCount() ? createIndex(row, column, quintptr(0)) : QModelIndex();
    if (kind(parent) != Kind::Group)
        return {};
    const int group = parent.row() / 2;
    if (row >= m_groups[group].rows.size())
        return {};
    return createIndex(row, column, quintptr(group + 1));
}

QModelIndex ReviewModel::parent(const QModelIndex &child) const
{
    if (!child.isValid() || child.internalId() == 0)
        return {};
    return createIndex(int(child.internalId() - 1) * 2, 0, quintptr(0));
}

int ReviewModel::rowCount(const QModelIndex &parent) const
{
    if (!parent.isValid())
        return m_groups.isEmpty() ? 0 : int(m_groups.size()) * 2 - 1;
    if (parent.column() != 0 || kind(parent) != Kind::Group)
        return 0;
    return int(m_groups[parent.row() / 2].rows.size());
}

int ReviewModel::columnCount(const QModelIndex &) const
{
    return ColumnCount;
}

QVariant ReviewModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation != Qt::Horizontal)
        return {};
    if (role == Qt::DisplayRole)
        return columnTitle(section);
    if (role == Qt::ToolTipRole && section == IncludeColumn)
        return QStringLiteral("Click and drag to select multiple worklogs");
    return {};
}

QVariant ReviewModel::data(const QModelIndex &index, int role) const
{
    if (!index.isValid())
        return {};
    switch (kind(index)) {
    case Kind::Spacer:
        if (role == KindRole)
            return int(Kind::Spacer);
        if (role == Qt::SizeHintRole)
            return QSize(0, 8);
        if (role == RowRole)
            return -1;
        return {};
    case Kind::Group:
        return groupData(index.row() / 2, index.column(), role);
    case Kind::Session:
        return sessionData(rowOf(index), index.column(), role);
    }
    return {};
}

qint64 ReviewModel::groupSum(const Group &group, const QString &key) const
{
    qint64 total = 0;
    for (int i : group.rows) {
        const QVariantMap row = m_rows[i].toMap();
        total += key == DraftKey::kPostSeconds ? JRPostSeconds(row) : num(row, key);
    }
    return total;
}

QVariant ReviewModel::groupData(int group, int column, int role) const
{
    const Group &g = m_groups[group];
    if (role == KindRole)
        return int(Kind::Group);
    if (role == RowRole)
        return -1;
    const QVariantMap first = m_rows[g.rows.first()].toMap();
    QVariantList children;
    if (role == UnavailableRole || role == Qt::ForegroundRole || role == Qt::CheckStateRole
        || role == Qt::AccessibleTextRole) {
        for (int i : g.rows)
            children.append(m_rows[i]);
    }
    if (role == UnavailableRole)
        return review::groupUnavailable(children);
    if (role == Qt::ForegroundRole)
        return review::groupUnavailable(children) ? dimmedText() : QVariant();
    if (role == Qt::CheckStateRole && column == IncludeColumn) {
        int tickable = 0, ticked = 0;
        for (const QVariant &child : children) {
            const QVariantMap row = child.toMap();
            tickable += flag(row, RowKey::kCanTick) ? 1 : 0;
            ticked += flag(row, DraftKey::kInclude) ? 1 : 0;
        }
        if (ticked == 0)
            return Qt::Unchecked;
        return ticked >= tickable ? Qt::Checked : Qt::PartiallyChecked;
    }
    if (role == Qt::ToolTipRole && column == IncludeColumn)
        return QStringLiteral("Click and drag to select multiple worklogs");
    if (role == Qt::FontRole && column == IssueColumn) {
        QFont font = QGuiApplication::font();
        font.setBold(true);
        return font;
    }
    if (role != Qt::DisplayRole && role != Qt::AccessibleTextRole && role != StatusTextRole)
        return {};
    switch (column) {
    case IssueColumn:
        return g.issue.isEmpty() ? QStringLiteral("Unassigned") : g.issue;
    case TitleColumn:
        return str(first, RowKey::kDisplayTitle);
    case TrackedColumn:
        return review::durationCell(groupSum(g, DraftKey::kSeconds));
    case LoggedColumn:
        return JRDurationText(groupSum(g, DraftKey::kLoggedSeconds));
    case NotLoggedColumn:
        return JRDurationText(groupSum(g, DraftKey::kRemainingSeconds));
    case ToPostColumn:
        return review::durationCell(groupSum(g, DraftKey::kPostSeconds));
    case EstimateColumn:
        return optionalDuration(first, RowKey::kJiraEstimate);
    case JiraRemainingColumn:
        return optionalDuration(first, RowKey::kJiraRemaining);
    case StatusColumn:
        return g.rows.size() == 1 ? QStringLiteral("1 session") : QStringLiteral("%1 sessions").arg(g.rows.size());
    default:
        return {};
    }
}

QVariant ReviewModel::sessionData(int index, int column, int role) const
{
    if (index < 0)
        return {};
    const QVariantMap row = m_rows[index].toMap();
    switch (role) {
    case KindRole:
        return int(Kind::Session);
    case RowRole:
        return index;
    case SourceKeyRole:
        return str(row, DraftKey::kSourceKey);
    case UnavailableRole:
        return review::unavailable(row);
    case Qt::ForegroundRole:
        return review::unavailable(row) ? dimmedText() : QVariant();
    case BusyRole:
        return flag(row, RowKey::kProgressActive);
    case StatusTextRole:
    case StatusSymbolRole:
    case StatusTintRole: {
        const QString progress = str(row, RowKey::kProgress);
        const review::StatusLook look = progress.isEmpty() ? review::statusLook(row) : review::progressLook(progress);
        if (role == StatusTextRole)
            return look.text;
        return role == StatusSymbolRole ? int(look.symbol) : int(look.tint);
    }
    case Qt::CheckStateRole:
        if (column == IncludeColumn)
            return flag(row, DraftKey::kInclude) ? Qt::Checked : Qt::Unchecked;
        return {};
    case Qt::ToolTipRole:
        if (column == IncludeColumn)
            return QStringLiteral("Click and drag to select multiple worklogs");
        if (column == StatusColumn || column == CommentColumn || column == TitleColumn)
            return sessionData(index, column, column == StatusColumn ? int(StatusTextRole) : int(Qt::DisplayRole));
        return {};
    case Qt::EditRole:
        if (column == ToPostColumn)
            return JRDurationText(JRPostSeconds(row));
        return sessionData(index, column, Qt::DisplayRole);
    case Qt::AccessibleTextRole:
    case Qt::DisplayRole:
        break;
    default:
        return {};
    }
    switch (column) {
    case IncludeColumn:
        return role == Qt::AccessibleTextRole
            ? QVariant(flag(row, DraftKey::kInclude) ? QStringLiteral("Ticked") : QStringLiteral("Not ticked"))
            : QVariant();
    case IssueColumn:
        return {};
    case TitleColumn: {
        const QString activity = str(row, DraftKey::kActivity);
        return activity.isEmpty() ? str(row.value(DraftKey::kSession).toMap(), SessionKey::kDescription) : activity;
    }
    case TrackedColumn:
        return review::durationCell(num(row, DraftKey::kSeconds));
    case LoggedColumn:
        return JRDurationText(num(row, DraftKey::kLoggedSeconds));
    case NotLoggedColumn:
        return review::durationCell(num(row, DraftKey::kRemainingSeconds));
    case ToPostColumn:
        return review::durationCell(JRPostSeconds(row));
    case EstimateColumn:
    case JiraRemainingColumn:
        return {};
    case CommentColumn:
        return str(row, DraftKey::kComment);
    case StatusColumn:
        return sessionData(index, column, StatusTextRole);
    default:
        return {};
    }
}

Qt::ItemFlags ReviewModel::flags(const QModelIndex &index) const
{
    if (!index.isValid())
        return Qt::NoItemFlags;
    const Kind k = kind(index);
    if (k == Kind::Spacer)
        return Qt::NoItemFlags;
    Qt::ItemFlags result = Qt::ItemIsEnabled | Qt::ItemIsSelectable;
    if (k == Kind::Group) {
        if (index.column() == IncludeColumn)
            for (int i : m_groups[index.row() / 2].rows)
                if (flag(m_rows[i].toMap(), RowKey::kCanTick))
                    return result | Qt::ItemIsUserCheckable;
        return result;
    }
    const QVariantMap row = m_rows[rowOf(index)].toMap();
    if (index.column() == IncludeColumn && flag(row, RowKey::kCanTick))
        result |= Qt::ItemIsUserCheckable;
    if (index.column() == ToPostColumn && flag(row, RowKey::kCanEditPost))
        result |= Qt::ItemIsEditable;
    return result;
}

void ReviewModel::setTick(int index, bool ticked)
{
    QVariantMap row = m_rows[index].toMap();
    if (!flag(row, RowKey::kCanTick) || flag(row, DraftKey::kInclude) == ticked)
        return;
    row.insert(DraftKey::kInclude, ticked);
    updateRow(index, row);
}

bool ReviewModel::setData(const QModelIndex &index, const QVariant &value, int role)
{
    if (!index.isValid())
        return false;
    const Kind k = kind(index);
    if (role == Qt::CheckStateRole && index.column() == IncludeColumn && (flags(index) & Qt::ItemIsUserCheckable)) {
        const bool ticked = value.toInt() != Qt::Unchecked;
        if (k == Kind::Group) {
            for (int i : m_groups[index.row() / 2].rows)
                setTick(i, ticked);
        } else {
            setTick(rowOf(index), ticked);
        }
        emit choicesChanged();
        return true;
    }
    if (role == Qt::EditRole && index.column() == ToPostColumn && k == Kind::Session
        && (flags(index) & Qt::ItemIsEditable)) {
        const int i = rowOf(index);
        QVariantMap row = m_rows[i].toMap();
        const qint64 seconds = review::toPostSeconds(value.toString(), num(row, DraftKey::kRemainingSeconds));
        if (seconds < 0) {
            emit editRefused(review::toPostRefusal());
            return false;
        }
        row.insert(DraftKey::kPostSeconds, seconds);
        updateRow(i, row);
        emit choicesChanged();
        return true;
    }
    return false;
}
