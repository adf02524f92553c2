#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "lab/Signing.h"
#include "tests/lab/LabRunner.h"

namespace lab {

TEST(TunnelServerTest, WelcomesADeviceAndReportsIt) {
    LabRunner lab;
    ScriptedDevice device(lab);
    device.Connect();
    EXPECT_TRUE(lab.Tells("device d1 connected"));
    EXPECT_EQ(lab.Totals(),
              "report devices=1 routes=1 sessions=0 opened=0 to-device=0 from-device=0 errors=0");
    device.Tunnel().Close();
    EXPECT_TRUE(lab.Tells("device d1 disconnected: End of file"));
}

TEST(TunnelServerTest, TellsTheFirstConnectionOfAConflictAndServesTheSecond) {
    LabRunner lab;
    ScriptedDevice device(lab);
    Connection first = std::move(device.Connect());
    device.Connect();
    std::swap(first, device.Tunnel());
    EXPECT_EQ(At(device.Expect("conflict"), {"method"}), "conflict");
    EXPECT_EQ(device.Tunnel().ReadToEnd(), "");
    EXPECT_TRUE(lab.Tells("device d1 disconnected: replaced by a newer connection"));
    std::swap(first, device.Tunnel());
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
    auto [clientOfTwo, sessionOfTwo] = two.Client();
    auto [clientOfOne, sessionOfOne] = one.Client();
    one.SendData(sessionOfTwo, "stolen");
    EXPECT_TRUE(lab.Tells("error device d1: 6 bytes for session " + sessionOfTwo + ", which there is not"));
    two.SendData(sessionOfTwo, "right");
    EXPECT_EQ(clientOfTwo.Read(5), "right");
    EXPECT_EQ(sessionOfOne.size(), 16U);
}

struct Attack {
    const char* name;
    std::function<void(ScriptedDevice&)> commit;
    std::string reason;
};
void PrintTo(const Attack& attack, std::ostream* out) { *out << attack.name; }
const auto nameOf = [](const auto& row) { return std::string(row.param.name); };

void WriteControlText(ScriptedDevice& device, const std::string& text) {
    WriteFrame(device.Tunnel(), {controlFrame, "", text});
}

class BeforeVerify : public testing::TestWithParam<Attack> {};
TEST_P(BeforeVerify, TheConnectionEnds) {
    LabRunner lab;
    ScriptedDevice device(lab);
    device.Tunnel() = Connection::To(lab.TunnelPort());
    GetParam().commit(device);
    EXPECT_EQ(device.Tunnel().ReadToEnd(), "");
    EXPECT_TRUE(lab.Tells("error connection from 127.0.0.1:"));
    EXPECT_NE(lab.Line("error connection from 127.0.0.1:").find(GetParam().reason), std::string::npos)
        << lab.Line("error connection from 127.0.0.1:");
}
INSTANTIATE_TEST_SUITE_P(
    Attacks, BeforeVerify,
    testing::Values(
        Attack{"Silence", [](auto&) {}, "no verify in time"},
        Attack{"HalfAHeader", [](auto& d) { d.Tunnel().Write("\x03"); }, "no verify in time"},
        Attack{"Http", [](auto& d) { d.Tunnel().Write("GET / HTTP/1.1\r\nHost: x\r\n\r\n"); },
               "a frame of 1163141167 bytes"},
        Attack{"TooLong",
               [](auto& d) {
                   d.Tunnel().Write(
                       std::string("\3\0\0\x20\1"
                                   "0000000000000000",
                                   21));
               },
               "a frame of 8193 bytes"},
        Attack{"Data", [](auto& d) { d.SendData("0000000000000001", "x"); },
               "a frame of type 0 before verify"},
        Attack{"NoJson", [](auto& d) { WriteControlText(d, "verify"); }, "not a JSON object"},
        Attack{"NestedDeeply", [](auto& d) { WriteControlText(d, "{\"a\":" + std::string(8187, '[')); },
               "not a JSON object"},
        Attack{"WrongMethod", [](auto& d) { d.SendVerify("hello there"); }, "no verify but hello_there"},
        Attack{"UnknownDevice",
               [](auto& d) {
                   d.deviceId = "d2";
                   d.SendVerify();
               },
               "verify of d2, which is not registered"},
        Attack{"WrongPassword",
               [](auto& d) {
                   d.password += "x";
                   d.SendVerify();
               },
               "verify of d1 with a bad signature"},
        Attack{"WrongUser",
               [](auto& d) {
                   d.username += "x";
                   d.SendVerify();
               },
               "verify of d1 with a wrong username"},
        Attack{"WrongVersion", [](auto& d) { d.SendVerify("verify", "2.0"); },
               "verify of d1 for version 2.0"},
        Attack{"Unsigned",
               [](auto& d) { WriteControlText(d, R"({"method":"verify","deviceId":"d1","timestamp":"1"})"); },
               "verify of d1 with a bad signature"}),
    nameOf);

class AfterVerify : public testing::TestWithParam<Attack> {};
TEST_P(AfterVerify, TheConnectionEnds) {
    LabRunner lab;
    ScriptedDevice device(lab);
    device.Connect();
    auto [client, session] = device.Client();
    GetParam().commit(device);
    EXPECT_EQ(device.Tunnel().ReadToEnd(), "");
    EXPECT_EQ(client.ReadToEnd(), "");
    EXPECT_TRUE(lab.Tells("device d1 disconnected: " + GetParam().reason));
    EXPECT_NO_THROW(device.Connect());
}
INSTANTIATE_TEST_SUITE_P(
    Attacks, AfterVerify,
    testing::Values(Attack{"TooLong",
                           [](auto& d) {
                               d.Tunnel().Write(
                                   std::string("\0\0\2\0\1"
                                               "0000000000000001",
                                               21));
                           },
                           "a frame of 131073 bytes"},
                    Attack{"LongControl", [](auto& d) { WriteControlText(d, std::string(8193, ' ')); },
                           "a control message of 8193 bytes"},
                    Attack{"NoJson", [](auto& d) { WriteControlText(d, "[]"); }, "not a JSON object"},
                    Attack{"BadSignature",
                           [](auto& d) { d.SendControl(R"({"method":"disconnect-session","sign":"0"})"); },
                           "a message with a bad signature"},
                    Attack{"SameMemberTwice",
                           [](auto& d) { WriteControlText(d, R"({"method":"x","method":"y"})"); },
                           "a member comes twice"},
                    Attack{"Reset",
                           [](auto& d) {
                               d.Tunnel().Reset();
                               d.Tunnel() = Connection();
                           },
                           "Connection reset by peer"}),
    nameOf);

class StrangeFrames : public testing::TestWithParam<Attack> {};
TEST_P(StrangeFrames, LeaveTheConnectionUp) {
    LabRunner lab;
    ScriptedDevice device(lab);
    device.Connect();
    auto [client, session] = device.Client();
    GetParam().commit(device);
    device.SendData(session, std::string(131072, 'x'));
    EXPECT_EQ(client.Read(131072), std::string(131072, 'x'));
    const bool isError = !GetParam().reason.empty();
    EXPECT_EQ(lab.CountLines("error device d1: " + GetParam().reason), isError ? 1U : 0U);
    EXPECT_NE(lab.Totals().find(isError ? "errors=1" : "errors=0"), std::string::npos);
}
INSTANTIATE_TEST_SUITE_P(
    Frames, StrangeFrames,
    testing::Values(
        Attack{"Heartbeat",
               [](auto& d) {
                   WriteFrame(d.Tunnel(), {1, "", ""});
               },
               ""},
        Attack{"Reserved",
               [](auto& d) {
                   WriteFrame(d.Tunnel(), {2, "", "abc"});
               },
               ""},
        Attack{
            "Connected",
            [](auto& d) { d.SendControl(R"({"method":"connected-session","session":"0000000000000001"})"); },
            ""},
        Attack{"UnknownType",
               [](auto& d) {
                   WriteFrame(d.Tunnel(), {9, "", "abc"});
               },
               "a frame of type 9"},
        Attack{"UnknownMethod", [](auto& d) { d.SendControl(R"({"method":"a\nb"})"); }, "unknown method a_b"},
        Attack{"UnknownSession", [](auto& d) { d.SendData("\n123456789abcdef", "abc"); },
               "3 bytes for session _123456789abcdef, which there is not"},
        Attack{"EndOfUnknownSession",
               [](auto& d) { d.SendControl(R"({"method":"disconnect-session","session":7})"); },
               "disconnect-session for , which there is not"}),
    nameOf);

TEST(TunnelServerTest, ADeviceThatErrsInALoopDoesNotFloodTheReport) {
    LabRunner lab;
    ScriptedDevice device(lab);
    device.Connect();
    for (int i = 0; i < 1000; ++i) WriteFrame(device.Tunnel(), {9, "", ""});
    auto [client, session] = device.Client();
    device.SendData(session, "x");
    EXPECT_EQ(client.Read(1), "x");
    EXPECT_NE(lab.Totals().find("errors=1000"), std::string::npos);
    EXPECT_LT(lab.CountLines("error device"), 100U);
    EXPECT_TRUE(lab.Tells("more errors, not shown"));
}

}  // namespace lab
