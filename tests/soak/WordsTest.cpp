#include <gtest/gtest.h>

#include "bench/soak/Words.h"

namespace {

using soak::AgentWords;
using Kind = soak::ServerLine::Kind;

struct ServerSays {
    const char* name;
    std::string line;
    Kind kind;
    std::string session;
};
class ReadsServer : public testing::TestWithParam<ServerSays> {};
TEST_P(ReadsServer, Line) {
    const auto read = soak::ReadServerLine(GetParam().line);
    EXPECT_EQ(read.kind, GetParam().kind);
    EXPECT_EQ(read.session, GetParam().session);
}
INSTANTIATE_TEST_SUITE_P(
    Lines, ReadsServer,
    testing::Values(
        ServerSays{"Ready", "ready", Kind::Ready, ""},
        ServerSays{"Registered", "device lab-device-1 registered", Kind::Other, ""},
        ServerSays{"Connected", "device lab-device-1 connected", Kind::Connected, ""},
        ServerSays{"Disconnected", "device lab-device-1 disconnected: End of file", Kind::Disconnected, ""},
        ServerSays{"Opened", "session 0000000000000001 lab-device-1 web opened", Kind::Opened,
                   "0000000000000001"},
        ServerSays{"Closed",
                   "session 0000000000000017 d web closed by lab, 1 bytes to device, 2 bytes from device",
                   Kind::Closed, "0000000000000017"},
        ServerSays{"TurnedAway", "error client of d web turned away: the device is not connected",
                   Kind::TurnedAway, ""},
        ServerSays{"Error", "error device d: a frame of type 9", Kind::Error, ""},
        ServerSays{"Empty", "", Kind::Other, ""}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(ReadsServer, CountsOfAClosedSession) {
    const auto read = soak::ReadServerLine(
        "session 0000000000000002 lab-device-1 web closed by client, 123 bytes to device, 5000000000 bytes "
        "from device");
    EXPECT_EQ(read.words.closedBy, "client");
    EXPECT_EQ(read.words.toDevice, 123U);
    EXPECT_EQ(read.words.fromDevice, 5000000000U);
}

struct AgentSays {
    const char* name;
    std::string line;
    bool AgentWords::*word;
};
class ReadsAgent : public testing::TestWithParam<AgentSays> {};
TEST_P(ReadsAgent, Line) {
    const auto read = soak::ReadAgentLine("12:00:00.000 " + GetParam().line);
    EXPECT_FALSE(read.isVerified);
    EXPECT_EQ(read.session, GetParam().word ? "0000000000000003" : "");
    EXPECT_EQ(read.word, GetParam().word);
}
INSTANTIATE_TEST_SUITE_P(
    Lines, ReadsAgent,
    testing::Values(
        AgentSays{"Ended", "[TunnelClient:323] Session 0000000000000003 ended", &AgentWords::endedByServer},
        AgentSays{"NotFound", "[TunnelClient:328] Session 0000000000000003 not found", nullptr},
        AgentSays{"ServiceEnd",
                  "[ServiceConnection:72] ServiceConnection::ListenToService, session 0000000000000003, (2) "
                  "End of file",
                  &AgentWords::serviceEnded},
        AgentSays{"ServiceReset",
                  "[ServiceConnection:72] ServiceConnection::ListenToService, session 0000000000000003, "
                  "(104) Connection "
                  "reset by peer",
                  &AgentWords::readFailed},
        AgentSays{"WriteFailed",
                  "[ServiceConnection:120] ServiceConnection::SendAsync, session 0000000000000003: (32) "
                  "Broken pipe",
                  &AgentWords::writeFailed},
        AgentSays{"Unknown", "[TunnelClient:224] Received data for unknown session 0000000000000003",
                  &AgentWords::forgotten},
        AgentSays{"CutOff", "[TunnelClient:323] Session 0000", nullptr}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(ReadsAgent, GreetingOfANewConnection) {
    EXPECT_TRUE(soak::ReadAgentLine("12:00:00 [TunnelClient:283] Tunnel server message: Welcome to the lab")
                    .isVerified);
}

}  // namespace
