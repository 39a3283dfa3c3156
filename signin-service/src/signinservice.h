#pragma once

#include "config.h"
#include "ratelimiter.h"
#include "store.h"
#include "upstream.h"

#include <memory>
#include <string>

namespace httplib
{
class Server;
struct Request;
struct Response;
} // namespace httplib

namespace signin
{

// The sign-in service's HTTP side. A sign-in lives in the store under its `state` from /oauth/start until the
// app takes its tokens at /oauth/poll (or it expires): pending -> exchanging -> ready (or denied / failed).
// Tokens exist only in the "ready" record; nothing else about a user is kept.
class SigninService
{
public:
    SigninService(Config config, std::unique_ptr<Store> store);
    ~SigninService();
    SigninService(const SigninService &) = delete;
    SigninService &operator=(const SigninService &) = delete;

    // Binds the configured address (port 0: any free port); false when the address or certificate is unusable.
    bool bind(std::string *error);
    int port() const { return m_port; }
    // Serves until stop(); blocks.
    void run();
    void stop();

private:
    void start(const httplib::Request &req, httplib::Response &res);
    void callback(const httplib::Request &req, httplib::Response &res);
    void poll(const httplib::Request &req, httplib::Response &res);
    void refresh(const httplib::Request &req, httplib::Response &res);
    void health(httplib::Response &res);

    std::string clientAddress(const httplib::Request &req) const;
    bool admit(RateLimiter &limiter, const char *endpoint, const httplib::Request &req, httplib::Response &res);

    Config m_config;
    std::unique_ptr<Store> m_store;
    TokenEndpoint m_tokens;
    RateLimiter m_startLimit;
    RateLimiter m_pollLimit;
    RateLimiter m_refreshLimit;
    std::unique_ptr<httplib::Server> m_http;
    int m_port = 0;
};

} // namespace signin
