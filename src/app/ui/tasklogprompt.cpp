#include "app/ui/tasklogprompt.h"

#include <QApplication>
#include <QCursor>
#include <QFrame>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QScreen>
#include <QShortcut>
#include <QVBoxLayout>

namespace
{

constexpr int kMargin = 8;
constexpr int kWidth = 340;
constexpr int kOutcomeMs = 4000;

} // namespace

TaskLogPromptController::TaskLogPromptController(QObject *parent)
    : QObject(parent)
{
    m_outcomeTimer.setSingleShot(true);
    connect(&m_outcomeTimer, &QTimer::timeout, this, [this] {
        if (m_popup)
            m_popup->hide();
    });
}

TaskLogPromptController::~TaskLogPromptController()
{
    delete m_popup;
}

void TaskLogPromptController::build()
{
    if (m_popup)
        return;
    m_popup = new QFrame(nullptr, Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint);
    m_popup->setObjectName(QStringLiteral("TaskLogPrompt"));
    m_popup->setFrameShape(QFrame::StyledPanel);
    m_popup->setAttribute(Qt::WA_ShowWithoutActivating, false);
    m_popup->setFixedWidth(kWidth);

    auto *layout = new QVBoxLayout(m_popup);
    layout->setContentsMargins(14, 12, 14, 12);
    layout->setSpacing(6);
    m_title = new QLabel(m_popup);
    QFont titleFont = m_title->font();
    titleFont.setBold(true);
    titleFont.setPointSizeF(titleFont.pointSizeF() * 1.15);
    m_title->setFont(titleFont);
    m_title->setWordWrap(true);
    layout->addWidget(m_title);
    m_subtitle = new QLabel(m_popup);
    m_subtitle->setWordWrap(true);
    layout->addWidget(m_subtitle);
    m_details = new QGridLayout;
    m_details->setHorizontalSpacing(12);
    m_details->setVerticalSpacing(3);
    m_details->setColumnStretch(1, 1);
    layout->addLayout(m_details);
    m_notice = new QLabel(m_popup);
    m_notice->setWordWrap(true);
    m_notice->setStyleSheet(QStringLiteral("color: #a15c00;"));
    layout->addWidget(m_notice);
    m_disabledReason = new QLabel(m_popup);
    m_disabledReason->setWordWrap(true);
    m_disabledReason->setForegroundRole(QPalette::PlaceholderText);
    layout->addWidget(m_disabledReason);

    auto *buttons = new QHBoxLayout;
    m_worklogs = new QPushButton(QStringLiteral("Open Worklogs…"), m_popup);
    m_worklogs->setFlat(true);
    buttons->addWidget(m_worklogs);
    buttons->addStretch(1);
    m_later = new QPushButton(QStringLiteral("Later"), m_popup);
    m_later->setToolTip(
        QStringLiteral("Dismiss this reminder. Nothing is written and the worklog stays available in Worklogs."));
    buttons->addWidget(m_later);
    m_primary = new QPushButton(m_popup);
    m_primary->setDefault(true);
    m_primary->setAutoDefault(true);
    buttons->addWidget(m_primary);
    layout->addLayout(buttons);

    connect(m_primary, &QPushButton::clicked, this, [this] {
        if (primaryAction)
            primaryAction();
    });
    connect(m_later, &QPushButton::clicked, this, [this] {
        if (m_outcomeTimer.isActive())
            dismiss();
        else if (later)
            later();
        else
            dismiss();
    });
    connect(m_worklogs, &QPushButton::clicked, this, [this] {
        if (openWorklogs)
            openWorklogs();
    });
    for (const auto key : {Qt::Key_Return, Qt::Key_Enter}) {
        auto *shortcut = new QShortcut(QKeySequence(key), m_popup);
        connect(shortcut, &QShortcut::activated, m_primary, [this] {
            if (m_primary->isVisible() && m_primary->isEnabled())
                m_primary->click();
        });
    }
    auto *escape = new QShortcut(QKeySequence(Qt::Key_Escape), m_popup);
    connect(escape, &QShortcut::activated, m_later, [this] { m_later->click(); });
}

void TaskLogPromptController::fill(const PromptContent &content)
{
    build();
    m_outcomeTimer.stop();
    m_title->setText(content.title);
    m_subtitle->setText(content.subtitle);
    m_subtitle->setVisible(!content.subtitle.isEmpty());
    while (QLayoutItem *item = m_details->takeAt(0)) {
        delete item->widget();
        delete item;
    }
    int row = 0;
    for (const auto &[label, value] : content.details) {
        auto *name = new QLabel(label, m_popup);
        name->setForegroundRole(QPalette::PlaceholderText);
        auto *text = new QLabel(value.isEmpty() ? QStringLiteral("—") : value, m_popup);
        text->setWordWrap(true);
        text->setTextInteractionFlags(Qt::TextSelectableByMouse);
        m_details->addWidget(name, row, 0, Qt::AlignRight | Qt::AlignTop);
        m_details->addWidget(text, row, 1);
        ++row;
    }
    m_notice->setText(content.notice);
    m_notice->setVisible(!content.notice.isEmpty());
    m_disabledReason->setText(content.disabledReason);
    m_disabledReason->setVisible(!content.disabledReason.isEmpty());
    m_primary->setText(content.primaryTitle);
    m_primary->setVisible(!content.primaryTitle.isEmpty());
    m_primary->setEnabled(content.disabledReason.isEmpty());
    m_later->setText(QStringLiteral("Later"));
    m_later->setVisible(true);
    // Both nudges lead to Worklogs: the reminder's own button may be disabled while Jira is busy.
    m_worklogs->setVisible(true);
    m_popup->adjustSize();
}

QPoint TaskLogPromptController::placement(const QRect &anchor, const QSize &size, const QRect &available)
{
    QPoint at;
    if (anchor.isEmpty() || !available.intersects(anchor)) {
        // No icon geometry: the panel corner, top right of the free area.
        at = QPoint(available.right() - size.width() - kMargin + 1, available.top() + kMargin);
    } else {
        // Below an icon in the upper half of the screen, above one in the lower half; centred on it.
        const bool below = anchor.center().y() < available.center().y();
        at.setX(anchor.center().x() - size.width() / 2);
        at.setY(below ? anchor.bottom() + 1 + kMargin : anchor.top() - size.height() - kMargin);
    }
    at.setX(std::clamp(at.x(), available.left() + kMargin,
        std::max(available.left() + kMargin, available.right() + 1 - size.width() - kMargin)));
    at.setY(std::clamp(at.y(), available.top(), std::max(available.top(), available.bottom() + 1 - size.height())));
    return at;
}

void TaskLogPromptController::place(const QRect &anchor)
{
    QScreen *screen
        = anchor.isEmpty() ? QGuiApplication::screenAt(QCursor::pos()) : QGuiApplication::screenAt(anchor.center());
    if (!screen)
        screen = QGuiApplication::primaryScreen();
    const QRect available = screen ? screen->availableGeometry() : QRect(0, 0, 1280, 800);
    m_popup->move(placement(anchor, m_popup->sizeHint(), available));
}

void TaskLogPromptController::show(const PromptContent &content)
{
    fill(content);
    place(anchorRect ? anchorRect() : QRect());
    m_popup->show();
    m_popup->raise();
    m_popup->activateWindow();
    m_primary->setFocus();
}

void TaskLogPromptController::showFromView(const QRect &anchor, const QString &title, const QString &subtitle,
    const QList<QPair<QString, QString>> &details, const QString &notice, const QString &primaryTitle,
    const QString &disabledReason)
{
    PromptContent content;
    content.title = title;
    content.subtitle = subtitle;
    content.details = details;
    content.notice = notice;
    content.primaryTitle = primaryTitle;
    content.disabledReason = disabledReason;
    fill(content);
    place(anchor);
    m_popup->show();
}

bool TaskLogPromptController::visible() const
{
    // An outcome on its way out is not a prompt.
    return m_popup && m_popup->isVisible() && !m_outcomeTimer.isActive();
}

void TaskLogPromptController::dismiss()
{
    m_outcomeTimer.stop();
    if (m_popup)
        m_popup->hide();
}

void TaskLogPromptController::showOutcome(const QString &text, bool ok)
{
    PromptContent content;
    content.kind = PromptContent::Kind::WorkdayReminder;
    content.title = text;
    content.subtitle = ok ? QString() : QStringLiteral("The time stays in Worklogs.");
    fill(content);
    m_later->setText(QStringLiteral("Close"));
    m_worklogs->setVisible(!ok);
    m_popup->adjustSize();
    place(anchorRect ? anchorRect() : QRect());
    m_popup->show();
    m_outcomeTimer.start(kOutcomeMs);
}

QWidget *TaskLogPromptController::widget() const
{
    return m_popup;
}

bool TaskLogPromptController::writeSnapshot(const QString &path) const
{
    return m_popup && m_popup->grab().save(path, "PNG");
}
