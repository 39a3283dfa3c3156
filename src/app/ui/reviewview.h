#pragma once

#include <QStyledItemDelegate>
#include <QTimer>
#include <QTreeView>

// The "Jira Status" cell: a spinner while the row's operation runs, the status symbol in its tint, the text.
class StatusDelegate : public QStyledItemDelegate
{
    Q_OBJECT
public:
    using QStyledItemDelegate::QStyledItemDelegate;
    void paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const override;
    QSize sizeHint(const QStyleOptionViewItem &option, const QModelIndex &index) const override;
    // The spinner's angle, advanced by the view's timer.
    int spinnerAngle = 0;
};

// The "Post" checkbox, centred; the view turns presses and drags into ticks.
class DragCheckboxDelegate : public QStyledItemDelegate
{
    Q_OBJECT
public:
    using QStyledItemDelegate::QStyledItemDelegate;
    void paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const override;
    bool editorEvent(QEvent *event, QAbstractItemModel *model, const QStyleOptionViewItem &option,
        const QModelIndex &index) override;
};

// The outline of the Worklogs window. Pressing a "Post" checkbox and dragging across rows gives every crossed
// row the state of the first; Space ticks the selected rows; spacer rows draw nothing.
class ReviewTreeView : public QTreeView
{
    Q_OBJECT
public:
    explicit ReviewTreeView(QWidget *parent = nullptr);

    StatusDelegate *statusDelegate() const { return m_status; }
    // Starts or stops the spinner animation.
    void setSpinning(bool spinning);
    int viewState() const { return int(state()); }

signals:
    void activatedRow(const QModelIndex &index);

protected:
    void dataChanged(const QModelIndex &topLeft, const QModelIndex &bottomRight, const QList<int> &roles = {}) override;
    void drawRow(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const override;
    void drawBranches(QPainter *painter, const QRect &rect, const QModelIndex &index) const override;
    void mousePressEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;
    void mouseDoubleClickEvent(QMouseEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;

private:
    bool isSpacer(const QModelIndex &index) const;
    void applyTick(const QModelIndex &index, bool ticked);

    StatusDelegate *m_status = nullptr;
    DragCheckboxDelegate *m_checkbox = nullptr;
    QTimer m_spinner;
    bool m_dragging = false;
    bool m_dragState = false;
};
