#include "ratelimiter.h"

#include <algorithm>
#include <cmath>

namespace signin
{

RateLimiter::RateLimiter(int perMinute, std::size_t maxClients)
    : m_capacity(std::max(1, perMinute))
    , m_perSecond(std::max(1, perMinute) / 60.0)
    , m_maxClients(maxClients)
{
}

bool RateLimiter::allow(const std::string &client, int *retryAfter)
{
    return allow(client, Clock::now(), retryAfter);
}

bool RateLimiter::allow(const std::string &client, Clock::time_point now, int *retryAfter)
{
    std::lock_guard lock(m_mutex);
    auto it = m_buckets.find(client);
    if (it == m_buckets.end()) {
        if (m_buckets.size() >= m_maxClients)
            sweep(now);
        if (m_buckets.size() >= m_maxClients) {
            if (retryAfter)
                *retryAfter = 60;
            return false;
        }
        it = m_buckets.emplace(client, Bucket {m_capacity, now}).first;
    }
    Bucket &bucket = it->second;
    const double elapsed = std::chrono::duration<double>(now - bucket.updated).count();
    bucket.tokens = std::min(m_capacity, bucket.tokens + std::max(0.0, elapsed) * m_perSecond);
    bucket.updated = now;
    if (bucket.tokens >= 1.0) {
        bucket.tokens -= 1.0;
        return true;
    }
    if (retryAfter)
        *retryAfter = std::max(1, int(std::ceil((1.0 - bucket.tokens) / m_perSecond)));
    return false;
}

std::size_t RateLimiter::clients() const
{
    std::lock_guard lock(m_mutex);
    return m_buckets.size();
}

void RateLimiter::sweep(Clock::time_point now)
{
    for (auto it = m_buckets.begin(); it != m_buckets.end();) {
        const double elapsed = std::chrono::duration<double>(now - it->second.updated).count();
        if (it->second.tokens + elapsed * m_perSecond >= m_capacity)
            it = m_buckets.erase(it);
        else
            ++it;
    }
}

} // namespace signin
