// The columns of the Worklogs window: the header's "Columns" menu, and the visible columns and widths kept
// under "WorklogsColumns".

#include "app/ui/jirareviewwindow_p.h"

#include <QAction>
#include <QHeaderView>
#include <QMainWindow>
#include <QMenu>
#include <QSettings>

namespace
{

const QString kColumnsKey = QStringLiteral("WorklogsColumns");

} // namespace

void JiraReviewWindowController::Private::buildColumnsMenu()
{
    columns = new QMenu(QStringLiteral("Columns"), window);
    for (int column = 0; column < ReviewModel::ColumnCount; ++column) {
        QAction *action = columns->addAction(ReviewModel::columnTitle(column));
        action->setCheckable(true);
        action->setData(column);
        // The "Post" column is what posting is about: it cannot be hidden.
        action->setEnabled(column != ReviewModel::IncludeColumn);
        QObject::connect(action, &QAction::toggled, q, [this, column](bool shown) {
            tree->setColumnHidden(column, !shown);
            saveColumns();
        });
    }
    columns->addSeparator();
    QAction *reset = columns->addAction(QStringLiteral("Reset Columns"));
    QObject::connect(reset, &QAction::triggered, q, [this] { resetColumns(); });
}

void JiraReviewWindowController::Private::resetColumns()
{
    const QSignalBlocker blocker(tree->header());
    for (QAction *action : columns->actions()) {
        if (!action->isCheckable())
            continue;
        const int column = action->data().toInt();
        const QSignalBlocker actionBlocker(action);
        action->setChecked(ReviewModel::shownByDefault(column));
        tree->setColumnHidden(column, !ReviewModel::shownByDefault(column));
    }
    static constexpr int kWidths[] = {52, 110, 260, 70, 70, 80, 70, 70, 100, 200, 300};
    for (int column = 0; column < ReviewModel::ColumnCount; ++column)
        tree->setColumnWidth(column, kWidths[column]);
    QSettings().remove(kColumnsKey);
}

void JiraReviewWindowController::Private::restoreColumns()
{
    const QVariantMap stored = QSettings().value(kColumnsKey).toMap();
    resetColumns();
    const QSignalBlocker blocker(tree->header());
    for (QAction *action : columns->actions()) {
        if (!action->isCheckable())
            continue;
        const int column = action->data().toInt();
        const QVariantMap entry = stored.value(ReviewModel::columnIdentifier(column)).toMap();
        if (entry.isEmpty())
            continue;
        const bool shown = column == ReviewModel::IncludeColumn || entry.value(QStringLiteral("shown")).toBool();
        const QSignalBlocker actionBlocker(action);
        action->setChecked(shown);
        tree->setColumnHidden(column, !shown);
        const int width = entry.value(QStringLiteral("width")).toInt();
        if (width >= 20 && width <= 2000)
            tree->setColumnWidth(column, qMax(width, column == ReviewModel::IncludeColumn ? 44 : 20));
    }
}

void JiraReviewWindowController::Private::saveColumns() const
{
    QVariantMap stored;
    for (int column = 0; column < ReviewModel::ColumnCount; ++column)
        stored.insert(ReviewModel::columnIdentifier(column),
            QVariantMap {{QStringLiteral("shown"), !tree->isColumnHidden(column)},
                {QStringLiteral("width"), tree->columnWidth(column)}});
    QSettings().setValue(kColumnsKey, stored);
}
