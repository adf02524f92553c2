#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "soak/ChildProcess.h"
#include "soak/Endpoint.h"

namespace {

using namespace std::chrono_literals;
using asio::ip::tcp;
using soak::Direction;
using soak::KeyedStream;

/// A client's end on one side of a real connection; the test is the other side.
class EndpointTest : public testing::Test {
protected:
    void Start() {
        tcp::acceptor acceptor(io, {asio::ip::address_v4::loopback(), 0});
        tcp::socket socket(io);
        socket.connect(acceptor.local_endpoint());
        acceptor.accept(peer);
        const auto countEnd = [this] { ++overs; };
        std::make_shared<soak::Endpoint>(std::move(socket), plan, toService, toClient, record, countEnd)
            ->Start();
    }
    /// Until nothing is left to do, or for so long.
    void Run(std::chrono::milliseconds ceiling = 5s) {
        io.restart();
        io.run_for(ceiling);
    }
    static std::string Bytes(const KeyedStream& stream, std::size_t size) {
        std::string bytes(size, '\0');
        stream.Fill(0, bytes.data(), size);
        return bytes;
    }
    void ReadAll() { asio::read(peer, asio::dynamic_buffer(came), error); }

    asio::io_context io;
    tcp::socket peer{io};
    const KeyedStream toService{1, 2, Direction::ToService}, toClient{1, 2, Direction::ToClient};
    soak::EndPlan plan;
    soak::EndRecord record;
    int overs = 0;
    std::string came;
    std::error_code error;
};

TEST_F(EndpointTest, SendsItsStreamShutsDownAndChecksTheOtherWhichItStopsReadingForAWhile) {
    plan.bytesToSend = 50000;
    plan.maxPieceBytes = 777;
    plan.finish = soak::Finish::Shutdown;
    plan.stallAt = 3000;
    plan.stall = 2s;
    Start();
    asio::write(peer, asio::buffer(Bytes(toClient, 3000)));
    Run(100ms);
    asio::write(peer, asio::buffer("strange", 7));
    Run(50ms);
    ReadAll();
    EXPECT_EQ(came, Bytes(toService, 50000));
    EXPECT_EQ(error, asio::error::eof);
    EXPECT_EQ(record.received, 3000U);
    EXPECT_FALSE(record.over);
    peer.close();
    Run();
    EXPECT_TRUE(record.over && record.shutDown && record.sawEnd);
    EXPECT_EQ(overs, 1);
    EXPECT_EQ(record.sent, 50000U);
    EXPECT_EQ(record.received, 3007U);
    EXPECT_THAT(record.wrong, testing::AllOf(testing::Ge(5U), testing::Le(7U)));
}

TEST_F(EndpointTest, ResetsAtItsTime) {
    plan.resetAfter = 20ms;
    Start();
    Run();
    EXPECT_TRUE(record.over && record.reset && !record.sawEnd);
    ReadAll();
    EXPECT_EQ(error, asio::error::connection_reset);
}

TEST(ChildProcessTest, TellsWhatTheProcessHoldsAndItsLinesOfBothStreamsInOrderThenTheEnd) {
    asio::io_context io;
    std::vector<std::string> lines;
    const auto keep = [&](const std::string& line) {
        lines.push_back(line);
        if (line.empty()) io.stop();
    };
    const std::string script =
        "exec 7</dev/null; echo $A; echo two >&2; echo; printf 'cut off'; kill -STOP $$";
    soak::ChildProcess child(io, {"/bin/sh", "-c", script}, {"A=one"}, keep);
    io.run_for(5s);
    EXPECT_FALSE(child.HasEnded());
    EXPECT_EQ(child.Descriptors(), 4U);
    EXPECT_EQ(child.Status("Threads"), 1U);
    EXPECT_GT(child.Status("VmRSS"), 100U);
    child.Signal(SIGKILL);
    io.restart();
    io.run_for(5s);
    EXPECT_TRUE(child.HasEnded());
    EXPECT_THAT(lines, testing::ElementsAre("one", "two", ""));
}

}  // namespace
