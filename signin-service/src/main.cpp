#include "config.h"
#include "logger.h"
#include "signinservice.h"
#include "store.h"

#include <csignal>
#include <cstdio>
#include <pthread.h>
#include <thread>

extern char **environ;

int main(int argc, char **argv)
{
    std::vector<std::string> arguments(argv + 1, argv + argc);
    std::map<std::string, std::string> environment;
    for (char **entry = environ; *entry; ++entry) {
        const std::string text = *entry;
        const auto equals = text.find('=');
        if (equals != std::string::npos)
            environment.emplace(text.substr(0, equals), text.substr(equals + 1));
    }
    const signin::ConfigResult loaded = signin::loadConfig(arguments, environment);
    if (loaded.outcome == signin::ConfigOutcome::Help) {
        std::fputs(loaded.message.c_str(), stdout);
        return 0;
    }
    if (loaded.outcome == signin::ConfigOutcome::Error) {
        std::fprintf(stderr, "hourloom-signin: %s\n", loaded.message.c_str());
        return 2;
    }
    signin::Logger::setLevel(signin::Logger::parseLevel(loaded.config.logLevel));

    std::unique_ptr<signin::Store> store;
    try {
        store = signin::makeStore(loaded.config.store, loaded.config.maxPending);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "hourloom-signin: store: %s\n", error.what());
        return 2;
    }

    // Signals are taken by one thread that stops the server; the worker threads never see them.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    signin::SigninService service(loaded.config, std::move(store));
    std::string problem;
    if (!service.bind(&problem)) {
        std::fprintf(stderr, "hourloom-signin: %s\n", problem.c_str());
        return 1;
    }
    std::thread stopper([&service, stopSignals] {
        int received = 0;
        sigwait(&stopSignals, &received);
        signin::Logger::lifecycle("service.stopping", {{"signal", std::to_string(received)}});
        service.stop();
    });
    service.run();
    if (stopper.joinable()) {
        // run() also ends when the listener fails; wake the waiting thread so it can be joined.
        pthread_kill(stopper.native_handle(), SIGTERM);
        stopper.join();
    }
    return 0;
}
