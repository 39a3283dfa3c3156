#include "platform/wakenotifier.h"

WakeNotifier::WakeNotifier(QObject *parent)
    : WakeNotifier(QDBusConnection::systemBus(), parent)
{
}

WakeNotifier::WakeNotifier(const QDBusConnection &bus, QObject *parent)
    : QObject(parent)
{
    if (!bus.isConnected())
        return;
    QDBusConnection connection(bus);
    m_listening = connection.connect(QStringLiteral("org.freedesktop.login1"),
        QStringLiteral("/org/freedesktop/login1"), QStringLiteral("org.freedesktop.login1.Manager"),
        QStringLiteral("PrepareForSleep"), this, SLOT(prepareForSleep(bool)));
}

void WakeNotifier::prepareForSleep(bool sleeping)
{
    if (!sleeping)
        emit woke();
}
