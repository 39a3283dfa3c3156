#pragma once

#include <QByteArray>
#include <QString>

namespace testenv
{

// The temporary HOME of this test process; the XDG folders sit inside it. Removed when the process ends.
QString home();

// A fresh empty folder inside the temporary HOME.
QString freshDir(const QString &name);

// The built `hourloom` executable, for tests of the command-line modes.
QString hourloomBinary();

// A file in tests/data.
QString dataPath(const QString &name);

// Switches the process's local time zone for the lifetime of the object (TZ plus tzset).
class ScopedTimeZone
{
public:
    explicit ScopedTimeZone(const QByteArray &zone);
    ~ScopedTimeZone();
    ScopedTimeZone(const ScopedTimeZone &) = delete;
    ScopedTimeZone &operator=(const ScopedTimeZone &) = delete;

private:
    QByteArray m_previous;
    bool m_hadPrevious = false;
};

// Runs the event loop until `condition` is true or `timeoutMs` passes; returns the condition's last value. The
// limit only bounds a wait for something that must come, so it is generous: a busy machine never reaches it.
template<typename Condition> bool waitFor(Condition condition, int timeoutMs = 30000);

} // namespace testenv

#include "support/testenv_impl.h"
