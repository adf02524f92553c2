#include <gtest/gtest.h>

#include <string>

#include "tests/lab/LabRunner.h"

namespace lab {

TEST(TunnelServerTest, TellsTheFirstConnectionOfAConflictAndServesTheSecond) {
    LabRunner lab;
    ScriptedDevice device(lab);
    device.Connect();
    EXPECT_TRUE(lab.Tells("device d1 connected"));
    Connection first = std::move(device.tunnel);
    device.Connect();
    std::swap(first, device.tunnel);
    EXPECT_NO_THROW(device.Expect("conflict"));
    EXPECT_EQ(device.tunnel.ReadToEnd(), "");
    EXPECT_TRUE(lab.Tells("device d1 disconnected: replaced by a newer connection"));
    std::swap(first, device.tunnel);
    auto [client, session] = device.Client();
    device.SendData(session, "still here");
    EXPECT_EQ(client.Read(10), "still here");
    EXPECT_EQ(lab.Totals(),
              "report devices=1 routes=1 sessions=1 opened=1 to-device=0 from-device=10 errors=0");
}

TEST(TunnelServerTest, KeepsDevicesApart) {
    LabRunner lab;
    ScriptedDevice one(lab, "d1"), two(lab, "d2");
    one.Connect();
    two.Connect();
    auto [client, session] = two.Client();
    one.SendData(session, "stolen");
    EXPECT_TRUE(lab.Tells("error device d1: 6 bytes for session " + session + ", which there is not"));
    two.SendData(session, "right");
    EXPECT_EQ(client.Read(5), "right");
}

std::string Control(const std::string& text) { return Bytes({controlFrame, "", text}); }

TEST(TunnelServerTest, EndsAConnectionThatDoesNotBeginWithAGoodVerify) {
    LabRunner lab;
    const ScriptedDevice known(lab);
    const std::string user = known.username, password = known.password;
    const std::pair<std::string, std::string> rows[] = {
        {"\x03", "no verify in time"},
        {"GET / HTTP/1.1\r\nHost: x\r\n\r\n", "a frame of 1163141167 bytes"},
        {Control(std::string(8193, ' ')).substr(0, frameHeaderBytes), "a frame of 8193 bytes"},
        {Bytes({dataFrame, "", "x"}), "a frame of type 0 before verify"},
        {Control("verify"), "not a JSON object"},
        {Control("{\"a\":" + std::string(4093, '[') + std::string(4093, ']') + "}"), "no verify but "},
        {VerifyBytes("d1", user, password, "hello there"), "no verify but hello_there"},
        {VerifyBytes("d2", user, password), "verify of d2, which is not registered"},
        {VerifyBytes("d1", user, password + "x"), "verify of d1 with a bad signature"},
        {VerifyBytes("d1", user + "x", password), "verify of d1 with a wrong username"},
        {VerifyBytes("d1", user, password, "verify", "2.0"), "verify of d1 for version 2.0"},
        {Control(R"({"method":"verify","deviceId":"d1"})"), "verify of d1 with a bad signature"}};
    for (const auto& [bytes, reason] : rows) {
        auto connection = Connection::To(lab.TunnelPort());
        const auto port = std::to_string(connection.Socket().local_endpoint().port());
        connection.Write(bytes);
        EXPECT_EQ(connection.ReadToEnd(), "");
        EXPECT_TRUE(lab.Tells(("error connection from 127.0.0.1:" + port).append(": ").append(reason)))
            << reason;
    }
}

TEST(TunnelServerTest, EndsTheConnectionOfADeviceThatBreaksTheRulesAndTakesTheNext) {
    LabRunner lab;
    ScriptedDevice device(lab);
    const std::pair<std::string, std::string> rows[] = {
        {Bytes({dataFrame, "", std::string(131073, 'x')}).substr(0, frameHeaderBytes),
         "a frame of 131073 bytes"},
        {Control(std::string(8193, ' ')), "a control message of 8193 bytes"},
        {Control("[]"), "not a JSON object"},
        {Control("{\"method\":\"x\",}"), "not a JSON object"},
        {Control(R"({"method":"disconnect-session","sign":"0"})"), "a message with a bad signature"},
        {Control(R"({"method":"x","method":"y"})"), "a member comes twice"}};
    for (const auto& [bytes, reason] : rows) {
        device.Connect();
        auto [client, session] = device.Client();
        device.tunnel.Write(bytes);
        EXPECT_EQ(device.tunnel.ReadToEnd(), "");
        EXPECT_EQ(client.ReadToEnd(), "");
        EXPECT_TRUE(lab.Tells("device d1 disconnected: " + reason)) << reason;
    }
}

TEST(TunnelServerTest, ToleratesStrangeFramesAndTellsOfThemWithinReason) {
    const std::pair<Frame, std::string> rows[] = {
        {{heartbeatFrame, "", ""}, ""},
        {{reservedFrame, "", "abc"}, ""},
        {{controlFrame, "", R"({"method":"connected-session","session":"0000000000000001"})"}, ""},
        {{9, "", "abc"}, "a frame of type 9"},
        {{controlFrame, "", R"({"method":"a\nb"})"}, "unknown method a_b"},
        {{dataFrame, "\n123456789abcdef", "abc"}, "3 bytes for session _123456789abcdef, which there is not"},
        {{controlFrame, "", R"({"method":"disconnect-session","session":7})"},
         "disconnect-session for , which there is not"}};
    LabRunner lab;
    ScriptedDevice device(lab);
    device.Connect();
    auto [client, session] = device.Client();
    std::vector<std::string> errors;
    for (const auto& [frame, error] : rows) {
        frame.type == controlFrame ? device.SendControl(frame.payload) : WriteFrame(device.tunnel, frame);
        if (!error.empty()) errors.push_back("error device d1: " + error);
    }
    device.SendData(session, std::string(131072, 'x'));
    EXPECT_EQ(client.Read(131072), std::string(131072, 'x'));
    EXPECT_EQ(lab.Lines("error"), errors);
    for (int i = 0; i < 1000; ++i) WriteFrame(device.tunnel, {9, "", ""});
    device.SendData(session, "x");
    EXPECT_EQ(client.Read(1), "x");
    EXPECT_NE(lab.Totals().find("errors=1004"), std::string::npos);
    EXPECT_LT(lab.Lines("error device").size(), 100U)
        << "a device that errs in a loop would flood the report";
    EXPECT_TRUE(lab.Tells("more errors, not shown"));
}

}  // namespace lab
