#pragma once

#include <chrono>
#include <cstddef>
#include <mutex>
#include <string>
#include <unordered_map>

namespace signin
{

// A token bucket per client address: `perMinute` requests in a burst, refilled evenly over a minute. The table
// of addresses is bounded: idle, full buckets are swept when it grows past `maxClients`, and when every entry
// is busy a new address is refused rather than let memory grow without limit.
class RateLimiter
{
public:
    using Clock = std::chrono::steady_clock;

    explicit RateLimiter(int perMinute, std::size_t maxClients = 65536);
    // True when `client` may make a request now; `retryAfter` gets the seconds to wait otherwise.
    bool allow(const std::string &client, int *retryAfter = nullptr);
    bool allow(const std::string &client, Clock::time_point now, int *retryAfter);
    std::size_t clients() const;

private:
    struct Bucket {
        double tokens;
        Clock::time_point updated;
    };
    void sweep(Clock::time_point now);

    double m_capacity;
    double m_perSecond;
    std::size_t m_maxClients;
    mutable std::mutex m_mutex;
    std::unordered_map<std::string, Bucket> m_buckets;
};

} // namespace signin
