#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <filesystem>

#include "tests/support/ClosedPort.h"
#include "tests/support/Eventually.h"
#include "tests/support/Process.h"
#include "tests/support/ScriptedServer.h"

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

TEST(ClientTest, RefusesWithTheSameStatusWhenNobodyReadsItsStandardError) {
    const support::TemporaryFolder folder;
    const std::string pipe = folder.Path() / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    // Descriptor 3 reads the pipe until standard error is open for writing; then the pipe has no reader.
    support::Process client(
        {"/bin/sh", "-c", "exec 3<>" + pipe + " 2>" + pipe + " 3>&-; exec " TUNNEL_CLIENT});
    EXPECT_EQ(client.Wait(), 1);
}

/// How often the process has given up the processor by itself, as a sleep does; -1 when it has ended.
long Waits(const support::Process& process) {
    const std::string status = support::ReadFile("/proc/" + std::to_string(process.Pid()) + "/status");
    const std::string name = "\nvoluntary_ctxt_switches:";
    const std::size_t at = status.find(name);
    return at == std::string::npos ? -1 : std::stol(status.substr(at + name.size()));
}

const std::vector<std::string> device = {"DEVICE_TYPE=recorder", "DEVICE_NAME=Lobby"};

std::string Write(const support::TemporaryFolder& folder, unsigned short ssoPort, const std::string& log,
                  int pause) {
    return folder.Write("config.json", R"({"ssoService":{"type":"local-socket","port":)" +
                                           std::to_string(ssoPort) + R"(},"tunnel":{"routes":[],)" + log +
                                           R"(},"timers":{"registrationReconnect":)" + std::to_string(pause) +
                                           "}}");
}

TEST(ClientTest, PausesBetweenTurnsAndLogsWhatItsLevelAllows) {
    using Clock = std::chrono::steady_clock;
    const std::pair<const char*, const char*> rows[] = {
        {"off", "^$"},
        {"error",
         "^LOG START [^\n]*\n[^\n]* Discovery failed: [^\n]*\n[^\n]* \\[client:219\\] Tunnel client error: "},
        {"warning", "^LOG START [^\n]*\n[^\n]* MAC address too short for AVL id\n"}};
    for (const auto& [level, log] : rows) {
        const support::TemporaryFolder folder;
        std::vector<Clock::time_point> turns;
        const support::Conversation hangUp = [&](support::Connection&) { turns.push_back(Clock::now()); };
        support::ScriptedServer sso({hangUp, hangUp});
        support::Process client(
            {TUNNEL_CLIENT, Write(folder, sso.Port(), R"("log_level":")" + std::string(level) + '"', 1)},
            device);
        sso.Finish();
        EXPECT_GE(turns[1] - turns[0], std::chrono::milliseconds(990)) << level;
        EXPECT_THAT(client.Output(), testing::ContainsRegex(log));
        EXPECT_EQ(client.Errors(), "");
    }
}

TEST(ClientTest, LogsTurnAfterTurnIntoTheConfiguredFileWhoeverHangsUp) {
    const support::TemporaryFolder folder;
    const support::ClosedPort nobody;
    const std::string path = R"("log_path":")" + (folder.Path() / "agent").string() + '"';
    support::Process client({TUNNEL_CLIENT, Write(folder, nobody.Port(), path, 0)}, device);
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
    for (const int number : {SIGPIPE, SIGXFSZ}) client.Signal(number);
    const std::size_t size = log().size();
    EXPECT_TRUE(support::Eventually([&] { return hasFailedAfter(size + 50000); }));
    // A pause of no length does not sleep. A turn logs four lines; the agent waits in hardly any of them.
    const auto waits = Waits(client);
    const std::string lines = log();
    EXPECT_GE(waits, 0);
    EXPECT_LT(8 * waits, std::count(lines.begin(), lines.end(), '\n'));
    EXPECT_EQ(client.Output() + client.Errors(), "");
}

}  // namespace
