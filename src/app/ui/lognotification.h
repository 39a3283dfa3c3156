#pragma once

#include "app/promptlogic.h"

#include <QObject>
#include <QString>
#include <QStringList>

// The log prompt and the workday reminder as a desktop notification (org.freedesktop.Notifications on the
// session bus) with "Log now" and "Later" actions: the natural nudge on GNOME, KDE and XFCE. The actions
// reach LogPromptCoordinator exactly like the popup's buttons.
class LogNotificationSender : public QObject, public PromptPresenter
{
    Q_OBJECT

public:
    static constexpr const char *kPrimaryAction = "log-now";
    static constexpr const char *kLaterAction = "later";

    explicit LogNotificationSender(QObject *parent = nullptr);
    ~LogNotificationSender() override;

    // Whether a notification server is running that shows actions.
    static bool serverOffersActions();

    bool visible() const override { return m_id != 0 || m_sending; }
    void show(const PromptContent &content) override;
    void dismiss() override;
    void showOutcome(const QString &text, bool ok) override;

    // The server's id of the notification on screen; 0 when none.
    quint32 notificationId() const { return m_id; }

    static QString body(const PromptContent &content);
    static QStringList actions(const PromptContent &content);

Q_SIGNALS:
    // The server accepted the notification (id) or refused it (0, with the error's text).
    void notificationSent(quint32 id);
    void notificationFailed(const QString &error);

private Q_SLOTS:
    void onActionInvoked(quint32 id, const QString &action);
    void onNotificationClosed(quint32 id, quint32 reason);

private:
    void notify(
        const QString &summary, const QString &text, const QStringList &actionList, int timeoutMs, bool trackAsPrompt);

    quint32 m_id = 0;
    bool m_sending = false;
    bool m_dismissWhenSent = false;
    quint64 m_serial = 0;
};
