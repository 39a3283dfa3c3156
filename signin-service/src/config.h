#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace signin
{

// Everything the service is told at start. Read from a "key = value" file, then the environment
// (HOURLOOM_SIGNIN_<KEY>), then the command line; the client secret only ever comes from a file.
struct Config {
    std::string listenHost = "127.0.0.1";
    int listenPort = 8080;
    std::string tlsCert; // both empty: plain HTTP, allowed on a loopback address only
    std::string tlsKey;
    std::string publicOrigin; // where browsers reach this service; the callback is <origin>/oauth/callback
    std::string clientId;
    std::string clientSecretFile;
    std::string clientSecret; // read from clientSecretFile, never printed
    std::string authorizeUrl = "https://auth.atlassian.com/authorize";
    std::string tokenUrl = "https://auth.atlassian.com/oauth/token";
    std::string upstreamCaFile; // empty: the system's authorities
    std::string scopes = "read:jira-work write:jira-work read:jira-user offline_access";
    std::string store = "memory"; // or redis://[:password@]host[:port][/db]
    int pendingSeconds = 600;
    std::size_t maxPending = 100000;
    int startPerMinute = 20;
    int pollPerMinute = 120;
    int refreshPerMinute = 30;
    bool trustForwardedFor = false; // take the client address from X-Forwarded-For (behind a local proxy only)
    int threads = 16;
    std::string logLevel = "info";

    std::string redirectUri() const { return publicOrigin + "/oauth/callback"; }
    bool plainHttp() const { return tlsCert.empty() && tlsKey.empty(); }
};

enum class ConfigOutcome { Run, Help, Error };

struct ConfigResult {
    ConfigOutcome outcome = ConfigOutcome::Error;
    Config config;
    std::string message; // the help text, or what is wrong
};

// `environment` holds "NAME=value" entries (environ).
ConfigResult loadConfig(
    const std::vector<std::string> &arguments, const std::map<std::string, std::string> &environment);

std::string helpText();

bool isLoopbackHost(const std::string &host);

} // namespace signin
