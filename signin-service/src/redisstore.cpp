#include "store.h"

#include <hiredis/hiredis.h>

#include <charconv>
#include <vector>

namespace signin
{

namespace
{

constexpr const char *kPrefix = "hourloom-signin:";

// Compare-and-set and compare-and-delete run as scripts, so they are atomic on the server.
constexpr const char *kReplaceScript = "if redis.call('GET', KEYS[1]) == ARGV[1] then "
                                       "redis.call('SET', KEYS[1], ARGV[2], 'KEEPTTL') return 1 end return 0";
constexpr const char *kTakeScript
    = "if redis.call('GET', KEYS[1]) == ARGV[1] then redis.call('DEL', KEYS[1]) return 1 end return 0";

struct ReplyDeleter {
    void operator()(redisReply *reply) const { freeReplyObject(reply); }
};
using Reply = std::unique_ptr<redisReply, ReplyDeleter>;

struct ContextDeleter {
    void operator()(redisContext *context) const { redisFree(context); }
};
using Context = std::unique_ptr<redisContext, ContextDeleter>;

class RedisStore : public Store
{
public:
    RedisStore(std::string host, int port, int database, std::string password)
        : m_host(std::move(host))
        , m_port(port)
        , m_database(database)
        , m_password(std::move(password))
    {
    }

    bool create(const std::string &key, const std::string &value, int ttlSeconds) override
    {
        const std::string ttl = std::to_string(ttlSeconds);
        const Reply reply = command({"SET", kPrefix + key, value, "EX", ttl, "NX"});
        return reply->type == REDIS_REPLY_STATUS;
    }

    std::optional<std::string> get(const std::string &key) override
    {
        const Reply reply = command({"GET", kPrefix + key});
        if (reply->type != REDIS_REPLY_STRING)
            return std::nullopt;
        return std::string(reply->str, reply->len);
    }

    bool replace(const std::string &key, const std::string &expected, const std::string &value) override
    {
        const Reply reply = command({"EVAL", kReplaceScript, "1", kPrefix + key, expected, value});
        return reply->type == REDIS_REPLY_INTEGER && reply->integer == 1;
    }

    bool take(const std::string &key, const std::string &expected) override
    {
        const Reply reply = command({"EVAL", kTakeScript, "1", kPrefix + key, expected});
        return reply->type == REDIS_REPLY_INTEGER && reply->integer == 1;
    }

    std::size_t size() override
    {
        const Reply reply = command({"DBSIZE"});
        return reply->type == REDIS_REPLY_INTEGER ? std::size_t(reply->integer) : 0;
    }

    std::string kind() const override { return "redis"; }

private:
    Context connect()
    {
        const timeval timeout {1, 0};
        Context context(redisConnectWithTimeout(m_host.c_str(), m_port, timeout));
        if (!context || context->err)
            throw StoreUnavailable("cannot connect to redis");
        redisSetTimeout(context.get(), timeout);
        if (!m_password.empty())
            run(context.get(), {"AUTH", m_password});
        if (m_database != 0)
            run(context.get(), {"SELECT", std::to_string(m_database)});
        return context;
    }

    static Reply run(redisContext *context, const std::vector<std::string> &arguments)
    {
        std::vector<const char *> pointers;
        std::vector<size_t> lengths;
        for (const std::string &argument : arguments) {
            pointers.push_back(argument.data());
            lengths.push_back(argument.size());
        }
        Reply reply(static_cast<redisReply *>(
            redisCommandArgv(context, int(arguments.size()), pointers.data(), lengths.data())));
        if (!reply || context->err)
            throw StoreUnavailable("redis connection failed");
        if (reply->type == REDIS_REPLY_ERROR)
            throw StoreUnavailable("redis refused a command");
        return reply;
    }

    // One connection per request in flight, kept for reuse; a connection that failed is dropped, so the next
    // request reconnects.
    Reply command(const std::vector<std::string> &arguments)
    {
        Context context;
        {
            std::lock_guard lock(m_mutex);
            if (!m_idle.empty()) {
                context = std::move(m_idle.back());
                m_idle.pop_back();
            }
        }
        if (!context)
            context = connect();
        Reply reply = run(context.get(), arguments);
        std::lock_guard lock(m_mutex);
        if (m_idle.size() < 64)
            m_idle.push_back(std::move(context));
        return reply;
    }

    std::string m_host;
    int m_port;
    int m_database;
    std::string m_password;
    std::mutex m_mutex;
    std::vector<Context> m_idle;
};

} // namespace

std::unique_ptr<Store> makeRedisStore(const std::string &url)
{
    // redis://[:password@]host[:port][/db]
    std::string rest = url.substr(std::string("redis://").size());
    std::string password;
    if (const auto at = rest.rfind('@'); at != std::string::npos) {
        const std::string credentials = rest.substr(0, at);
        password = credentials.substr(credentials.find(':') == std::string::npos ? 0 : credentials.find(':') + 1);
        rest = rest.substr(at + 1);
    }
    int database = 0;
    if (const auto slash = rest.find('/'); slash != std::string::npos) {
        const std::string db = rest.substr(slash + 1);
        if (!db.empty()) {
            const auto [end, error] = std::from_chars(db.data(), db.data() + db.size(), database);
            if (error != std::errc() || end != db.data() + db.size() || database < 0)
                throw std::invalid_argument("bad database number in the redis URL");
        }
        rest = rest.substr(0, slash);
    }
    int port = 6379;
    if (const auto colon = rest.rfind(':'); colon != std::string::npos) {
        const std::string text = rest.substr(colon + 1);
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
        if (error != std::errc() || end != text.data() + text.size() || port <= 0 || port > 65535)
            throw std::invalid_argument("bad port in the redis URL");
        rest = rest.substr(0, colon);
    }
    if (rest.empty())
        throw std::invalid_argument("no host in the redis URL");
    return std::make_unique<RedisStore>(rest, port, database, password);
}

} // namespace signin
