#include "app/ui/lognotification.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusReply>
#include <QVariantMap>

namespace
{

const QString kService = QStringLiteral("org.freedesktop.Notifications");
const QString kPath = QStringLiteral("/org/freedesktop/Notifications");
const QString kInterface = QStringLiteral("org.freedesktop.Notifications");
const QString kAppName = QStringLiteral("Hourloom");
const QString kIcon = QStringLiteral("appointment-soon");

} // namespace

LogNotificationSender::LogNotificationSender(QObject *parent)
    : QObject(parent)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    bus.connect(
        kService, kPath, kInterface, QStringLiteral("ActionInvoked"), this, SLOT(onActionInvoked(quint32, QString)));
    bus.connect(kService, kPath, kInterface, QStringLiteral("NotificationClosed"), this,
        SLOT(onNotificationClosed(quint32, quint32)));
}

LogNotificationSender::~LogNotificationSender()
{
    dismiss();
}

bool LogNotificationSender::serverOffersActions()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected() || !bus.interface() || !bus.interface()->isServiceRegistered(kService))
        return false;
    const QDBusMessage call
        = QDBusMessage::createMethodCall(kService, kPath, kInterface, QStringLiteral("GetCapabilities"));
    const QDBusReply<QStringList> reply = bus.call(call, QDBus::Block, 5000);
    return reply.isValid() && reply.value().contains(QStringLiteral("actions"));
}

QString LogNotificationSender::body(const PromptContent &content)
{
    QStringList lines;
    if (!content.subtitle.isEmpty())
        lines << content.subtitle;
    for (const auto &[label, value] : content.details)
        lines << label + QStringLiteral(": ") + (value.isEmpty() ? QStringLiteral("—") : value);
    if (!content.notice.isEmpty())
        lines << content.notice;
    if (!content.disabledReason.isEmpty())
        lines << content.disabledReason;
    // Servers that read markup would take "<" and "&" in a comment as tags.
    return lines.join(u'\n').toHtmlEscaped();
}

QStringList LogNotificationSender::actions(const PromptContent &content)
{
    QStringList list;
    if (!content.primaryTitle.isEmpty() && content.disabledReason.isEmpty())
        list << QString::fromLatin1(kPrimaryAction) << content.primaryTitle;
    list << QString::fromLatin1(kLaterAction) << QStringLiteral("Later");
    return list;
}

void LogNotificationSender::show(const PromptContent &content)
{
    // Stays until the user answers: a prompt that expires would look like a decision.
    notify(content.title, body(content), actions(content), 0, true);
}

void LogNotificationSender::showOutcome(const QString &text, bool ok)
{
    notify(text, ok ? QString() : QStringLiteral("The time stays in Worklogs."), {}, 5000, false);
}

void LogNotificationSender::notify(
    const QString &summary, const QString &text, const QStringList &actionList, int timeoutMs, bool trackAsPrompt)
{
    QDBusMessage call = QDBusMessage::createMethodCall(kService, kPath, kInterface, QStringLiteral("Notify"));
    QVariantMap hints;
    hints.insert(QStringLiteral("desktop-entry"), QStringLiteral("app.hourloom.Hourloom"));
    hints.insert(QStringLiteral("urgency"), QVariant::fromValue<uchar>(1));
    call << kAppName << QVariant::fromValue<quint32>(m_id) << kIcon << summary << text << actionList << hints
         << qint32(timeoutMs);
    const quint64 serial = ++m_serial;
    if (trackAsPrompt) {
        m_sending = true;
        m_dismissWhenSent = false;
    } else {
        m_id = 0;
        m_sending = false;
    }
    auto *watcher = new QDBusPendingCallWatcher(QDBusConnection::sessionBus().asyncCall(call), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
        [this, watcher, serial, trackAsPrompt](QDBusPendingCallWatcher *) {
            watcher->deleteLater();
            const QDBusPendingReply<quint32> reply = *watcher;
            if (reply.isError()) {
                if (serial == m_serial)
                    m_sending = false;
                Q_EMIT notificationFailed(reply.error().message());
                return;
            }
            const quint32 id = reply.value();
            if (trackAsPrompt && serial == m_serial) {
                m_sending = false;
                m_id = id;
                if (m_dismissWhenSent) {
                    m_dismissWhenSent = false;
                    dismiss();
                }
            }
            Q_EMIT notificationSent(id);
        });
}

void LogNotificationSender::dismiss()
{
    if (m_sending)
        m_dismissWhenSent = true;
    if (m_id == 0)
        return;
    QDBusMessage call
        = QDBusMessage::createMethodCall(kService, kPath, kInterface, QStringLiteral("CloseNotification"));
    call << QVariant::fromValue<quint32>(m_id);
    m_id = 0;
    QDBusConnection::sessionBus().asyncCall(call);
}

void LogNotificationSender::onActionInvoked(quint32 id, const QString &action)
{
    if (id == 0 || id != m_id)
        return;
    // The server closes the notification after an action; it is no longer on screen.
    m_id = 0;
    if (action == QLatin1String(kPrimaryAction)) {
        if (primaryAction)
            primaryAction();
    } else if (action == QLatin1String(kLaterAction)) {
        if (later)
            later();
    }
}

void LogNotificationSender::onNotificationClosed(quint32 id, quint32 reason)
{
    if (id == 0 || id != m_id)
        return;
    m_id = 0;
    // Closed by the user (reason 2) counts as "Later"; expired or closed by us changes nothing.
    if (reason == 2 && later)
        later();
}
