#include "app/ui/reviewview.h"

#include "app/ui/reviewmodel.h"
#include "app/ui/reviewrules.h"

#include <QApplication>
#include <QIcon>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>

namespace
{

QColor tintColor(review::Tint tint, const QPalette &palette)
{
    switch (tint) {
    case review::Tint::Accent:
        return palette.color(QPalette::Highlight);
    case review::Tint::Attention:
        return QColor(0xe6, 0x7e, 0x22);
    case review::Tint::Failure:
        return QColor(0xd0, 0x33, 0x2b);
    case review::Tint::Secondary:
        break;
    }
    return palette.color(QPalette::PlaceholderText);
}

// Draws the symbol in the tint when the icon theme has no icon of that name.
void paintSymbol(QPainter *painter, const QRectF &box, review::Symbol symbol, const QColor &color, const QColor &inner)
{
    painter->save();
    painter->setRenderHint(QPainter::Antialiasing);
    const QRectF r = box.adjusted(1.5, 1.5, -1.5, -1.5);
    const QPointF c = r.center();
    const qreal w = r.width();
    QPen pen(color, qMax<qreal>(1.4, w / 9.0), Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin);
    painter->setPen(pen);
    switch (symbol) {
    case review::Symbol::Ready: {
        painter->setBrush(color);
        painter->drawEllipse(r);
        QPen arrow(inner, w / 8.0, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin);
        painter->setPen(arrow);
        painter->drawLine(QPointF(c.x(), r.bottom() - w * 0.22), QPointF(c.x(), r.top() + w * 0.22));
        painter->drawPolyline(QPolygonF({QPointF(c.x() - w * 0.2, c.y() - w * 0.05), QPointF(c.x(), r.top() + w * 0.22),
            QPointF(c.x() + w * 0.2, c.y() - w * 0.05)}));
        break;
    }
    case review::Symbol::Attention:
    case review::Symbol::Failed:
        painter->drawEllipse(r);
        painter->drawLine(QPointF(c.x(), r.top() + w * 0.25), QPointF(c.x(), c.y() + w * 0.08));
        painter->drawPoint(QPointF(c.x(), r.bottom() - w * 0.22));
        break;
    case review::Symbol::Done:
    case review::Symbol::Checked:
        if (symbol == review::Symbol::Checked) {
            painter->setBrush(color);
            painter->drawEllipse(r);
            painter->setPen(QPen(inner, w / 8.0, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
        } else {
            painter->drawEllipse(r);
        }
        painter->drawPolyline(QPolygonF({QPointF(r.left() + w * 0.27, c.y()),
            QPointF(c.x() - w * 0.05, c.y() + w * 0.2), QPointF(r.right() - w * 0.25, c.y() - w * 0.2)}));
        break;
    case review::Symbol::Combined: {
        QPainterPath path;
        path.moveTo(r.left() + w * 0.15, r.top());
        path.cubicTo(QPointF(r.left() + w * 0.15, c.y()), QPointF(c.x(), c.y()), QPointF(c.x(), r.bottom()));
        path.moveTo(r.right() - w * 0.15, r.top());
        path.cubicTo(QPointF(r.right() - w * 0.15, c.y()), QPointF(c.x(), c.y()), QPointF(c.x(), r.bottom()));
        painter->drawPath(path);
        break;
    }
    case review::Symbol::Waiting:
        painter->drawEllipse(r);
        painter->drawPolyline(
            QPolygonF({QPointF(c.x(), r.top() + w * 0.22), c, QPointF(c.x() + w * 0.22, c.y() + w * 0.1)}));
        break;
    case review::Symbol::Neutral:
        painter->drawEllipse(r);
        break;
    }
    painter->restore();
}

} // namespace

void StatusDelegate::paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const
{
    QStyleOptionViewItem opt = option;
    initStyleOption(&opt, index);
    const QString text = index.data(ReviewModel::StatusTextRole).toString();
    opt.text.clear();
    QStyle *style = opt.widget ? opt.widget->style() : QApplication::style();
    style->drawControl(QStyle::CE_ItemViewItem, &opt, painter, opt.widget);
    if (text.isEmpty())
        return;

    const bool group = index.data(ReviewModel::KindRole).toInt() == int(ReviewModel::Kind::Group);
    const int size = qMin(16, opt.rect.height() - 4);
    QRect box(opt.rect.left() + 4, opt.rect.center().y() - size / 2 + 1, size, size);
    const auto tint = review::Tint(index.data(ReviewModel::StatusTintRole).toInt());
    const auto symbol = review::Symbol(index.data(ReviewModel::StatusSymbolRole).toInt());
    const bool selected = opt.state & QStyle::State_Selected;
    const QColor color = selected ? opt.palette.color(QPalette::HighlightedText) : tintColor(tint, opt.palette);
    int textLeft = opt.rect.left() + 4;
    if (!group) {
        if (index.data(ReviewModel::BusyRole).toBool()) {
            painter->save();
            painter->setRenderHint(QPainter::Antialiasing);
            painter->setPen(QPen(color, 2, Qt::SolidLine, Qt::RoundCap));
            painter->drawArc(QRectF(box).adjusted(2, 2, -2, -2), -spinnerAngle * 16, 270 * 16);
            painter->restore();
        } else {
            const QString name = review::iconName(symbol);
            if (QIcon::hasThemeIcon(name))
                QIcon::fromTheme(name).paint(painter, box);
            else
                paintSymbol(painter, box, symbol, color,
                    selected ? opt.palette.color(QPalette::Highlight) : opt.palette.color(QPalette::Base));
        }
        textLeft = box.right() + 6;
    }
    QRect textRect(textLeft, opt.rect.top(), opt.rect.right() - textLeft - 2, opt.rect.height());
    painter->save();
    const bool dimmed = index.data(ReviewModel::UnavailableRole).toBool();
    QColor textColor = opt.palette.color(selected ? QPalette::HighlightedText : QPalette::Text);
    if (dimmed && !selected)
        textColor = opt.palette.color(QPalette::Disabled, QPalette::Text);
    if (group && !selected)
        textColor = opt.palette.color(QPalette::PlaceholderText);
    painter->setPen(textColor);
    painter->setFont(opt.font);
    painter->drawText(
        textRect, Qt::AlignVCenter | Qt::AlignLeft, opt.fontMetrics.elidedText(text, Qt::ElideRight, textRect.width()));
    painter->restore();
}

QSize StatusDelegate::sizeHint(const QStyleOptionViewItem &option, const QModelIndex &index) const
{
    QSize size = QStyledItemDelegate::sizeHint(option, index);
    const QString text = index.data(ReviewModel::StatusTextRole).toString();
    size.setWidth(option.fontMetrics.horizontalAdvance(text) + 32);
    size.setHeight(qMax(size.height(), 22));
    return size;
}

void DragCheckboxDelegate::paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const
{
    QStyleOptionViewItem opt = option;
    initStyleOption(&opt, index);
    QStyle *style = opt.widget ? opt.widget->style() : QApplication::style();
    // Background and selection only; the check box is drawn centred below.
    opt.features &= ~QStyleOptionViewItem::HasCheckIndicator;
    style->drawControl(QStyle::CE_ItemViewItem, &opt, painter, opt.widget);
    const QVariant state = index.data(Qt::CheckStateRole);
    if (!state.isValid())
        return;
    QStyleOptionButton box;
    box.rect = style->subElementRect(QStyle::SE_CheckBoxIndicator, &box, opt.widget);
    box.rect.moveCenter(opt.rect.center());
    box.state = QStyle::State_Enabled;
    if (!(index.flags() & Qt::ItemIsUserCheckable))
        box.state &= ~QStyle::State_Enabled;
    switch (Qt::CheckState(state.toInt())) {
    case Qt::Checked:
        box.state |= QStyle::State_On;
        break;
    case Qt::PartiallyChecked:
        box.state |= QStyle::State_NoChange;
        break;
    case Qt::Unchecked:
        box.state |= QStyle::State_Off;
        break;
    }
    box.palette = opt.palette;
    style->drawPrimitive(QStyle::PE_IndicatorCheckBox, &box, painter, opt.widget);
}

bool DragCheckboxDelegate::editorEvent(
    QEvent *, QAbstractItemModel *, const QStyleOptionViewItem &, const QModelIndex &)
{
    // The view handles presses, drags and Space, so a click is never counted twice.
    return false;
}

ReviewTreeView::ReviewTreeView(QWidget *parent)
    : QTreeView(parent)
    , m_status(new StatusDelegate(this))
    , m_checkbox(new DragCheckboxDelegate(this))
{
    setItemDelegateForColumn(ReviewModel::StatusColumn, m_status);
    setItemDelegateForColumn(ReviewModel::IncludeColumn, m_checkbox);
    setSelectionMode(QAbstractItemView::ExtendedSelection);
    setSelectionBehavior(QAbstractItemView::SelectRows);
    setEditTriggers(QAbstractItemView::EditKeyPressed | QAbstractItemView::SelectedClicked);
    setUniformRowHeights(false);
    setAllColumnsShowFocus(true);
    setAlternatingRowColors(false);
    setContextMenuPolicy(Qt::CustomContextMenu);
    setAccessibleName(QStringLiteral("Worklogs"));
    m_spinner.setInterval(80);
    connect(&m_spinner, &QTimer::timeout, this, [this] {
        m_status->spinnerAngle = (m_status->spinnerAngle + 30) % 360;
        viewport()->update();
    });
}

void ReviewTreeView::setSpinning(bool spinning)
{
    if (spinning && !m_spinner.isActive())
        m_spinner.start();
    else if (!spinning)
        m_spinner.stop();
}

void ReviewTreeView::dataChanged(const QModelIndex &topLeft, const QModelIndex &bottomRight, const QList<int> &roles)
{
    // A row's height never follows its values (sessions share one height, spacers another), so the tree's
    // size-hint refresh of every changed row is skipped: when a check updates a few hundred rows it was most of
    // the main thread's work. Groups gain or lose children only through a reset.
    QAbstractItemView::dataChanged(topLeft, bottomRight, roles);
}

bool ReviewTreeView::isSpacer(const QModelIndex &index) const
{
    return index.data(ReviewModel::KindRole).toInt() == int(ReviewModel::Kind::Spacer);
}

void ReviewTreeView::drawRow(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const
{
    if (isSpacer(index))
        return;
    QTreeView::drawRow(painter, option, index);
}

void ReviewTreeView::drawBranches(QPainter *painter, const QRect &rect, const QModelIndex &index) const
{
    if (isSpacer(index))
        return;
    QTreeView::drawBranches(painter, rect, index);
}

void ReviewTreeView::applyTick(const QModelIndex &index, bool ticked)
{
    const QModelIndex box = index.siblingAtColumn(ReviewModel::IncludeColumn);
    if (!(box.flags() & Qt::ItemIsUserCheckable))
        return;
    if ((box.data(Qt::CheckStateRole).toInt() == Qt::Checked) == ticked)
        return;
    model()->setData(box, ticked ? Qt::Checked : Qt::Unchecked, Qt::CheckStateRole);
}

void ReviewTreeView::mousePressEvent(QMouseEvent *event)
{
    const QModelIndex index = indexAt(event->position().toPoint());
    if (event->button() == Qt::LeftButton && index.isValid() && index.column() == ReviewModel::IncludeColumn
        && (index.flags() & Qt::ItemIsUserCheckable)) {
        m_dragState = index.data(Qt::CheckStateRole).toInt() != Qt::Checked;
        m_dragging = true;
        applyTick(index, m_dragState);
        setCurrentIndex(index);
        event->accept();
        return;
    }
    QTreeView::mousePressEvent(event);
}

void ReviewTreeView::mouseMoveEvent(QMouseEvent *event)
{
    if (m_dragging) {
        const QModelIndex index
            = indexAt(QPoint(columnViewportPosition(ReviewModel::IncludeColumn) + 2, event->position().toPoint().y()));
        if (index.isValid())
            applyTick(index, m_dragState);
        event->accept();
        return;
    }
    QTreeView::mouseMoveEvent(event);
}

void ReviewTreeView::mouseReleaseEvent(QMouseEvent *event)
{
    if (m_dragging) {
        m_dragging = false;
        event->accept();
        return;
    }
    QTreeView::mouseReleaseEvent(event);
}

void ReviewTreeView::mouseDoubleClickEvent(QMouseEvent *event)
{
    const QModelIndex index = indexAt(event->position().toPoint());
    if (index.isValid() && index.column() == ReviewModel::IncludeColumn) {
        event->accept();
        return;
    }
    if (index.isValid() && (index.flags() & Qt::ItemIsEditable)) {
        QTreeView::mouseDoubleClickEvent(event);
        return;
    }
    if (index.isValid() && index.data(ReviewModel::KindRole).toInt() == int(ReviewModel::Kind::Session)) {
        emit activatedRow(index);
        event->accept();
        return;
    }
    QTreeView::mouseDoubleClickEvent(event);
}

void ReviewTreeView::keyPressEvent(QKeyEvent *event)
{
    if (event->key() == Qt::Key_Space && event->modifiers() == Qt::NoModifier && state() != EditingState) {
        QModelIndexList rows = selectionModel()->selectedRows(ReviewModel::IncludeColumn);
        if (rows.isEmpty() && currentIndex().isValid())
            rows.append(currentIndex().siblingAtColumn(ReviewModel::IncludeColumn));
        if (!rows.isEmpty()) {
            const bool ticked = rows.first().data(Qt::CheckStateRole).toInt() != Qt::Checked;
            for (const QModelIndex &row : std::as_const(rows))
                applyTick(row, ticked);
        }
        event->accept();
        return;
    }
    if ((event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter) && state() != EditingState
        && currentIndex().isValid()
        && currentIndex().data(ReviewModel::KindRole).toInt() == int(ReviewModel::Kind::Session)) {
        emit activatedRow(currentIndex());
        event->accept();
        return;
    }
    QTreeView::keyPressEvent(event);
}
