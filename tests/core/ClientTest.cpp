#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "core/Cycle.h"
#include "tests/support/ClosedPort.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Process.h"

using namespace nox::tunnel_client;
using support::ReadFile;

namespace {

const std::string failedTurn = "[client:219] Tunnel client error: Discovery failed";

TEST(RunTurnTest, LogsAFailureAndReturns) {
    const support::LogCapture log(logError);
    support::ClosedPort nobody;
    RegistrationConfig configuration;
    configuration.ssoHost = "127.0.0.1";
    configuration.ssoPort = nobody.Port();
    RegistrationClient registration(configuration);
    TunnelConfig tunnel;
    for (std::size_t turn = 1; turn <= 3; ++turn) {
        RunTurn(registration, tunnel);
        EXPECT_EQ(log.Lines().back(), failedTurn);
        EXPECT_EQ(log.Count("Tunnel client error: Discovery failed"), turn);
    }
}

TEST(ClientTest, RefusesABadConfigurationOnStandardErrorOnly) {
    const std::pair<std::vector<std::string>, const char*> rows[] = {
        {{TUNNEL_CLIENT}, "Missing argument - JSON config file"},
        {{TUNNEL_CLIENT, "/nonexistent/config.json"}, "Input is not a valid object"}};
    for (const auto& [arguments, complaint] : rows) {
        support::Process client(arguments);
        EXPECT_EQ(client.Wait(), 1);
        EXPECT_EQ(client.Errors(), std::string("Invalid configuration - exiting: ") + complaint + "\n");
        EXPECT_EQ(client.Output(), "");
    }
}

class RunningClient : public testing::Test {
protected:
    /// Starts the agent with these members in its "tunnel" section, no pause between turns,
    /// and no SSO service.
    support::Process Start(const std::string& members) const {
        const std::string file =
            folder.Write("config.json", R"({"ssoService":{"type":"local-socket","port":)" +
                                            std::to_string(nobody.Port()) + R"(},"tunnel":{"routes":[],)" +
                                            members + R"(},"timers":{"registrationReconnect":0}})");
        return support::Process({TUNNEL_CLIENT, file}, {"DEVICE_TYPE=recorder", "DEVICE_NAME=Lobby"});
    }
    std::string LogFile() const {
        for (const auto& file : std::filesystem::directory_iterator(folder.Path())) {
            if (file.path().extension() == ".log") return ReadFile(file.path());
        }
        return "";
    }
    static std::size_t CountFailedTurns(const std::string& log) {
        std::size_t count = 0;
        for (std::size_t at = 0; (at = log.find(failedTurn, at)) != std::string::npos; ++at) ++count;
        return count;
    }
    const std::string opening =
        "^LOG START [^\n]*\n[0-9:.]* \\[client:196\\] Tunnel client version: 2024\\.07\\.19\n";
    const support::TemporaryFolder folder;
    support::ClosedPort nobody;
};

TEST_F(RunningClient, TurnsForEverEvenWhenTheReaderOfItsLogHangsUp) {
    support::Process client = Start(R"("log_level":"info")");
    const auto hasFailed = [&client](std::size_t times) {
        return CountFailedTurns(client.Output()) >= times;
    };
    EXPECT_TRUE(support::Eventually([&] { return hasFailed(3); }));
    EXPECT_THAT(client.Output(), testing::ContainsRegex(opening));
    client.Signal(SIGPIPE);
    const std::size_t turns = CountFailedTurns(client.Output());
    const std::size_t descriptors = client.Descriptors();
    EXPECT_TRUE(support::Eventually([&] { return hasFailed(turns + 50); }));
    EXPECT_LE(client.Descriptors(), descriptors + 5)
        << "one turn may be under way, all others must leave nothing";
    EXPECT_EQ(client.Errors(), "");
}

TEST_F(RunningClient, LogsIntoTheConfiguredFile) {
    support::Process client = Start(R"("log_path":")" + (folder.Path() / "agent").string() + "\"");
    EXPECT_TRUE(support::Eventually([&] { return CountFailedTurns(LogFile()) > 0; }));
    EXPECT_THAT(LogFile(), testing::ContainsRegex(opening));
    EXPECT_EQ(client.Output() + client.Errors(), "");
}

}  // namespace
