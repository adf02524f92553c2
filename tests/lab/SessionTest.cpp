#include <gtest/gtest.h>

#include <future>
#include <string>

#include "tests/lab/LabRunner.h"

namespace lab {

constexpr std::size_t mebibyte = 1048576;

struct SessionTest : testing::Test {
    LabRunner lab;
    ScriptedDevice device{lab};
    Connection client;
    std::string session;

    void Open() { std::tie(client, session) = device.Client(); }
    void SetUp() override {
        device.Connect();
        Open();
    }
    std::string Control(const std::string& method, const std::string& id) {
        return R"({"method":")" + method + R"(","session":")" + id + "\"}";
    }
    bool Closed(const std::string& rest) {
        return lab.Tells("session " + session + " d1 web closed by " + rest);
    }
};

TEST_F(SessionTest, IsAnnouncedWithANumericHostAndPort) {
    const auto second = Connection::To(lab.RoutePort("d1", "web"));
    const auto message = device.Expect("new_session");
    EXPECT_EQ(At(message, {"session"}), "0000000000000002");
    EXPECT_EQ(At(message, {"localHost"}), "127.0.0.1");
    EXPECT_EQ(At(message, {"localPort"}), "8080");
    EXPECT_TRUE(lab.Tells("session 0000000000000002 d1 web opened"));
}

TEST_F(SessionTest, EndOfTheClientComesAfterAllItsBytesAndLateBytesStillArrive) {
    const std::string request = Pattern(3 * mebibyte);
    auto writing = std::async(std::launch::async, [&] {
        client.Write(request);
        client.ShutdownSend();
    });
    EXPECT_TRUE(device.ReadData(session, request.size()) == request);
    EXPECT_EQ(At(device.Expect("end_session"), {"session"}), session);
    writing.get();
    device.SendData(session, "late ");
    EXPECT_EQ(client.Read(5), "late ");
    device.SendData(session, "and later");
    EXPECT_EQ(client.ReadToEnd(), "and later");
    EXPECT_TRUE(Closed("client, 3145728 bytes to device, 14 bytes from device"));
}

TEST_F(SessionTest, ResetByTheClientEndsItAtOnceAndLateBytesAreNoError) {
    client.Reset();
    EXPECT_EQ(At(device.Expect("end_session"), {"session"}), session);
    device.SendData(session, "nobody listens");
    EXPECT_TRUE(Closed("client, 0 bytes to device, 14 bytes from device"));
    EXPECT_NE(lab.Totals().find("sessions=0 opened=1 to-device=0 from-device=14 errors=0"),
              std::string::npos);
}

TEST_F(SessionTest, EndOfTheDeviceComesAfterAllItsBytes) {
    const std::string reply = Pattern(5 * mebibyte);
    auto reading = std::async(std::launch::async, [&] { return client.ReadToEnd(); });
    for (std::size_t start = 0; start < reply.size(); start += 16384)
        device.SendData(session, reply.substr(start, 16384));
    device.SendControl(Control("disconnect-session", session));
    EXPECT_TRUE(reading.get() == reply);
    EXPECT_TRUE(lab.CountLines("closed by") == 0) << "the client has not closed yet";
    client.Close();
    EXPECT_TRUE(Closed("device, 0 bytes to device, 5242880 bytes from device"));
}

TEST_F(SessionTest, EndOfTheDeviceReachesAClientThatGoesOnSending) {
    device.SendData(session, "refused");
    device.SendControl(Control("disconnect-session", session));
    WriteUntilStuck(client, Pattern(16 * mebibyte));
    EXPECT_EQ(client.Read(7), "refused");
    EXPECT_TRUE(Closed("device"));
}

TEST_F(SessionTest, OfALostDeviceStillDeliversWhatCame) {
    device.SendData(session, "last words");
    device.Tunnel().Close();
    EXPECT_EQ(client.ReadToEnd(), "last words");
    EXPECT_TRUE(lab.Tells("device d1 disconnected: End of file"));
    client.Close();
    EXPECT_TRUE(Closed("device, 0 bytes to device, 10 bytes from device"));
}

TEST_F(SessionTest, ReadsNoMoreFromClientsThanTheDeviceTakes) {
    const std::string upload = Pattern(64 * mebibyte);
    const std::size_t taken = WriteUntilStuck(client, upload);
    EXPECT_LT(taken, upload.size() / 2);
    client.ShutdownSend();
    EXPECT_TRUE(device.ReadData(session, taken) == upload.substr(0, taken));
    EXPECT_EQ(At(device.Expect("end_session"), {"session"}), session);
}

/// A stream of frames of one session, 131072 bytes of the content in each.
std::string Frames(const std::string& session, const std::string& content) {
    std::string stream;
    for (std::size_t start = 0; start < content.size(); start += maxPayloadBytes) {
        const std::string payload = content.substr(start, maxPayloadBytes);
        const auto header = EncodeHeader(dataFrame, payload.size(), session);
        stream.append(header.begin(), header.end()).append(payload);
    }
    return stream;
}

TEST_F(SessionTest, ReadsNoMoreFromTheDeviceThanAClientTakes) {
    const std::string download = Pattern(64 * mebibyte), stream = Frames(session, download);
    const std::size_t taken = WriteUntilStuck(device.Tunnel(), stream);
    EXPECT_LT(taken, stream.size() / 2);
    EXPECT_EQ(lab.CountLines("takes nothing"), 0U) << "a client alone may take as long as it likes";
    auto reading = std::async(std::launch::async, [&] { return client.Read(download.size()); });
    device.Tunnel().Write(stream.substr(taken));
    EXPECT_TRUE(reading.get() == download);
}

TEST_F(SessionTest, ThatTakesNothingWhileOthersWaitIsDropped) {
    const std::string stalled = session;
    Connection stalledClient = std::move(client);
    Open();
    const std::string stream = Frames(stalled, Pattern(64 * mebibyte)) + Frames(session, "for the other");
    auto writing = std::async(std::launch::async, [&] { device.Tunnel().Write(stream); });
    EXPECT_EQ(client.Read(13), "for the other");
    writing.get();
    EXPECT_EQ(At(device.Expect("end_session"), {"session"}), stalled);
    EXPECT_TRUE(lab.Tells("error session " + stalled + ": its client takes nothing, dropped"));
    EXPECT_TRUE(lab.Tells("session " + stalled +
                          " d1 web closed by lab, 0 bytes to device, 67108864 bytes from device"));
}

TEST_F(SessionTest, ThatHasEndedDoesNotWaitForAClientThatTakesNothing) {
    const std::string stream = Frames(session, Pattern(32 * mebibyte));
    client.ShutdownSend();
    device.Expect("end_session");
    device.Tunnel().Write(stream);
    EXPECT_TRUE(lab.Tells("error session " + session + ": its client takes nothing, dropped"));
    EXPECT_TRUE(Closed("client, 0 bytes to device, 33554432 bytes from device"));
}

TEST(LateBytesTest, ThatWaitBehindABlockedSessionStillArrive) {
    Timings timings = LabRunner::Short();
    timings.stall = std::chrono::seconds(20);
    timings.quiet = std::chrono::milliseconds(500);
    LabRunner lab({}, timings);
    ScriptedDevice device(lab);
    device.Connect();
    auto [slow, slowSession] = device.Client();
    auto [ended, endedSession] = device.Client();
    const std::string content = Pattern(32 * mebibyte);
    const std::string stream = Frames(slowSession, content) + Frames(endedSession, "late");
    ended.ShutdownSend();
    device.Expect("end_session");
    auto writing = std::async(std::launch::async, [&] { device.Tunnel().Write(stream); });
    std::this_thread::sleep_for(2 * timings.quiet);
    EXPECT_TRUE(slow.Read(content.size()) == content);
    EXPECT_EQ(ended.ReadToEnd(), "late");
    writing.get();
}

TEST_F(SessionTest, ClientsComeAndGoWhileTheDeviceTakesNothing) {
    WriteUntilStuck(client, Pattern(64 * mebibyte));
    const auto port = lab.RoutePort("d1", "web");
    for (int i = 0; i < 200; ++i) Connection::To(port).Reset();
    auto last = Connection::To(port);
    last.Write("patience");
    client.Reset();
    std::string heard;
    while (heard.find("patience") ==
           std::string::npos) {  // everything of the first client, ends of the others, this
        const Frame frame = ReadFrame(device.Tunnel());
        if (frame.session == "0000000000000202") heard += frame.payload;
    }
    EXPECT_EQ(heard, "patience");
    EXPECT_NE(lab.Totals().find("opened=202"), std::string::npos);
}

}  // namespace lab
