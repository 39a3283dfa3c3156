#pragma once

#include <QString>

#include <atomic>
#include <mutex>
#include <thread>

// A one-shot HTTP listener on 127.0.0.1 that receives the sign-in service's confirmation: after the user
// approves in the browser, the service sends the browser to http://127.0.0.1:<port>/hourloom/signed-in with the
// sign-in's state and a one-time nonce. Only this device can receive that redirect, and the service hands out
// the tokens only to a poll that carries the nonce, so a consent link sent to someone else yields nothing.
// Requests for another state are answered and ignored; the first matching one is kept and the listener closes.
class LoopbackListener
{
public:
    LoopbackListener();
    ~LoopbackListener(); // stops and closes the port
    LoopbackListener(const LoopbackListener &) = delete;
    LoopbackListener &operator=(const LoopbackListener &) = delete;

    // Binds a free port on 127.0.0.1 and starts waiting; false when no port can be had (the sign-in then goes on
    // without device binding).
    bool listen();
    quint16 port() const { return m_port; }
    // The state the confirmation must carry; until it is set every request is refused.
    void expectState(const QString &state);
    // The nonce once the confirmation arrived, else a null string.
    QString nonce() const;
    void stop();

private:
    void serve();
    void handle(int connection);

    int m_socket = -1;
    int m_wake[2] = {-1, -1};
    quint16 m_port = 0;
    std::thread m_thread;
    mutable std::mutex m_mutex;
    QString m_state;
    QString m_nonce;
};
