#include "store.h"

namespace signin
{

MemoryStore::MemoryStore(std::size_t maxEntries)
    : m_maxEntries(maxEntries)
{
}

MemoryStore::Entry *MemoryStore::live(const std::string &key, Clock::time_point now)
{
    const auto it = m_entries.find(key);
    if (it == m_entries.end())
        return nullptr;
    if (it->second.expires <= now) {
        m_entries.erase(it);
        return nullptr;
    }
    return &it->second;
}

void MemoryStore::sweep(Clock::time_point now)
{
    for (auto it = m_entries.begin(); it != m_entries.end();)
        it = it->second.expires <= now ? m_entries.erase(it) : std::next(it);
    m_createsSinceSweep = 0;
}

bool MemoryStore::create(const std::string &key, const std::string &value, int ttlSeconds)
{
    const auto now = Clock::now();
    std::lock_guard lock(m_mutex);
    // Sweeping now and then keeps abandoned sign-ins from piling up between lookups.
    if (m_entries.size() >= m_maxEntries || ++m_createsSinceSweep >= 1024)
        sweep(now);
    if (live(key, now))
        return false;
    if (m_entries.size() >= m_maxEntries)
        throw StoreFull("too many pending sign-ins");
    m_entries.emplace(key, Entry {value, now + std::chrono::seconds(ttlSeconds)});
    return true;
}

std::optional<std::string> MemoryStore::get(const std::string &key)
{
    std::lock_guard lock(m_mutex);
    if (const Entry *entry = live(key, Clock::now()))
        return entry->value;
    return std::nullopt;
}

bool MemoryStore::replace(const std::string &key, const std::string &expected, const std::string &value)
{
    std::lock_guard lock(m_mutex);
    Entry *entry = live(key, Clock::now());
    if (!entry || entry->value != expected)
        return false;
    entry->value = value;
    return true;
}

bool MemoryStore::take(const std::string &key, const std::string &expected)
{
    std::lock_guard lock(m_mutex);
    const Entry *entry = live(key, Clock::now());
    if (!entry || entry->value != expected)
        return false;
    m_entries.erase(key);
    return true;
}

std::size_t MemoryStore::size()
{
    std::lock_guard lock(m_mutex);
    sweep(Clock::now());
    return m_entries.size();
}

std::unique_ptr<Store> makeStore(const std::string &setting, std::size_t maxEntries)
{
    if (setting == "memory")
        return std::make_unique<MemoryStore>(maxEntries);
    return makeRedisStore(setting);
}

} // namespace signin
