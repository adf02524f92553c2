#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/LogCapture.h"
#include "tests/support/Loopback.h"
#include "tunnel/FrameReader.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#endif

namespace nox::tunnel_client {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using support::RunUntil;
using Lines = std::vector<std::string>;

const std::string listening = "[TunnelClient:162] Listening to tunnel server";

std::string Header(char type, std::uint32_t length, const std::string& session = "abcdefghijklmnop") {
    std::string bytes(1, type);
    for (const int shift : {24, 16, 8, 0}) bytes += static_cast<char>(length >> shift);
    return bytes + session;
}
std::string HeaderLine(int type, std::size_t length) {
    return "[TunnelClient:175] Header, type " + std::to_string(type) + ", len " + std::to_string(length);
}

// Puts the frames together again, and looks at a payload for as long as it may.
struct Owner : FrameReader::Owner {
    bool HandleMessage(const FrameHeader& header, std::string_view payload) override {
        bytes += Header(static_cast<char>(header.type), header.length, std::string(header.SessionId()));
        bytes += payload;
        batch.emplace_back(payload, payload);
        return ++frames != stopsAfter;
    }
    void OnBatchOver() override {
        for (const auto& [there, payload] : batch) EXPECT_TRUE(there == payload) << "changed in its batch";
        if (!batch.empty()) last = batch.back().first;
        batch.clear();
        ++batches;
    }
    void Stop() override { ++failed; }

    std::string bytes;
    int frames = 0, stopsAfter = 0, batches = 0, failed = 0;
    std::vector<std::pair<std::string_view, std::string>> batch;
    std::string_view last;  // payload handed out
};

class FrameReaderTest : public testing::Test {
protected:
    void Write(const std::string& piece) {
        bool isWritten = false;
        asio::async_write(pair.far, asio::buffer(piece), [&](auto...) { isWritten = true; });
        ASSERT_TRUE(RunUntil(io, [&] { return isWritten; }));
    }
    void WriteAndRead(const std::string& piece) {
        Write(piece);
        ASSERT_TRUE(RunUntil(io, [&] { return pair.near.available() < WakesAt(); }));
    }
    // Bytes that have to arrive before the reader is woken.
    std::size_t WakesAt() {
        asio::socket_base::receive_low_watermark bytes;
        pair.near.get_option(bytes);
        return static_cast<std::size_t>(bytes.value());
    }
    void RunToTheEnd() { EXPECT_TRUE(support::RunToTheEnd(io)) << "it reads on"; }

    support::LogCapture log;
    asio::io_context io;
    support::SocketPair pair{io};
    Owner owner;
    FrameReader reader{io, pair.near, owner};
};

const std::vector<std::uint32_t> manySizes = {0,     1,     16384, 131072, 0,     0,     131072, 131072, 5,
                                              65515, 65516, 65536, 1,      16384, 16384, 131071, 20,     300};

struct Split {
    const char* name;
    std::vector<std::uint32_t> sizes;  // of the payloads
    // Where a frame is cut, counted from its begin; or else all frames together, every so many bytes.
    std::vector<std::size_t> cuts;
    std::size_t every = SIZE_MAX;
};
class FrameReaderSplit : public FrameReaderTest, public testing::WithParamInterface<Split> {};
TEST_P(FrameReaderSplit, HandsOutFramesByteForByteWithTheirLines) {
    std::string bytes;
    std::vector<std::size_t> ends;
    Lines lines = {listening};
    for (const std::uint32_t size : GetParam().sizes) {
        const int type = static_cast<int>(size % 251);
        for (const std::size_t cut : GetParam().cuts)
            if (cut < headerBytes + size) ends.push_back(bytes.size() + cut);
        bytes += Header(static_cast<char>(type), size);
        for (std::uint32_t i = 0; i < size; ++i) bytes += static_cast<char>(i * 31 + bytes.size() / 251);
        lines.insert(lines.end(), {HeaderLine(type, size), listening});
    }
    for (std::size_t end = GetParam().every; end < bytes.size(); end += GetParam().every) ends.push_back(end);
    ends.push_back(bytes.size());
    std::sort(ends.begin(), ends.end());
    reader.ListenToTunnelServer();
    std::size_t begin = 0;
    for (const std::size_t end : ends) {
        if (end > begin) WriteAndRead(bytes.substr(begin, end - begin));
        begin = end;
    }
    ASSERT_TRUE(RunUntil(io, [&] { return owner.bytes.size() >= bytes.size(); }));
    EXPECT_TRUE(owner.bytes == bytes);
    EXPECT_EQ(log.Lines(), lines);
    EXPECT_EQ(owner.failed, 0);
}
INSTANTIATE_TEST_SUITE_P(
    Pieces, FrameReaderSplit,
    testing::Values(Split{"OneByteAtATime", {0, 1, 0, 40, 300}, {}, 1}, Split{"WholeFrames", manySizes, {0}},
                    Split{"AllInOne", manySizes, {}}, Split{"InsideTheHeader", manySizes, {10}},
                    Split{"BehindTheHeader", manySizes, {0, 21}}, Split{"UpToTheNextHeader", manySizes, {21}},
                    Split{"OneByteOfThePayload", manySizes, {22}},
                    Split{"InHeaderAndPayload", manySizes, {1, 20, 22, 16000, 65536, 131092}},
                    Split{"SegmentsOfAModem", manySizes, {}, 1448}, Split{"OddBlocks", manySizes, {}, 99991}),
    [](const auto& row) { return std::string(row.param.name); });

// A slow line would wake the agent for each packet of a large frame.
TEST_F(FrameReaderTest, IsWokenOnlyForMuchOfALargeFrameUntilLittleIsMissing) {
    const std::string frame = Header(0, 40000) + std::string(40000, 'x');
    const auto expectUnread = [&](std::size_t bytes) {
        ASSERT_TRUE(RunUntil(io, [&] { return pair.near.available() >= bytes; }));
        io.poll();
        EXPECT_EQ(pair.near.available(), bytes);
    };
    reader.ListenToTunnelServer();
    WriteAndRead(frame.substr(0, 20));
    EXPECT_EQ(WakesAt(), 1U);
    WriteAndRead(frame.substr(20, 10));
    EXPECT_EQ(WakesAt(), 16384U);
    Write(frame.substr(30, 16383));
    expectUnread(16383);
    WriteAndRead(frame.substr(16413, 7224));
    EXPECT_EQ(WakesAt(), 1U) << "more than is missing";
    WriteAndRead(frame.substr(23637) + frame.substr(0, 30));
    EXPECT_EQ(owner.frames, 1);
    Write(std::string(500, 'x'));
    expectUnread(500);
    pair.far.close();
    RunToTheEnd();
    EXPECT_EQ(log.Lines().back(), "[TunnelClient:193] ListenToTunnelServer - read data: (2) End of file");
    EXPECT_TRUE(owner.bytes == frame);
}

TEST_F(FrameReaderTest, HandsOutSixteenFramesInOneTurnOfTheLoop) {
    std::string bytes;
    for (char type = 0; type < 50; ++type) bytes += Header(type, 1) + "x";
    Write(bytes);
    reader.ListenToTunnelServer();
    int most = 0;
    for (int before = 0; owner.frames < 50 && io.run_one_for(support::patience) == 1; before = owner.frames)
        most = std::max(most, owner.frames - before);
    EXPECT_EQ(most, 16);
    EXPECT_EQ(owner.batches, 4);
    EXPECT_TRUE(owner.bytes == bytes);
}

// The memory of a payload is used again after its batch: whoever looks at it then is to be found.
TEST_F(FrameReaderTest, GuardsPayloadsThatHaveBeenHandedOut) {
    reader.ListenToTunnelServer();
    Write(Header(0, 5000) + std::string(5000, 'x') + Header(0, 10) + "half");
    ASSERT_TRUE(RunUntil(io, [&] { return owner.batches > 0 && owner.frames == 1; }));
    ASSERT_EQ(owner.last.size(), 5000U);
#if defined(__SANITIZE_ADDRESS__)
    for (const std::size_t at : {0U, 2500U, 4990U})  // the last may share eight bytes with the next frame
        EXPECT_TRUE(__asan_address_is_poisoned(owner.last.data() + at)) << at;
#endif
    Write("whole!");
    EXPECT_TRUE(RunUntil(io, [&] { return owner.frames == 2; }));
    EXPECT_EQ(owner.bytes.substr(owner.bytes.size() - 10), "halfwhole!");
}

TEST_F(FrameReaderTest, RefusesAPayloadThatIsTooLargeBeforeItHasCome) {
    reader.ListenToTunnelServer();
    Write(Header(1, 0) + Header(0, 131073));
    RunToTheEnd();
    EXPECT_EQ(log.Lines(), (Lines{listening, HeaderLine(1, 0), listening, HeaderLine(0, 131073),
                                  "[TunnelClient:178] Tunnel message size too large: 131073"}));
    EXPECT_EQ(owner.frames, 1);
    EXPECT_EQ(owner.failed, 1);
    Write(std::string(131073, 'x'));
    RunToTheEnd();
    EXPECT_GT(pair.near.available(), 0U) << "read on";
    EXPECT_EQ(owner.failed, 1);
}

TEST_F(FrameReaderTest, HandsOutNothingBehindTheFrameWithWhichTheOwnerStops) {
    owner.stopsAfter = 2;
    reader.ListenToTunnelServer();
    Write(Header(1, 0) + Header(2, 1) + "x" + Header(3, 0) + Header(4, 0));
    RunToTheEnd();
    EXPECT_EQ(owner.bytes, Header(1, 0) + Header(2, 1) + "x");
    EXPECT_EQ(log.Lines(), (Lines{listening, HeaderLine(1, 0), listening, HeaderLine(2, 1)}));
    EXPECT_EQ(owner.batches, 1) << "what has arrived is still passed on";
    EXPECT_EQ(owner.failed, 0);
}

// The header is logged as soon as it is complete; only payload is missing then.
TEST(FrameReaderEnd, IsAFaultOfTheHeaderOrOfTheData) {
    const std::string bytes = Header(9, 1) + "x" + Header(3, 10) + "payload";
    for (const std::size_t more : {0U, 1U, 20U, 21U, 25U}) {
        for (const bool isReset : {false, true}) {
            SCOPED_TRACE(std::to_string(more) + (isReset ? " bytes and a reset" : " bytes and the end"));
            support::LogCapture log;
            asio::io_context io;
            support::SocketPair pair(io);
            Owner owner;
            FrameReader reader(io, pair.near, owner);
            reader.ListenToTunnelServer();
            asio::write(pair.far, asio::buffer(bytes, 22 + more));
            ASSERT_TRUE(RunUntil(io, [&] { return owner.frames == 1 && pair.near.available() == 0; }));
            Lines lines = {listening, HeaderLine(9, 1), listening};
            if (more >= headerBytes) lines.push_back(HeaderLine(3, 10));
            EXPECT_EQ(log.Lines(), lines);
            if (isReset) pair.far.set_option(asio::socket_base::linger(true, 0));
            pair.far.close();
            EXPECT_TRUE(support::RunToTheEnd(io));
            lines.push_back((more < headerBytes ? "[TunnelClient:168] ListenToTunnelServer - read header: "s
                                                : "[TunnelClient:193] ListenToTunnelServer - read data: "s) +
                            (isReset ? "(104) Connection reset by peer" : "(2) End of file"));
            EXPECT_EQ(log.Lines(), lines);
            EXPECT_EQ(owner.frames, 1);
            EXPECT_EQ(owner.failed, 1);
        }
    }
}

}  // namespace
}  // namespace nox::tunnel_client
