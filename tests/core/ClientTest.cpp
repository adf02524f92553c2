#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/ClosedPort.h"
#include "tests/support/Eventually.h"
#include "tests/support/Process.h"

namespace {

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

TEST(ClientTest, LogsTurnAfterTurnIntoTheConfiguredFileWhoeverHangsUp) {
    const support::TemporaryFolder folder;
    const support::ClosedPort nobody;
    const std::string config = folder.Write(
        "config.json", R"({"ssoService":{"type":"local-socket","port":)" + std::to_string(nobody.Port()) +
                           R"(},"tunnel":{"routes":[],"log_path":")" + (folder.Path() / "agent").string() +
                           R"("},"timers":{"registrationReconnect":0}})");
    support::Process client({TUNNEL_CLIENT, config}, {"DEVICE_TYPE=recorder", "DEVICE_NAME=Lobby"});
    const auto log = [&folder] {
        for (const auto& file : std::filesystem::directory_iterator(folder.Path()))
            if (file.path().extension() == ".log") return support::ReadFile(file.path());
        return std::string();
    };
    const auto hasFailedAfter = [&log](std::size_t bytes) {
        return log().find("[client:219] Tunnel client error: Discovery failed\n", bytes) != std::string::npos;
    };
    EXPECT_TRUE(support::Eventually([&] { return hasFailedAfter(0); }));
    EXPECT_THAT(log(),
                testing::ContainsRegex(
                    "^LOG START [^\n]*\n[0-9:.]* \\[client:196\\] Tunnel client version: 2024\\.07\\.19\n"));
    client.Signal(SIGPIPE);
    const std::size_t size = log().size();
    EXPECT_TRUE(support::Eventually([&] { return hasFailedAfter(size + 10000); }));
    EXPECT_EQ(client.Output() + client.Errors(), "");
}

}  // namespace
