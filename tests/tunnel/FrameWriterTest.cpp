#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/support/LogCapture.h"
#include "tests/support/Loopback.h"
#include "tunnel/FrameWriter.h"

namespace nox::tunnel_client {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using support::RunUntil;
using Lines = std::vector<std::string>;

const std::string id = "abcdefghijklmnop";

std::string Bytes(char type, const std::string& session, const std::string& payload) {
    std::string bytes(1, type);
    for (const int shift : {24, 16, 8, 0}) bytes += static_cast<char>(payload.size() >> shift);
    return bytes + session + payload;
}

// Takes the payload out of every frame, as a session does.
struct Owner : FrameWriter::Owner {
    void OnFrameSent(TunnelMessage& frame) override { sent.push_back(std::move(frame.data).size()); }
    void OnQueueEmpty() override {
        ++empty;
        if (onEmpty) std::exchange(onEmpty, nullptr)();
    }
    void Stop() override { ++failed; }
    std::vector<std::size_t> sent;
    int empty = 0, failed = 0;
    std::function<void()> onEmpty;
};

class FrameWriterTest : public testing::Test {
protected:
    // The kernel takes less than a frame at a time.
    static constexpr int bufferBytes = 8192;

    void Queue(std::size_t frames, std::size_t payload = 16384) {
        for (std::size_t i = 0; i < frames; ++i) {
            writer.QueueMessage({dataFrame, id, std::string(payload, static_cast<char>('a' + i % 26))});
            expected += Bytes(0, id, std::string(payload, static_cast<char>('a' + i % 26)));
        }
    }
    // Everything that the other end can have now.
    bool Receive() {
        std::string chunk(pair.far.available(), '\0');
        if (!chunk.empty()) asio::read(pair.far, asio::buffer(chunk));
        received += chunk;
        return received.size() >= expected.size();
    }
    int InKernel() {
        int bytes = 0;
        EXPECT_EQ(ioctl(pair.near.native_handle(), SIOCOUTQ, &bytes), 0);
        return bytes;
    }
    void RunUntilItWaits() {
        ASSERT_TRUE(RunUntil(io, [&] { return writer.Waits() > 0; }));
        // The other end has acknowledged the bytes that it holds; the kernel here keeps the rest.
        ASSERT_TRUE(RunUntil(io, [&] {
            const std::size_t there = pair.far.available();
            return there > 0 && writer.Departed() == there && InKernel() > 0;
        }));
    }

    support::LogCapture log;
    asio::io_context io;
    support::SocketPair pair{io, bufferBytes};
    Owner owner;
    FrameWriter writer{io, pair.near, owner};
    std::string expected, received;
};

TEST_F(FrameWriterTest, WritesFramesOfEveryTypeAndSizeInOrder) {
    const std::string zeros(16, '0');
    Queue(3000, 1);  // at last the socket takes nothing
    for (int round = 0; round < 3; ++round) {
        writer.QueueMessage(TunnelMessage(heartbeatFrame));
        writer.QueueMessage({controlFrame, id, "{}"});
        expected += Bytes(1, zeros, "") + Bytes(3, zeros, "{}");
        for (const std::size_t size : {0U, 1U, 16384U, 131072U, 2U}) Queue(4, size);
    }
    EXPECT_EQ(writer.FramesWaiting(), 3066U);
    EXPECT_EQ(log.Lines(), Lines{}) << "written inside the call that queues it";
    EXPECT_EQ(pair.far.available(), 0U);
    RunUntilItWaits();
    ASSERT_TRUE(RunUntil(io, [&] { return Receive() && writer.FramesWaiting() == 0; }));
    EXPECT_TRUE(received == expected);
    EXPECT_EQ(owner.sent.size(), 3066U);
    EXPECT_EQ(owner.empty, 1);
    EXPECT_EQ(owner.failed, 0);
}

TEST_F(FrameWriterTest, LogsEachFrameInOrderHoweverTheSocketTakesThem) {
    constexpr std::size_t frames = 60;
    Queue(frames);
    RunUntilItWaits();
    EXPECT_GT(owner.sent.size() + writer.FramesWaiting(), frames - 1);
    EXPECT_EQ(owner.empty, 0);
    EXPECT_EQ(log.Lines().size(), 1 + 2 * owner.sent.size()) << "the front is announced, and not finished";
    ASSERT_TRUE(RunUntil(io, [&] { return Receive() && owner.empty == 1; }));
    owner.onEmpty = [&] { Queue(1, 5); };  // as a session in its turn
    Queue(1, 1);
    ASSERT_TRUE(RunUntil(io, [&] { return Receive() && owner.empty == 3; }));
    EXPECT_TRUE(received == expected);
    std::vector<std::size_t> sizes(frames, 16384);
    sizes.insert(sizes.end(), {1, 5});
    EXPECT_EQ(owner.sent, sizes) << "each once, its payload whole";
    Lines lines;
    for (std::size_t i = 0; i < sizes.size(); ++i) {
        lines.push_back("[TunnelClient:392] Inside SendAsync, type 0, length " + std::to_string(sizes[i]));
        lines.push_back("[TunnelClient:415] Finished upload, length " + std::to_string(21 + sizes[i]));
        if (i >= frames - 1) lines.push_back("[TunnelClient:436] skipping SendAsync, sendQueue is empty");
    }
    EXPECT_EQ(log.Lines(), lines);
}

TEST_F(FrameWriterTest, CountsAsDepartedWhatTheOtherEndHas) {
    Queue(40);
    RunUntilItWaits();
    const std::uint64_t before = writer.Departed();
    const std::uint64_t waits = writer.Waits();
    EXPECT_LT(before, expected.size());
    Receive();
    EXPECT_TRUE(RunUntil(io, [&] { return writer.Departed() > before; })) << "it moves again";
    EXPECT_TRUE(RunUntil(io, [&] { return writer.Waits() > waits; })) << "each wait counts";
    EXPECT_TRUE(RunUntil(io, [&] { return Receive() && writer.Departed() == expected.size(); }));
}

TEST_F(FrameWriterTest, WritesNothingMoreAfterAnError) {
    Queue(40);
    RunUntilItWaits();
    const std::size_t sent = owner.sent.size();
    pair.far.set_option(asio::socket_base::linger(true, 0));
    pair.far.close();
    ASSERT_TRUE(RunUntil(io, [&] { return owner.failed > 0; }));
    const Lines lines = log.Lines();
    EXPECT_EQ(lines.back(), "[TunnelClient:411] TunnelClient::SendAsync: (104) Connection reset by peer");
    Queue(1);
    EXPECT_TRUE(support::RunToTheEnd(io));
    EXPECT_EQ(log.Lines(), lines);
    EXPECT_EQ(owner.failed, 1);
    EXPECT_EQ(owner.sent.size(), sent);
    EXPECT_EQ(owner.empty, 0);
    EXPECT_EQ(writer.FramesWaiting(), 41 - sent);
}

}  // namespace
}  // namespace nox::tunnel_client
