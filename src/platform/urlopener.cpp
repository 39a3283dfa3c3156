#include "platform/urlopener.h"

#include <atomic>

namespace
{

std::atomic<UrlOpener *> g_shared {nullptr};

} // namespace

UrlOpener *UrlOpener::shared()
{
    return g_shared.load();
}

void UrlOpener::setShared(UrlOpener *opener)
{
    g_shared.store(opener);
}
