#include <gtest/gtest.h>

#include "soak/Words.h"

namespace {

using soak::AgentWords;
using Kind = soak::ServerLine::Kind;

TEST(WordsTest, TellsTheServersLinesApart) {
    const std::tuple<std::string, Kind, std::string> rows[] = {
        {"device d registered", Kind::Other, ""},
        {"device d connected", Kind::Connected, ""},
        {"device d disconnected: End of file", Kind::Disconnected, ""},
        {"session 17 d web opened", Kind::Opened, "17"},
        {"error client of d web turned away: the device is not connected", Kind::TurnedAway, ""},
        {"error device d: a frame of type 9", Kind::Error, ""}};
    for (const auto& [line, kind, session] : rows) {
        EXPECT_EQ(soak::ReadServerLine(line).kind, kind) << line;
        EXPECT_EQ(soak::ReadServerLine(line).session, session) << line;
    }
    const auto closed = soak::ReadServerLine(
        "session 17 d web closed by lab, 123 bytes to device, 5000000000 bytes from device");
    EXPECT_TRUE(closed.kind == Kind::Closed && closed.session == "17" && closed.words.closedBy == "lab");
    EXPECT_TRUE(closed.words.toDevice == 123 && closed.words.fromDevice == 5000000000);
}

TEST(WordsTest, FindsTheSessionInTheAgentsLines) {
    const std::string id = "0000000000000003";
    const std::pair<std::string, bool AgentWords::*> rows[] = {
        {"[TunnelClient:323] Session " + id + " ended", &AgentWords::endedByServer},
        {"[TunnelClient:328] Session " + id + " not found", nullptr},
        {"ServiceConnection::ListenToService, session " + id + ", (2) End of file",
         &AgentWords::serviceEnded},
        {"ServiceConnection::ListenToService, session " + id + ", (104) Reset", &AgentWords::readFailed},
        {"ServiceConnection::SendAsync, session " + id + ": (32) Broken pipe", &AgentWords::writeFailed},
        {"[TunnelClient:224] Received data for unknown session " + id, &AgentWords::forgotten},
        {"[TunnelClient:283] Tunnel server message: Welcome to the lab", nullptr}};
    for (const auto& [line, word] : rows) {
        const auto read = soak::ReadAgentLine("12:00:00.000 " + line);
        EXPECT_TRUE(read.word == word && read.session == (word ? id : "")) << line;
        EXPECT_EQ(read.isVerified, line.find("Welcome") != std::string::npos) << line;
    }
}

}  // namespace
