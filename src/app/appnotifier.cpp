#include "app/appnotifier.h"

AppNotifier &AppNotifier::shared()
{
    static AppNotifier notifier;
    return notifier;
}
