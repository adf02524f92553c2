#include <gtest/gtest.h>

#include <future>
#include <string>

#include "tests/lab/LabRunner.h"
#include "tests/support/Eventually.h"

namespace lab {

using namespace std::chrono_literals;

constexpr std::size_t mebibyte = 1048576;

/// Writes as much of `bytes` as goes without waiting for long. @return how much that is
std::size_t WriteUntilStuck(Connection& connection, const std::string& bytes) {
    auto& socket = connection.Socket();
    socket.non_blocking(true);
    std::size_t written = 0;
    std::error_code stuck;
    const auto advances = [&] {
        written += socket.write_some(asio::buffer(bytes) + written, stuck);
        return !stuck;
    };
    while (written < bytes.size() && support::Eventually(advances, std::chrono::milliseconds(500))) {
    }
    return written;
}

/// Bytes that tell when one of them is missing or in another's place.
std::string Pattern(std::size_t size) {
    std::string bytes(size, '\0');
    std::uint32_t state = 1;
    for (auto& byte : bytes) byte = static_cast<char>((state = state * 1664525 + 1013904223) >> 24);
    return bytes;
}

struct SessionTest : testing::Test {
    LabRunner lab;
    ScriptedDevice device{lab};
    Connection client;
    std::string session;

    explicit SessionTest(std::chrono::milliseconds quiet = 3s, std::chrono::milliseconds stall = 30s,
                         std::size_t frameBytes = maxPayloadBytes)
        : lab({}, Limits(quiet, stall), frameBytes) {}
    static Timings Limits(std::chrono::milliseconds quiet, std::chrono::milliseconds stall) {
        Timings timings = LabRunner::Short();
        timings.quiet = quiet;
        timings.stall = stall;
        return timings;
    }
    void SetUp() override {
        device.Connect();
        std::tie(client, session) = device.Client();
    }
    bool Closed(const std::string& rest) {
        return lab.Tells("session " + session + " d1 web closed by " + rest);
    }
};

TEST_F(SessionTest, ReadsNoMoreFromItsClientThanTheDeviceTakesAndEndsAfterAllOfItAndLateBytes) {
    const std::string upload = Pattern(64 * mebibyte);
    const std::size_t taken = WriteUntilStuck(client, upload);
    EXPECT_LT(taken, upload.size() / 2);
    client.ShutdownSend();
    std::string arrived;
    while (arrived.size() < taken) arrived += ReadFrame(device.tunnel).payload;
    EXPECT_TRUE(arrived == upload.substr(0, taken));
    EXPECT_EQ(device.Expect("end_session"), session);
    EXPECT_TRUE(lab.Tells("session " + session + " d1 web opened"));
    device.SendData(session, "late ");
    EXPECT_EQ(client.Read(5), "late ");
    device.SendData(session, "and later");
    EXPECT_EQ(client.ReadToEnd(), "and later");
    EXPECT_TRUE(Closed("client, " + std::to_string(taken) + " bytes to device, 14 bytes from device"));
}

TEST_F(SessionTest, ResetByTheClientEndsItAtOnceAndLateBytesAreNoError) {
    client.Reset();
    EXPECT_EQ(device.Expect("end_session"), session);
    device.SendData(session, "nobody listens");
    EXPECT_TRUE(Closed("client, 0 bytes to device, 14 bytes from device"));
    EXPECT_NE(lab.Totals().find("sessions=0 opened=1 to-device=0 from-device=14 errors=0"),
              std::string::npos);
}

/// A stream of frames of one session, 131072 bytes of the content in each.
std::string Frames(const std::string& session, const std::string& content) {
    std::string stream;
    for (std::size_t start = 0; start < content.size(); start += maxPayloadBytes)
        stream += Bytes({dataFrame, session, content.substr(start, maxPayloadBytes)});
    return stream;
}

TEST_F(SessionTest, ReadsNoMoreFromTheDeviceThanItsClientTakesAndDeliversAllOfItThoughTheDeviceIsLost) {
    const std::string download = Pattern(64 * mebibyte), stream = Frames(session, download);
    const std::size_t taken = WriteUntilStuck(device.tunnel, stream);
    EXPECT_LT(taken, stream.size() / 2);
    EXPECT_TRUE(lab.Lines("takes nothing").empty()) << "a client alone may take as long as it likes";
    auto reading = std::async(std::launch::async, [&] { return client.ReadToEnd(); });
    device.tunnel.Write(stream.substr(taken));
    device.tunnel.Close();
    EXPECT_TRUE(reading.get() == download);
    EXPECT_TRUE(lab.Tells("device d1 disconnected: End of file"));
    EXPECT_TRUE(lab.Lines("closed by").empty()) << "the client has not closed yet";
    client.Close();
    EXPECT_TRUE(Closed("device, 0 bytes to device, 67108864 bytes from device"));
}

struct QuietSessionTest : SessionTest {
    QuietSessionTest() : SessionTest(200ms) {}
};

TEST_F(QuietSessionTest, EndedByTheDeviceWaitsForAClientThatGoesOnSendingAndReadsLate) {
    WriteUntilStuck(client, Pattern(64 * mebibyte));
    const std::string content = Pattern(mebibyte);
    device.tunnel.Write(Frames(session, content));
    device.SendControl(R"({"method":"disconnect-session","session":")" + session + "\"}");
    EXPECT_TRUE(support::Eventually([&] { return WriteUntilStuck(client, "x") > 0; }))
        << "a client that is stuck would never come to read";
    std::error_code error;
    const auto isClosed = [&] {
        client.Socket().write_some(asio::buffer("x", 1), error);
        return !lab.Lines("closed by").empty() || (error && error != asio::error::would_block);
    };
    EXPECT_FALSE(support::Eventually(isClosed, 1s));
    EXPECT_TRUE(client.ReadToEnd() == content);
    EXPECT_TRUE(Closed("device"));
}

struct StalledSessionTest : SessionTest {
    StalledSessionTest() : SessionTest(3s, 300ms) {}
};

TEST_F(StalledSessionTest, IsDroppedWhileOthersWait) {
    const std::string stalled = session;
    Connection stalledClient = std::move(client);
    std::tie(client, session) = device.Client();
    const std::string stream = Frames(stalled, Pattern(64 * mebibyte)) + Frames(session, "for the other");
    auto writing = std::async(std::launch::async, [&] { device.tunnel.Write(stream); });
    EXPECT_EQ(client.Read(13), "for the other");
    writing.get();
    EXPECT_EQ(device.Expect("end_session"), stalled);
    EXPECT_TRUE(lab.Tells("error session " + stalled + ": its client takes nothing, dropped"));
    EXPECT_TRUE(lab.Tells("session " + stalled +
                          " d1 web closed by lab, 0 bytes to device, 67108864 bytes from device"));
}

TEST_F(StalledSessionTest, DoesNotWaitForItsClientWhenItHasEnded) {
    const std::string stream = Frames(session, Pattern(32 * mebibyte));
    client.ShutdownSend();
    device.Expect("end_session");
    device.tunnel.Write(stream);
    EXPECT_TRUE(lab.Tells("error session " + session + ": its client takes nothing, dropped"));
    EXPECT_TRUE(Closed("client, 0 bytes to device, 33554432 bytes from device"));
}

struct LateBytesTest : SessionTest {
    LateBytesTest() : SessionTest(1500ms) {}
};

TEST_F(LateBytesTest, ThatWaitBehindABlockedSessionStillArrive) {
    auto [ended, endedSession] = device.Client();
    const std::string content = Pattern(32 * mebibyte);
    const std::string stream = Frames(session, content) + Frames(endedSession, "late");
    ended.ShutdownSend();
    device.Expect("end_session");
    auto writing = std::async(std::launch::async, [&] { device.tunnel.Write(stream); });
    std::this_thread::sleep_for(3s);
    EXPECT_TRUE(client.Read(content.size()) == content);
    EXPECT_EQ(ended.ReadToEnd(), "late");
    writing.get();
}

struct FrameBytesTest : SessionTest {
    static constexpr std::size_t frameBytes = 300;
    FrameBytesTest() : SessionTest(3s, 30s, frameBytes) {}
};

TEST_F(FrameBytesTest, NoPayloadIsLargerAndAllOfItArrives) {
    const std::string content = Pattern(10 * frameBytes + 1);
    client.Write(content);
    std::string arrived;
    while (arrived.size() < content.size()) {
        const Frame frame = ReadFrame(device.tunnel);
        EXPECT_LE(frame.payload.size(), frameBytes);
        arrived += frame.payload;
    }
    EXPECT_TRUE(arrived == content);
}

TEST_F(SessionTest, ClientsComeAndGoWhileTheDeviceTakesNothingAndNoByteIsLost) {
    WriteUntilStuck(client, Pattern(64 * mebibyte));
    const auto port = lab.RoutePort("d1", "web");
    for (int i = 0; i < 200; ++i) Connection::To(port).Reset();
    auto last = Connection::To(port);
    const std::string lastSession = "0000000000000202";
    EXPECT_TRUE(lab.Tells("session " + lastSession));
    last.Write("patience");
    last.Close();
    // The closed client refuses the first byte, so that the lab fails to write the second.
    for (const char* total : {"from-device=1 ", "from-device=2 "}) {
        device.SendData(lastSession, "x");
        EXPECT_TRUE(support::Eventually([&] { return lab.Totals().find(total) != std::string::npos; }));
        lab.Totals();
    }
    client.Reset();
    Frame frame;  // everything of the first client, ends of the others, then this
    while (frame.type != dataFrame || frame.session != lastSession) frame = ReadFrame(device.tunnel);
    EXPECT_EQ(frame.payload, "patience");
}

}  // namespace lab
