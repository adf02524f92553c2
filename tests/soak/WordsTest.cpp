#include <gtest/gtest.h>

#include "soak/Words.h"

namespace {

using soak::AgentWords;
using Kind = soak::ServerLine::Kind;

TEST(WordsTest, TellsTheServersLinesApart) {
    const std::string id = "0000000000000017";
    const std::tuple<std::string, Kind, std::string> rows[] = {
        {"ready", Kind::Ready, ""},
        {"device lab-device-1 registered", Kind::Other, ""},
        {"device lab-device-1 connected", Kind::Connected, ""},
        {"device lab-device-1 disconnected: End of file", Kind::Disconnected, ""},
        {"session " + id + " lab-device-1 web opened", Kind::Opened, id},
        {"session " + id + " d web closed by lab, 1 bytes to device, 2 bytes from device", Kind::Closed, id},
        {"error client of d web turned away: the device is not connected", Kind::TurnedAway, ""},
        {"error device d: a frame of type 9", Kind::Error, ""},
        {"", Kind::Other, ""}};
    for (const auto& [line, kind, session] : rows) {
        EXPECT_EQ(soak::ReadServerLine(line).kind, kind) << line;
        EXPECT_EQ(soak::ReadServerLine(line).session, session) << line;
    }
    const auto words =
        soak::ReadServerLine(
            "session 1 d web closed by client, 123 bytes to device, 5000000000 bytes from device")
            .words;
    EXPECT_EQ(words.closedBy, "client");
    EXPECT_EQ(words.toDevice, 123U);
    EXPECT_EQ(words.fromDevice, 5000000000U);
}

TEST(WordsTest, KnowsWhatTheAgentSaysOfASession) {
    const std::string id = "0000000000000003";
    const std::string read = "[ServiceConnection:72] ServiceConnection::ListenToService, session " + id;
    const std::string write = "[ServiceConnection:120] ServiceConnection::SendAsync, session " + id;
    const std::pair<std::string, bool AgentWords::*> rows[] = {
        {"[TunnelClient:323] Session " + id + " ended", &AgentWords::endedByServer},
        {"[TunnelClient:328] Session " + id + " not found", nullptr},
        {read + ", (2) End of file", &AgentWords::serviceEnded},
        {read + ", (104) Connection reset by peer", &AgentWords::readFailed},
        {write + ": (32) Broken pipe", &AgentWords::writeFailed},
        {"[TunnelClient:224] Received data for unknown session " + id, &AgentWords::forgotten},
        {"[TunnelClient:323] Session 0000", nullptr},
        {"[TunnelClient:283] Tunnel server message: Welcome to the lab", nullptr}};
    for (const auto& [line, word] : rows) {
        const auto said = soak::ReadAgentLine("12:00:00.000 " + line);
        EXPECT_TRUE(said.word == word) << line;
        EXPECT_EQ(said.session, word ? id : "") << line;
        EXPECT_EQ(said.isVerified, line.find("Welcome") != std::string::npos) << line;
    }
}

}  // namespace
