#include "config.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>

namespace signin
{

namespace
{

std::string trim(const std::string &text)
{
    const auto first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos)
        return {};
    const auto last = text.find_last_not_of(" \t\r\n");
    return text.substr(first, last - first + 1);
}

bool parseInt(const std::string &text, int low, int high, int &out)
{
    int value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value < low || value > high)
        return false;
    out = value;
    return true;
}

bool parseListen(const std::string &text, Config &config)
{
    const auto colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0)
        return false;
    std::string host = text.substr(0, colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    int port = 0;
    if (!parseInt(text.substr(colon + 1), 0, 65535, port))
        return false;
    config.listenHost = host;
    config.listenPort = port;
    return true;
}

// Applies one setting; returns an error text or "".
std::string apply(Config &config, const std::string &key, const std::string &value)
{
    auto number = [&](int low, int high, auto setter) -> std::string {
        int parsed = 0;
        if (!parseInt(value, low, high, parsed))
            return key + " must be a whole number from " + std::to_string(low) + " to " + std::to_string(high) + ".";
        setter(parsed);
        return {};
    };
    if (key == "client_secret")
        return "The client secret is read from client_secret_file, never given directly.";
    if (key == "listen")
        return parseListen(value, config) ? std::string() : "listen must be HOST:PORT.";
    if (key == "tls_cert")
        config.tlsCert = value;
    else if (key == "tls_key")
        config.tlsKey = value;
    else if (key == "public_origin")
        config.publicOrigin = value;
    else if (key == "client_id")
        config.clientId = value;
    else if (key == "client_secret_file")
        config.clientSecretFile = value;
    else if (key == "authorize_url")
        config.authorizeUrl = value;
    else if (key == "token_url")
        config.tokenUrl = value;
    else if (key == "upstream_ca_file")
        config.upstreamCaFile = value;
    else if (key == "scopes")
        config.scopes = value;
    else if (key == "store")
        config.store = value;
    else if (key == "pending_seconds")
        return number(1, 3600, [&](int v) { config.pendingSeconds = v; });
    else if (key == "max_pending")
        return number(1, 10000000, [&](int v) { config.maxPending = std::size_t(v); });
    else if (key == "start_per_minute")
        return number(1, 1000000, [&](int v) { config.startPerMinute = v; });
    else if (key == "poll_per_minute")
        return number(1, 1000000, [&](int v) { config.pollPerMinute = v; });
    else if (key == "refresh_per_minute")
        return number(1, 1000000, [&](int v) { config.refreshPerMinute = v; });
    else if (key == "threads")
        return number(1, 1024, [&](int v) { config.threads = v; });
    else if (key == "trust_forwarded_for") {
        if (value != "true" && value != "false")
            return "trust_forwarded_for must be true or false.";
        config.trustForwardedFor = value == "true";
    } else if (key == "log_level") {
        if (value != "debug" && value != "info" && value != "warning" && value != "error")
            return "log_level must be debug, info, warning or error.";
        config.logLevel = value;
    } else
        return "Unknown setting \"" + key + "\".";
    return {};
}

const std::vector<std::string> &keys()
{
    static const std::vector<std::string> all {"listen", "tls_cert", "tls_key", "public_origin", "client_id",
        "client_secret_file", "authorize_url", "token_url", "upstream_ca_file", "scopes", "store", "pending_seconds",
        "max_pending", "start_per_minute", "poll_per_minute", "refresh_per_minute", "threads", "trust_forwarded_for",
        "log_level", "client_secret"};
    return all;
}

std::string readFile(const std::string &path, Config &config)
{
    std::ifstream file(path);
    if (!file)
        return "Cannot read the configuration file " + path + ".";
    std::string line;
    int number = 0;
    while (std::getline(file, line)) {
        ++number;
        const std::string content = trim(line);
        if (content.empty() || content.front() == '#')
            continue;
        const auto equals = content.find('=');
        if (equals == std::string::npos)
            return path + ":" + std::to_string(number) + ": expected key = value.";
        const std::string problem = apply(config, trim(content.substr(0, equals)), trim(content.substr(equals + 1)));
        if (!problem.empty())
            return path + ":" + std::to_string(number) + ": " + problem;
    }
    return {};
}

// https://host[:port] without path, query or credentials; http only for a loopback host.
bool validOrigin(const std::string &origin, bool allowLoopbackHttp)
{
    static const std::regex pattern(R"(^(https?)://([A-Za-z0-9.-]+|\[[0-9A-Fa-f:]+\])(:[0-9]{1,5})?$)");
    std::smatch match;
    if (!std::regex_match(origin, match, pattern))
        return false;
    if (match[1] == "https")
        return true;
    std::string host = match[2];
    if (host.front() == '[')
        host = host.substr(1, host.size() - 2);
    return allowLoopbackHttp && isLoopbackHost(host);
}

bool validUrl(const std::string &url)
{
    static const std::regex pattern(R"(^https://([A-Za-z0-9.-]+)(:[0-9]{1,5})?(/[A-Za-z0-9._~/-]*)$)");
    return std::regex_match(url, pattern);
}

std::string readSecret(Config &config)
{
    struct stat info {
    };
    if (::stat(config.clientSecretFile.c_str(), &info) != 0 || !S_ISREG(info.st_mode))
        return "Cannot read the client secret file " + config.clientSecretFile + ".";
    if ((info.st_mode & 0077) != 0)
        return "The client secret file " + config.clientSecretFile
            + " must not be readable by group or others (chmod 600).";
    std::ifstream file(config.clientSecretFile, std::ios::binary);
    std::stringstream content;
    content << file.rdbuf();
    if (!file)
        return "Cannot read the client secret file " + config.clientSecretFile + ".";
    config.clientSecret = trim(content.str());
    if (config.clientSecret.empty() || config.clientSecret.size() > 1024)
        return "The client secret file " + config.clientSecretFile + " holds no usable secret.";
    return {};
}

std::string validate(Config &config)
{
    static const std::regex clientId(R"(^[A-Za-z0-9._-]{1,256}$)");
    if (!std::regex_match(config.clientId, clientId))
        return "client_id is required (the Client ID from the Atlassian developer console).";
    if (config.clientSecretFile.empty())
        return "client_secret_file is required.";
    if (!validOrigin(config.publicOrigin, true))
        return "public_origin must be the HTTPS origin browsers reach this service at, e.g. "
               "https://signin.example.com (no path).";
    if (!validUrl(config.authorizeUrl))
        return "authorize_url must be an https:// URL.";
    if (!validUrl(config.tokenUrl))
        return "token_url must be an https:// URL.";
    if (config.tlsCert.empty() != config.tlsKey.empty())
        return "tls_cert and tls_key are given together or not at all.";
    if (config.plainHttp() && !isLoopbackHost(config.listenHost))
        return "Plain HTTP is only served on a loopback address (behind a reverse proxy); give tls_cert and tls_key "
               "to listen on "
            + config.listenHost + ".";
    if (config.store != "memory" && config.store.rfind("redis://", 0) != 0)
        return "store must be \"memory\" or a redis:// URL.";
    static const std::regex scopes(R"(^[a-z:_.-]+( [a-z:_.-]+)*$)");
    if (!std::regex_match(config.scopes, scopes))
        return "scopes must be scope names separated by single spaces.";
    return readSecret(config);
}

} // namespace

bool isLoopbackHost(const std::string &host)
{
    return host == "localhost" || host == "::1" || host.rfind("127.", 0) == 0;
}

std::string helpText()
{
    return R"(Usage: hourloom-signin [--config FILE] [--store memory|redis://HOST:PORT[/DB]] [--listen HOST:PORT]

The Hourloom sign-in service. It holds the client secret of one Atlassian OAuth 2.0 (3LO) app and runs the
authorization-code exchange for Hourloom, which talks to it with a proof key (PKCE, S256).

Endpoints: POST /oauth/start, GET /oauth/callback, POST /oauth/poll, POST /oauth/refresh, GET /healthz.

Settings (configuration file "key = value", or environment HOURLOOM_SIGNIN_<KEY>, e.g. HOURLOOM_SIGNIN_CLIENT_ID;
the file is --config or HOURLOOM_SIGNIN_CONFIG; the command line wins over the environment, which wins over the
file):
  listen              HOST:PORT to listen on (default 127.0.0.1:8080)
  tls_cert, tls_key   PEM certificate chain and key; without them only a loopback address is served
  public_origin       HTTPS origin browsers reach this service at (required)
  client_id           the app's Client ID (required)
  client_secret_file  file holding the app's secret, mode 0600 (required; default $CREDENTIALS_DIRECTORY/client_secret)
  authorize_url       default https://auth.atlassian.com/authorize
  token_url           default https://auth.atlassian.com/oauth/token
  upstream_ca_file    extra CA certificate to trust for the token endpoint (default: the system's)
  scopes              default "read:jira-work write:jira-work read:jira-user offline_access"
  store               memory (default, one instance) or redis://[:PASSWORD@]HOST[:PORT][/DB] (shared)
  pending_seconds     how long a sign-in may take (default 600)
  max_pending         pending sign-ins kept in memory at most (default 100000)
  start_per_minute, poll_per_minute, refresh_per_minute
                      requests per client address and minute (defaults 20, 120, 30)
  trust_forwarded_for take the client address from X-Forwarded-For (only behind a local reverse proxy)
  threads             worker threads (default 16)
  log_level           debug, info, warning or error (default info)

The client secret is never accepted on the command line or in the environment. Logs are JSON lines on stderr.
)";
}

ConfigResult loadConfig(
    const std::vector<std::string> &arguments, const std::map<std::string, std::string> &environment)
{
    ConfigResult result;
    Config &config = result.config;
    auto env = [&](const std::string &name) {
        const auto it = environment.find(name);
        return it == environment.end() ? std::string() : it->second;
    };

    std::string configFile = env("HOURLOOM_SIGNIN_CONFIG");
    std::vector<std::pair<std::string, std::string>> commandLine;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string &argument = arguments[i];
        if (argument == "--help" || argument == "-h") {
            result.outcome = ConfigOutcome::Help;
            result.message = helpText();
            return result;
        }
        if (argument.find("secret") != std::string::npos) {
            result.message = "The client secret is read from client_secret_file, never from the command line.";
            return result;
        }
        std::string name = argument;
        std::string value;
        const auto equals = argument.find('=');
        if (equals != std::string::npos) {
            name = argument.substr(0, equals);
            value = argument.substr(equals + 1);
        } else if (i + 1 < arguments.size()) {
            value = arguments[++i];
        } else {
            result.message = "Missing value for " + argument + ". See --help.";
            return result;
        }
        if (name == "--config")
            configFile = value;
        else if (name == "--store" || name == "--listen")
            commandLine.emplace_back(name.substr(2), value);
        else {
            result.message = "Unknown option " + name + ". See --help.";
            return result;
        }
    }

    if (!env("HOURLOOM_SIGNIN_CLIENT_SECRET").empty()) {
        result.message = "The client secret is read from client_secret_file, never from the environment.";
        return result;
    }
    if (const std::string credentials = env("CREDENTIALS_DIRECTORY"); !credentials.empty())
        config.clientSecretFile = credentials + "/client_secret";
    if (!configFile.empty()) {
        if (std::string problem = readFile(configFile, config); !problem.empty()) {
            result.message = problem;
            return result;
        }
    }
    for (const std::string &key : keys()) {
        std::string name = "HOURLOOM_SIGNIN_" + key;
        std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::toupper(c); });
        const std::string value = env(name);
        if (value.empty() || key == "client_secret")
            continue;
        if (std::string problem = apply(config, key, value); !problem.empty()) {
            result.message = name + ": " + problem;
            return result;
        }
    }
    for (const auto &[key, value] : commandLine) {
        if (std::string problem = apply(config, key, value); !problem.empty()) {
            result.message = "--" + key + ": " + problem;
            return result;
        }
    }
    if (std::string problem = validate(config); !problem.empty()) {
        result.message = problem;
        return result;
    }
    result.outcome = ConfigOutcome::Run;
    return result;
}

} // namespace signin
