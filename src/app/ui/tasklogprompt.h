#pragma once

#include "app/promptlogic.h"

#include <QObject>
#include <QPointer>
#include <QRect>
#include <QTimer>

#include <functional>

class QFrame;
class QGridLayout;
class QLabel;
class QPushButton;

// The log prompt and the workday reminder as a small frameless popup next to the tray icon. It only shows
// what LogPromptCoordinator decides and reports the buttons back through the presenter callbacks.
class TaskLogPromptController : public QObject, public PromptPresenter
{
    Q_OBJECT

public:
    explicit TaskLogPromptController(QObject *parent = nullptr);
    ~TaskLogPromptController() override;

    // Where the tray icon is on screen; an empty rectangle when the tray does not say. Then the popup opens
    // at the panel corner of the screen that holds the cursor.
    std::function<QRect()> anchorRect;

    bool visible() const override;
    void show(const PromptContent &content) override;
    void dismiss() override;
    void showOutcome(const QString &text, bool ok) override;

    void showFromView(const QRect &anchor, const QString &title, const QString &subtitle,
        const QList<QPair<QString, QString>> &details, const QString &notice, const QString &primaryTitle,
        const QString &disabledReason);

    // The popup's top-left for a popup of `size` at `anchor` on a screen whose free area is `available`.
    static QPoint placement(const QRect &anchor, const QSize &size, const QRect &available);

    QWidget *widget() const;
    bool writeSnapshot(const QString &path) const;

private:
    void build();
    void fill(const PromptContent &content);
    void place(const QRect &anchor);

    QPointer<QFrame> m_popup;
    QLabel *m_title = nullptr;
    QLabel *m_subtitle = nullptr;
    QGridLayout *m_details = nullptr;
    QLabel *m_notice = nullptr;
    QLabel *m_disabledReason = nullptr;
    QPushButton *m_primary = nullptr;
    QPushButton *m_later = nullptr;
    QPushButton *m_worklogs = nullptr;
    QTimer m_outcomeTimer;
};
