#include "jira/loopbacklistener.h"
#include "records/credentials.h"

#include <QRegularExpression>
#include <QUrl>
#include <QUrlQuery>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

namespace
{

constexpr int kMaxRequest = 8192;
constexpr int kReadTimeoutMs = 3000;

const char kDonePage[] = "<!DOCTYPE html><html lang=\"en\"><head><meta charset=\"utf-8\"><title>You can return to "
                         "Hourloom</title></head><body style=\"font-family:sans-serif;max-width:32em;margin:4em auto\">"
                         "<h1>You can return to Hourloom</h1><p>Hourloom is now connected to Jira. You can close this "
                         "page.</p></body></html>";
const char kWrongPage[] = "<!DOCTYPE html><html lang=\"en\"><head><meta charset=\"utf-8\"><title>Not this sign-in"
                          "</title></head><body style=\"font-family:sans-serif;max-width:32em;margin:4em auto\">"
                          "<h1>Not this sign-in</h1><p>This confirmation does not belong to the sign-in Hourloom is "
                          "waiting for. Connect again from Hourloom.</p></body></html>";

void sendAll(int connection, const QByteArray &data)
{
    qsizetype sent = 0;
    while (sent < data.size()) {
        const ssize_t written = ::send(connection, data.constData() + sent, size_t(data.size() - sent), MSG_NOSIGNAL);
        if (written <= 0)
            return;
        sent += written;
    }
}

void reply(int connection, const char *status, const char *page)
{
    const QByteArray body(page);
    QByteArray response = QByteArray("HTTP/1.1 ") + status
        + "\r\nContent-Type: text/html; charset=utf-8\r\nCache-Control: no-store\r\nReferrer-Policy: no-referrer\r\n"
          "Connection: close\r\nContent-Length: "
        + QByteArray::number(body.size()) + "\r\n\r\n" + body;
    sendAll(connection, response);
}

} // namespace

LoopbackListener::LoopbackListener() = default;

LoopbackListener::~LoopbackListener()
{
    stop();
}

bool LoopbackListener::listen()
{
    m_socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_socket < 0)
        return false;
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    socklen_t length = sizeof address;
    if (::bind(m_socket, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 || ::listen(m_socket, 8) != 0
        || ::getsockname(m_socket, reinterpret_cast<sockaddr *>(&address), &length) != 0
        || ::pipe2(m_wake, O_CLOEXEC) != 0) {
        stop();
        return false;
    }
    m_port = ntohs(address.sin_port);
    m_thread = std::thread([this] { serve(); });
    return true;
}

void LoopbackListener::expectState(const QString &state)
{
    std::lock_guard lock(m_mutex);
    m_state = state;
}

QString LoopbackListener::nonce() const
{
    std::lock_guard lock(m_mutex);
    return m_nonce;
}

void LoopbackListener::stop()
{
    if (m_wake[1] >= 0) {
        const char byte = 0;
        [[maybe_unused]] const ssize_t written = ::write(m_wake[1], &byte, 1);
    }
    if (m_thread.joinable())
        m_thread.join();
    for (int *fd : {&m_socket, &m_wake[0], &m_wake[1]}) {
        if (*fd >= 0)
            ::close(*fd);
        *fd = -1;
    }
}

void LoopbackListener::serve()
{
    for (;;) {
        pollfd fds[2] = {{m_socket, POLLIN, 0}, {m_wake[0], POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0)
            continue;
        if (fds[1].revents)
            return;
        if (!(fds[0].revents & POLLIN))
            continue;
        const int connection = ::accept4(m_socket, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection < 0)
            continue;
        handle(connection);
        ::close(connection);
        if (!nonce().isNull()) {
            // One confirmation is all it takes: the port closes at once.
            ::close(m_socket);
            m_socket = -1;
            return;
        }
    }
}

void LoopbackListener::handle(int connection)
{
    // Reads the request head only, within a size and time budget.
    QByteArray head;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kReadTimeoutMs);
    while (!head.contains("\r\n\r\n") && head.size() < kMaxRequest) {
        const int left = int(
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count());
        pollfd fds[2] = {{connection, POLLIN, 0}, {m_wake[0], POLLIN, 0}};
        if (left <= 0 || ::poll(fds, 2, left) <= 0 || fds[1].revents)
            return;
        char buffer[1024];
        const ssize_t got = ::recv(connection, buffer, sizeof buffer, 0);
        if (got <= 0)
            return;
        head.append(buffer, got);
    }
    const QList<QByteArray> requestLine = head.left(head.indexOf("\r\n")).split(' ');
    if (requestLine.size() != 3 || requestLine[0] != "GET") {
        reply(connection, "405 Method Not Allowed", kWrongPage);
        return;
    }
    const QUrl target(QString::fromLatin1(requestLine[1]), QUrl::StrictMode);
    const QUrlQuery query(target);
    const QString state = query.queryItemValue(SignInKey::kState);
    const QString nonce = query.queryItemValue(SignInKey::kNonce);
    static const QRegularExpression token(QStringLiteral("^[A-Za-z0-9_-]{43}$"));
    bool accepted = false;
    {
        std::lock_guard lock(m_mutex);
        accepted = target.path() == QLatin1String("/hourloom/signed-in") && !m_state.isEmpty() && state == m_state
            && token.match(nonce).hasMatch() && m_nonce.isNull();
        if (accepted)
            m_nonce = nonce;
    }
    if (accepted)
        reply(connection, "200 OK", kDonePage);
    else
        reply(connection, "400 Bad Request", kWrongPage);
}
