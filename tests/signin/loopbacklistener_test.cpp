#include "jira/loopbacklistener.h"

#include "signinfixture.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

using signintest::request;

const QString kState = QStringLiteral("S1ateS1ateS1ateS1ateS1ateS1ateS1ateS1ateS1a");
const QString kNonce = QStringLiteral("N0nceN0nceN0nceN0nceN0nceN0nceN0nceN0nceN0n");

QString confirmation(quint16 port, const QString &state, const QString &nonce,
    const QString &path = QStringLiteral("/hourloom/signed-in"))
{
    return QStringLiteral("http://127.0.0.1:%1%2?state=%3&nonce=%4").arg(port).arg(path, state, nonce);
}

TEST(LoopbackListener, KeepsOnlyTheConfirmationOfItsOwnSignInAndThenCloses)
{
    LoopbackListener listener;
    ASSERT_TRUE(listener.listen());
    ASSERT_GT(listener.port(), 0);
    const quint16 port = listener.port();

    // Before the state is known nothing is accepted, not even the right-looking confirmation.
    EXPECT_EQ(request(confirmation(port, kState, kNonce), QStringLiteral("GET"), {}, {}).status, 400);
    listener.expectState(kState);
    struct Case {
        const char *what;
        QString url;
        QString method;
        int status;
    };
    const Case refused[] = {
        {"another sign-in's state", confirmation(port, kNonce, kNonce), QStringLiteral("GET"), 400},
        {"a nonce of the wrong shape", confirmation(port, kState, QStringLiteral("short")), QStringLiteral("GET"), 400},
        {"another path", confirmation(port, kState, kNonce, QStringLiteral("/favicon.ico")), QStringLiteral("GET"),
            400},
        {"a POST", confirmation(port, kState, kNonce), QStringLiteral("POST"), 405},
    };
    for (const Case &c : refused) {
        EXPECT_EQ(request(c.url, c.method, {}, {}).status, c.status) << c.what;
        EXPECT_TRUE(listener.nonce().isNull()) << c.what;
    }

    const signintest::HttpAnswer done = request(confirmation(port, kState, kNonce), QStringLiteral("GET"), {}, {});
    EXPECT_EQ(done.status, 200);
    EXPECT_NE(done.body.find("You can return to Hourloom"), std::string::npos);
    EXPECT_EQ(done.header("Cache-Control"), "no-store");
    EXPECT_EQ(listener.nonce(), kNonce);

    // One-shot: the port is closed, a second confirmation finds no one.
    EXPECT_EQ(request(confirmation(port, kState, kNonce), QStringLiteral("GET"), {}, {}).status, 0);
    EXPECT_EQ(listener.nonce(), kNonce);
}

TEST(LoopbackListener, StopsWhileAClientHoldsAConnectionOpen)
{
    LoopbackListener listener;
    ASSERT_TRUE(listener.listen());
    // A client that connects and never sends must not keep the listener (and the sign-in) from ending.
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(listener.port());
    ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    listener.stop();
    ::close(fd);
    EXPECT_TRUE(listener.nonce().isNull());
}

} // namespace
