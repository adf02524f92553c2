#include <gtest/gtest.h>

#include "soak/Endpoint.h"

namespace {

using namespace std::chrono_literals;
using asio::ip::tcp;

std::string Bytes(const soak::KeyedStream& stream, std::size_t size) {
    std::string bytes(size, '\0');
    stream.Fill(0, bytes.data(), size);
    return bytes;
}

TEST(EndpointTest, SendsItsStreamAndChecksTheOtherWhichItStopsReadingForAWhile) {
    asio::io_context io;
    tcp::acceptor acceptor(io, {asio::ip::address_v4::loopback(), 0});
    tcp::socket socket(io), peer(io);
    socket.connect(acceptor.local_endpoint());
    acceptor.accept(peer);
    soak::EndPlan plan{50000, 777, 0ms, soak::Finish::Shutdown, 0ms, 3000, 50ms};
    soak::EndRecord record;
    const soak::KeyedStream mine(1, 2, soak::Direction::ToService), theirs(1, 2, soak::Direction::ToClient);
    const auto end = std::make_shared<soak::Endpoint>(std::move(socket), plan, mine, theirs, record, [] {});
    end->Start();
    asio::write(peer, asio::buffer(Bytes(theirs, 3000)));
    while (!record.shutDown || !end->IsStalling()) ASSERT_GT(io.run_one_for(20s), 0U);
    asio::write(peer, asio::buffer("strange", 7));
    std::string came;
    std::error_code error;
    asio::read(peer, asio::dynamic_buffer(came), error);
    peer.close();
    EXPECT_EQ(record.received, 3000U);
    io.run_for(20s);
    EXPECT_EQ(came, Bytes(mine, 50000));
    EXPECT_EQ(error, asio::error::eof);
    EXPECT_TRUE(record.over && record.sawEnd && record.hasStalled);
    EXPECT_EQ(record.sent, 50000U);
    EXPECT_EQ(record.received, 3007U);
    EXPECT_GE(record.wrong, 5U) << "a byte may be right by chance";
    EXPECT_TRUE(record.stalledUntil <= record.lastReceived && record.finishedAt <= record.endedAt);
}

}  // namespace
