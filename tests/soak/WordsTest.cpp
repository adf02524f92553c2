#include <gtest/gtest.h>

#include "soak/Words.h"

namespace {

using soak::AgentWords;

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
