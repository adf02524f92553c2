#include <gtest/gtest.h>

#include <system_error>

#include "lab/ScriptedPeers.h"
#include "lab/ScriptedServer.h"

namespace lab {

TEST(ScriptedServerTest, PlaysItsConversationsInOrderAndThenRefuses) {
    ScriptedServer server({[](Connection& peer) { peer.Write(SsoReply(ReadSsoRequest(peer))); },
                           [](Connection& peer) {
                               const auto request = ReadHttpRequest(peer);
                               peer.Write(HttpReply(200, request.method + request.target +
                                                             request.Header("x-a") + request.body));
                           }});
    auto first = Connection::To(server.Port());
    first.Write(SsoReply("{}"));
    EXPECT_EQ(first.ReadToEnd(), SsoReply("{}"));
    auto second = Connection::To(server.Port());
    second.Write("POST /a HTTP/1.1\r\nX-A:  b\r\ncontent-length: 3\r\n\r\nabc");
    EXPECT_EQ(second.ReadUntil("\r\n"), "HTTP/1.1 200 \r\n");
    EXPECT_NE(second.ReadToEnd().find("Content-Length: 10\r\nConnection: close\r\n\r\nPOST/ababc"),
              std::string::npos);
    server.Finish();
    EXPECT_THROW(Connection::To(server.Port()), std::system_error);
}

TEST(ScriptedServerTest, FinishTellsWhatFailedFirst) {
    ScriptedServer server(
        {[](Connection& peer) { peer.Read(2); }, [](Connection&) { throw std::logic_error("second"); }});
    Connection::To(server.Port()).Write("x");
    Connection::To(server.Port()).ReadToEnd();
    EXPECT_THROW(server.Finish(), std::system_error);
}

TEST(ScriptedServerTest, EndsPromptlyWhateverItsPeerDoes) {
    const auto start = std::chrono::steady_clock::now();
    Connection peer;
    {
        ScriptedServer waiting({[](Connection& silent) { silent.Read(1); }, [](Connection&) {}});
        peer = Connection::To(waiting.Port());
        ScriptedServer unwanted({[](Connection&) {}});
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST(ScriptedServerTest, EveryCallRunsOutOfPatience) {
    ScriptedServer server({[](Connection& peer) { peer.ReadToEnd(); }});
    auto connection = Connection::To(server.Port(), std::chrono::milliseconds(20));
    const auto isLate = [](const std::system_error& error) { return error.code() == asio::error::timed_out; };
    for (int i = 0; i < 2; ++i) {  // twice: the connection survives it
        try {
            connection.Read(1);
            FAIL() << "read a byte that nobody sent";
        } catch (const std::system_error& error) {
            EXPECT_TRUE(isLate(error)) << error.what();
        }
    }
    EXPECT_NO_THROW(connection.Write("x"));
}

TEST(ScriptedServerTest, ClosingDoesNotLoseWhatWasSentLast) {
    ScriptedServer server({[](Connection& peer) {
        peer.ReadUntil("x");
        peer.Write("answer");
    }});
    auto connection = Connection::To(server.Port());
    connection.Write("x and much that nobody reads");
    server.Finish();
    EXPECT_EQ(connection.Read(6), "answer");
    EXPECT_EQ(connection.ReadToEnd(), "");
}

}  // namespace lab
