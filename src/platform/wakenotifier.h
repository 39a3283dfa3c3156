#pragma once

#include <QDBusConnection>
#include <QObject>

// Tells when the machine woke from sleep: logind's PrepareForSleep(false) on the system bus. Where there is
// no system bus or no logind, it never fires and says nothing.
class WakeNotifier : public QObject
{
    Q_OBJECT
public:
    explicit WakeNotifier(QObject *parent = nullptr);
    // Listens on the given bus instead (tests use the session bus).
    WakeNotifier(const QDBusConnection &bus, QObject *parent);

    bool isListening() const { return m_listening; }

signals:
    void woke();

private slots:
    void prepareForSleep(bool sleeping);

private:
    bool m_listening = false;
};
