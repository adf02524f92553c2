// The start script for devices without systemd, run by BusyBox with BusyBox's tools alone, and the real
// agent.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/Eventually.h"
#include "tests/support/Process.h"

namespace {

using support::Eventually;
using support::ReadFile;

class StartScript : public testing::Test {
protected:
    StartScript() {
        std::filesystem::create_directory(tools);
        support::Process({"/usr/bin/busybox", "--install", "-s", tools}).Wait();
        folder.Write("agent",
                     "#!/bin/sh\necho started >>" + Path("starts") + "\nexec " AGENT_PROGRAM " \"$1\"\n");
        std::filesystem::permissions(Path("agent"), std::filesystem::perms::owner_all);
        folder.Write("environment", "DEVICE_TYPE=recorder\nDEVICE_NAME=one\n");
        Configure(R"({"ssoService":{"type":"local-socket","port":9},"tunnel":{"routes":[]}})");
    }
    ~StartScript() override { Run("stop"); }

    void Configure(const std::string& json) const { folder.Write("agent.json", json); }
    int Run(const std::string& command) const {
        support::Process script(
            {tools + "/sh", PACKAGING_FOLDER "/sysv/tunnel-client", command},
            {"PATH=" + tools, "DAEMON=" + Path("agent"), "CONFIG=" + Path("agent.json"),
             "ENVIRONMENT=" + Path("environment"), "PIDFILE=" + Path("pid"), "RESTART_SECONDS=0"});
        return script.Wait().value_or(-1);
    }
    std::string Path(const std::string& name) const { return (folder.Path() / name).string(); }
    // The agent that the script has started; 0 while there is none.
    pid_t Agent() const {
        const std::string commandLine = std::string(AGENT_PROGRAM) + '\0' + Path("agent.json") + '\0';
        for (const auto& entry : std::filesystem::directory_iterator("/proc"))
            if (ReadFile(entry.path() / "cmdline") == commandLine) return std::stoi(entry.path().filename());
        return 0;
    }
    pid_t AwaitOtherAgentThan(pid_t before) const {
        pid_t agent = 0;
        EXPECT_TRUE(Eventually([&] { return (agent = Agent()) != 0 && agent != before; }));
        return agent;
    }

    support::TemporaryFolder folder;
    std::string tools = Path("tools");
};

TEST_F(StartScript, StartsAndStopsOneAgent) {
    EXPECT_EQ(Run("status"), 3);
    EXPECT_EQ(Run("start"), 0);
    const pid_t agent = AwaitOtherAgentThan(0);
    EXPECT_EQ(Run("status"), 0);
    EXPECT_EQ(Run("start"), 0);
    EXPECT_EQ(Agent(), agent) << "started twice";
    EXPECT_EQ(Run("stop"), 0);
    EXPECT_TRUE(Eventually([&] { return Agent() == 0; }));
    EXPECT_EQ(Run("status"), 3);
    EXPECT_EQ(Run("reload"), 2);
}

TEST_F(StartScript, StartsAnAgentAgainThatWasKilled) {
    ASSERT_EQ(Run("start"), 0);
    const pid_t first = AwaitOtherAgentThan(0);
    ASSERT_GT(first, 0);
    kill(first, SIGKILL);
    EXPECT_GT(AwaitOtherAgentThan(first), 0);
}

TEST_F(StartScript, GivesUpWhenTheConfigurationIsBad) {
    Configure("{");
    ASSERT_EQ(Run("start"), 0);
    const auto hasGivenUp = [&] {
        return !ReadFile(Path("starts")).empty() && !std::filesystem::exists(Path("pid"));
    };
    EXPECT_TRUE(Eventually(hasGivenUp));
    EXPECT_EQ(ReadFile(Path("starts")), "started\n");
    EXPECT_EQ(Run("status"), 3);
}

TEST_F(StartScript, SaysWhatIsMissing) {
    std::filesystem::remove(Path("agent.json"));
    EXPECT_EQ(Run("start"), 1);
    EXPECT_EQ(Agent(), 0);
}

}  // namespace
