#include <gtest/gtest.h>

#include <future>
#include <string>

#include "tests/lab/LabRunner.h"
#include "tests/support/Eventually.h"

namespace lab {

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

    explicit SessionTest(const Timings& timings = LabRunner::Short()) : lab({}, timings) {}
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

TEST_F(SessionTest, EndOfTheDeviceReachesAClientThatGoesOnSending) {
    WriteUntilStuck(client, Pattern(64 * mebibyte));
    device.SendData(session, "refused");
    device.SendControl(R"({"method":"disconnect-session","session":")" + session + "\"}");
    EXPECT_EQ(client.Read(7), "refused");
    EXPECT_GT(WriteUntilStuck(client, Pattern(mebibyte)), 0U)
        << "a client that is stuck would never come to read";
    EXPECT_TRUE(Closed("device"));
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

TEST_F(SessionTest, DeliversWhatAClientSentThatClosedThoughTheDeviceSendsOn) {
    WriteUntilStuck(client, Pattern(64 * mebibyte));  // the lab reads from no client of this device now
    auto closing = Connection::To(lab.RoutePort("d1", "web"));
    const std::string upload = Pattern(10000);
    closing.Write(upload);
    closing.Close();
    const std::string other = "0000000000000002";
    for (const char* total :
         {"from-device=1 ", "from-device=2 "}) {  // the first one makes the client refuse the second
        device.SendData(other, "x");
        EXPECT_TRUE(support::Eventually([&] { return lab.Totals().find(total) != std::string::npos; }));
        lab.Totals();
    }
    std::string arrived;
    while (arrived.size() < upload.size()) {
        const Frame frame = ReadFrame(device.tunnel);
        if (frame.type == dataFrame && frame.session == other) arrived += frame.payload;
        if (frame.payload.find("end_session") != std::string::npos) break;
    }
    EXPECT_TRUE(arrived == upload) << arrived.size();
}

/// The lab soon takes a session for quiet.
struct QuietSessionTest : SessionTest {
    static Timings Hasty() {
        Timings timings = LabRunner::Short();
        timings.quiet = std::chrono::milliseconds(200);
        return timings;
    }
    QuietSessionTest() : SessionTest(Hasty()) {}
};

TEST_F(QuietSessionTest, WaitsForAClientThatReadsLateAndSendsOn) {
    const std::string content = Pattern(mebibyte);
    device.tunnel.Write(Frames(session, content));
    device.SendControl(R"({"method":"disconnect-session","session":")" + session + "\"}");
    std::error_code reset;
    const auto isClosed = [&] {
        client.Socket().write_some(asio::buffer("x", 1), reset);
        return !lab.Lines("closed by").empty() || reset;
    };
    EXPECT_FALSE(support::Eventually(isClosed, std::chrono::milliseconds(1000)));
    EXPECT_TRUE(client.ReadToEnd() == content);
    client.Close();
    EXPECT_TRUE(Closed("device"));
}

/// The lab soon loses patience with a client that takes nothing.
struct StalledSessionTest : SessionTest {
    static Timings Impatient() {
        Timings timings = LabRunner::Short();
        timings.stall = std::chrono::milliseconds(300);
        return timings;
    }
    StalledSessionTest() : SessionTest(Impatient()) {}
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

TEST(LateBytesTest, ThatWaitBehindABlockedSessionStillArrive) {
    Timings timings = LabRunner::Short();
    timings.quiet = std::chrono::milliseconds(1500);
    LabRunner lab({}, timings);
    ScriptedDevice device(lab);
    device.Connect();
    auto [slow, slowSession] = device.Client();
    auto [ended, endedSession] = device.Client();
    const std::string content = Pattern(32 * mebibyte);
    const std::string stream = Frames(slowSession, content) + Frames(endedSession, "late");
    ended.ShutdownSend();
    device.Expect("end_session");
    auto writing = std::async(std::launch::async, [&] { device.tunnel.Write(stream); });
    std::this_thread::sleep_for(2 * timings.quiet);
    EXPECT_TRUE(slow.Read(content.size()) == content);
    EXPECT_EQ(ended.ReadToEnd(), "late");
    writing.get();
}

TEST(FrameBytesTest, NoPayloadIsLargerAndAllOfItArrives) {
    constexpr std::size_t frameBytes = 300;
    LabRunner lab({}, LabRunner::Short(), frameBytes);
    ScriptedDevice device(lab);
    device.Connect();
    auto [client, session] = device.Client();
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

TEST_F(SessionTest, ClientsComeAndGoWhileTheDeviceTakesNothing) {
    WriteUntilStuck(client, Pattern(64 * mebibyte));
    const auto port = lab.RoutePort("d1", "web");
    for (int i = 0; i < 200; ++i) Connection::To(port).Reset();
    auto last = Connection::To(port);
    last.Write("patience");
    client.Reset();
    Frame frame;  // everything of the first client, ends of the others, then this
    while (frame.type != dataFrame || frame.session != "0000000000000202") frame = ReadFrame(device.tunnel);
    EXPECT_EQ(frame.payload, "patience");
}

}  // namespace lab
