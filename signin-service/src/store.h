#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <unordered_map>

namespace signin
{

// The store could not be reached; the request is answered 503 and nothing of it is kept.
class StoreUnavailable : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// The store holds as many pending sign-ins as it may.
class StoreFull : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// Short-lived values with a time to live. Every change is a compare-and-set on the whole value, so two
// instances (or two threads) racing on one sign-in can never both move it on: one callback exchanges the code,
// one poll takes the tokens.
class Store
{
public:
    virtual ~Store() = default;
    // Adds `value` under `key` for `ttlSeconds`; false when the key exists.
    virtual bool create(const std::string &key, const std::string &value, int ttlSeconds) = 0;
    virtual std::optional<std::string> get(const std::string &key) = 0;
    // Replaces the value only while it is still `expected`; the time to live stays.
    virtual bool replace(const std::string &key, const std::string &expected, const std::string &value) = 0;
    // Deletes the value only while it is still `expected`; true when this call deleted it.
    virtual bool take(const std::string &key, const std::string &expected) = 0;
    virtual std::size_t size() = 0;
    virtual std::string kind() const = 0;
};

class MemoryStore : public Store
{
public:
    using Clock = std::chrono::steady_clock;

    explicit MemoryStore(std::size_t maxEntries);
    bool create(const std::string &key, const std::string &value, int ttlSeconds) override;
    std::optional<std::string> get(const std::string &key) override;
    bool replace(const std::string &key, const std::string &expected, const std::string &value) override;
    bool take(const std::string &key, const std::string &expected) override;
    std::size_t size() override;
    std::string kind() const override { return "memory"; }

private:
    struct Entry {
        std::string value;
        Clock::time_point expires;
    };
    void sweep(Clock::time_point now);
    Entry *live(const std::string &key, Clock::time_point now);

    std::size_t m_maxEntries;
    std::size_t m_createsSinceSweep = 0;
    std::mutex m_mutex;
    std::unordered_map<std::string, Entry> m_entries;
};

// Opens the store a setting names: "memory" or a redis:// URL. Throws std::invalid_argument for a bad URL.
std::unique_ptr<Store> makeStore(const std::string &setting, std::size_t maxEntries);
std::unique_ptr<Store> makeRedisStore(const std::string &url);

} // namespace signin
