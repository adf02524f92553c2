// The machine misbehaves around the running agent; it lives on, says what it has to say, and recovers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>

#include "tests/faults/Cloud.h"
#include "tests/support/Eventually.h"
#include "tests/support/Process.h"

namespace {

using namespace std::chrono_literals;
using support::Eventually;
using testing::HasSubstr;

const std::string first = "session-00000001", second = "session-00000002";
const std::string ready = "Sending heartbeat";

/// The agent, for servers that are there before it.
struct Running {
    support::Process& Agent() const {
        while (agent == nullptr) std::this_thread::yield();
        return *agent;
    }
    std::atomic<support::Process*> agent{nullptr};
};

void Limit(const support::Process& agent, __rlimit_resource what, rlim_t limit) {
    rlimit now{};
    ASSERT_EQ(prlimit(agent.Pid(), what, nullptr, &now), 0) << errno;
    now.rlim_cur = limit;
    ASSERT_EQ(prlimit(agent.Pid(), what, &now, nullptr), 0) << errno;
}

bool Says(const support::Process& agent, const std::string& text) {
    return Eventually([&] { return agent.Output().find(text) != std::string::npos; });
}

std::size_t Count(const std::string& log, const std::string& text) {
    std::size_t count = 0;
    for (auto at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++count;
    return count;
}

TEST(DisturbedAgent, KeepsItsSessionsWhenThereIsNoDescriptorForAnother) {
#ifdef __SANITIZE_ADDRESS__
    // The undefined-behaviour sanitizer looks at memory through descriptors, and takes every object for a broken one.
    GTEST_SKIP() << "the sanitizer itself needs descriptors";
#endif
    lab::ScriptedServer one({RepeatAll}), two({RepeatAll});
    Running running;
    Cloud cloud([&](lab::Connection& tunnel) {
        says::Welcome(tunnel);
        says::NewSession(tunnel, first, one.Port());
        says::Echo(tunnel, first);
        Limit(running.Agent(), RLIMIT_NOFILE, 3);
        says::NewSession(tunnel, second, two.Port());
        EXPECT_THROW(says::Echo(tunnel, second), std::runtime_error) << "the server is told";
        says::Echo(tunnel, first);
        Limit(running.Agent(), RLIMIT_NOFILE, 100);
        says::NewSession(tunnel, "session-00000003", two.Port());
        says::Echo(tunnel, "session-00000003");
        says::NoAddress(tunnel);
    });
    support::Process agent(cloud.Command("error"), Cloud::Environment(1));
    running.agent = &agent;
    ASSERT_TRUE(Says(agent, "Tunnel client error"));
    EXPECT_EQ(Count(agent.Output(), "ServiceConnection::Connect: (24) Too many open files"), 1U);
}

TEST(DisturbedAgent, OutlivesAFullDiskAndWritesAgain) {
    std::atomic<int> turns{0};
    Cloud cloud([&](lab::Connection& tunnel) {
        says::Welcome(tunnel);
        ++turns;
        says::NoAddress(tunnel);
        tunnel.ReadToEnd();
    });
    support::Process agent(cloud.Command("info", 1), Cloud::Environment(20));
    ASSERT_TRUE(Says(agent, ready));
    Limit(agent, RLIMIT_FSIZE, 10);
    const int full = turns;
    EXPECT_TRUE(Eventually([&] { return turns > full + 2 || !agent.IsRunning(); }));
    const std::size_t written = agent.Output().size();
    Limit(agent, RLIMIT_FSIZE, RLIM_INFINITY);
    EXPECT_TRUE(Eventually([&] { return agent.Output().size() > written + 2000 || !agent.IsRunning(); }));
    EXPECT_THAT(agent.Output().substr(written + 1000), HasSubstr("[TunnelClient:448] " + ready));
    EXPECT_TRUE(agent.IsRunning());
}

TEST(DisturbedAgent, GoesOnAfterBeingStoppedAcrossItsTimers) {
    lab::ScriptedServer service({RepeatAll});
    Running running;
    Cloud cloud([&](lab::Connection& tunnel) {
        says::Welcome(tunnel);
        says::NewSession(tunnel, first, service.Port());
        says::Echo(tunnel, first);
        running.Agent().Signal(SIGSTOP);
        std::this_thread::sleep_for(1s);  // fifty seconds to the agent: verification limit and heartbeat pass
        running.Agent().Signal(SIGCONT);
        while (lab::ReadFrame(tunnel).type != lab::heartbeatFrame) continue;
        says::Echo(tunnel, first);
        says::NoAddress(tunnel);
    });
    support::Process agent(cloud.Command("error"), Cloud::Environment(50));
    running.agent = &agent;
    ASSERT_TRUE(Says(agent, "Tunnel client error"));
    EXPECT_EQ(Count(agent.Output(), "\n"), 2U)
        << agent.Output();  // LOG START and that: nothing else went wrong
}

TEST(DisturbedAgent, BeatsByTheMonotonicClock) {
    Running running;
    std::vector<std::chrono::steady_clock::time_point> beats;
    Cloud cloud([&](lab::Connection& tunnel) {
        says::Welcome(tunnel);
        while (beats.size() < 3) {
            if (lab::ReadFrame(tunnel).type != lab::heartbeatFrame) continue;
            beats.push_back(std::chrono::steady_clock::now());
            if (beats.size() == 1) running.Agent().Signal(SIGUSR1);  // the wall clock falls back
        }
        says::NoAddress(tunnel);
    });
    support::Process agent(cloud.Command("debug"), Cloud::Environment(100));
    running.agent = &agent;
    ASSERT_TRUE(Says(agent, "Tunnel client error")) << agent.Output();
    for (std::size_t i = 1; i < beats.size(); ++i) EXPECT_GE(beats[i] - beats[i - 1], 200ms) << i;
}

}  // namespace
