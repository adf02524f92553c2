// The machine misbehaves around the running agent, which logs the fault, lives on, and recovers.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <thread>
#include <tuple>

#include "tests/support/Cloud.h"
#include "tests/support/Eventually.h"
#include "tests/support/InTime.h"
#include "tests/support/LogText.h"
#include "tests/support/Process.h"

namespace {

using namespace std::chrono_literals;
using namespace support;

const std::string second = "session-00000002";
const std::string ready = "Sending heartbeat";

/// The agent, for servers that are there before it.
struct Running {
    Process& Agent() const {
        while (agent == nullptr) std::this_thread::yield();
        return *agent;
    }
    std::atomic<Process*> agent{nullptr};
};

void Limit(const Process& agent, __rlimit_resource what, rlim_t limit) {
    rlimit now{};
    ASSERT_EQ(prlimit(agent.Pid(), what, nullptr, &now), 0) << errno;
    now.rlim_cur = limit;
    ASSERT_EQ(prlimit(agent.Pid(), what, &now, nullptr), 0) << errno;
}

bool Says(const Process& agent, const std::string& text) {
    return Eventually([&] { return agent.Output().find(text) != std::string::npos; });
}

// Without descriptors the undefined-behaviour sanitizer cannot look at memory, and takes every object for a
// broken one.
#ifdef __SANITIZE_ADDRESS__
#define SKIP_WITHOUT_DESCRIPTORS() GTEST_SKIP() << "the sanitizer itself needs descriptors"
#else
#define SKIP_WITHOUT_DESCRIPTORS() static_cast<void>(0)
#endif

struct Shortage {
    const char* name;
    const char* request;  // when it is being answered,
    rlim_t descriptors;   // the agent, which holds three, may have so many
    const char* says;
};
class NoDescriptors : public testing::TestWithParam<Shortage> {};

TEST_P(NoDescriptors, EndsTheTurnUntilThereAreSome) {
    SKIP_WITHOUT_DESCRIPTORS();
    Running running;
    std::atomic<bool> scarce{true};
    const auto limit = [&](const std::string& request) {
        if (scarce && request.find(GetParam().request) != std::string::npos)
            Limit(running.Agent(), RLIMIT_NOFILE, GetParam().descriptors);
    };
    Cloud cloud([](Connection& tunnel) { Accept(tunnel), tunnel.ReadToEnd(); }, limit);
    Process agent(cloud.Command("info", 1), cloud.Environment(1));
    running.agent = &agent;
    EXPECT_TRUE(Says(agent, GetParam().says)) << agent.Output() << agent.Errors();
    scarce = false;
    Limit(agent, RLIMIT_NOFILE, 100);
    EXPECT_TRUE(Says(agent, ready)) << agent.Output();
}

INSTANTIATE_TEST_SUITE_P(
    Places, NoDescriptors,
    testing::Values(
        Shortage{"Sso", "\"data\"", 3, "Discovery failed: eventfd_select_interrupter: Too many open files"},
        Shortage{"Http", "token", 3, "Curl error, code: "},
        Shortage{"EventLoop", "\"ssh\"", 3, "Tunnel client error: eventfd_select_interrupter: Too many"},
        Shortage{"TunnelConnect", "\"ssh\"", 5, "[TunnelClient:112] Failed to connect: (125)"}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(DisturbedAgent, KeepsItsSessionsWhenThereIsNoDescriptorForAnother) {
    SKIP_WITHOUT_DESCRIPTORS();
    ScriptedServer one({RepeatAll}), two({RepeatAll});
    Running running;
    Cloud cloud([&](Connection& tunnel) {
        Accept(tunnel);
        NewSession(tunnel, one.Port());
        Echo(tunnel);
        Limit(running.Agent(), RLIMIT_NOFILE, 3);
        NewSession(tunnel, two.Port(), second);
        EXPECT_THROW(Echo(tunnel, second), std::runtime_error) << "the server is told";
        Echo(tunnel);
        Limit(running.Agent(), RLIMIT_NOFILE, 100);
        NewSession(tunnel, two.Port(), "session-00000003");
        Echo(tunnel, "session-00000003");
        EndTheRun(tunnel);
    });
    Process agent(cloud.Command("error"), cloud.Environment(1));
    running.agent = &agent;
    ASSERT_TRUE(Says(agent, "Tunnel client error"));
    EXPECT_EQ(Count(agent.Output(), "ServiceConnection::Connect: (24) Too many open files"), 1U);
}

TEST(DisturbedAgent, OutlivesAFullDiskAndWritesAgain) {
    std::atomic<int> turns{0};
    Cloud cloud([&](Connection& tunnel) {
        Accept(tunnel);
        ++turns;
        EndTheRun(tunnel);
        tunnel.ReadToEnd();
    });
    Process agent(cloud.Command("info", 1), cloud.Environment(20));
    ASSERT_TRUE(Says(agent, ready));
    Limit(agent, RLIMIT_FSIZE, 10);
    const int full = turns;
    EXPECT_TRUE(Eventually([&] { return turns > full + 2 || !agent.IsRunning(); }));
    const std::size_t written = agent.Output().size();
    Limit(agent, RLIMIT_FSIZE, RLIM_INFINITY);
    EXPECT_TRUE(Eventually([&] { return agent.Output().find(ready, written + 10) != std::string::npos; }));
    EXPECT_TRUE(agent.IsRunning());
}

TEST(DisturbedAgent, OutlivesTheFolderOfItsLog) {
    std::atomic<int> turns{0};
    Cloud cloud([&](Connection& tunnel) {
        Accept(tunnel);
        ++turns;
        EndTheRun(tunnel);
    });
    const auto logs = cloud.folder.Path() / "logs";
    std::filesystem::create_directory(logs);
    Process agent(cloud.Command("info", 1, logs / "agent"), cloud.Environment(20));
    ASSERT_TRUE(Eventually([&] { return turns > 0; }));
    EXPECT_GT(std::filesystem::remove_all(logs), 1U) << "folder and log";
    const int removed = turns;
    EXPECT_TRUE(Eventually([&] { return turns > removed + 2; }));
    EXPECT_EQ(agent.Output() + agent.Errors(), "");
}

TEST(DisturbedAgent, GoesOnAfterBeingStoppedAcrossItsTimers) {
    const auto attempt = [](int scale) {
        ScriptedServer service(Always(RepeatAll));
        Running running;
        Cloud cloud([&](Connection& tunnel) {
            Accept(tunnel);
            NewSession(tunnel, service.Port());
            Echo(tunnel);
            running.Agent().Signal(SIGSTOP);
            // Fifty seconds to the agent: the verification limit and a heartbeat pass.
            std::this_thread::sleep_for(scale * 2s);
            running.Agent().Signal(SIGCONT);
            AwaitHeartbeat(tunnel);
            Echo(tunnel);
            EndTheRun(tunnel);
        });
        Process agent(cloud.Command("error"), cloud.Environment(25.0 / scale));
        running.agent = &agent;
        EXPECT_TRUE(Says(agent, "Tunnel client error"));
        const std::string log = agent.Output();
        return Count(log, "\n") == 2 ? "nothing else went wrong" : log;  // behind LOG START
    };
    ExpectInTime(std::string("nothing else went wrong"), attempt);
}

// Which delays are not as described, of those from one line of the log to another. A second may be missing,
// because the log reads two clocks for one line; ten more are a moment in which the machine stood still.
std::string WrongDelays(const std::string& log) {
    const std::string beat = "[TunnelClient:448]";
    const auto nextBeat = log.find(beat, log.find(beat) + 1);
    if (nextBeat == std::string::npos) return "no second heartbeat in\n" + log;
    const std::tuple<std::string, std::string, int> delays[] = {
        {"TunnelClient:115]", "Verification timeout", 15},
        {"Verification timeout", "Closing tunnel server socket after timer delay", 5},
        {"Session " + sessionId + " ended", "Closing session " + sessionId, 5},
        {"Closing session " + sessionId, "Stopping session " + sessionId + " after timer delay", 5},
        {beat, log.substr(nextBeat - 13, 12), 30}};
    std::string wrong;
    for (const auto& [from, to, seconds] : delays) {
        const double lasted = SecondsBetween(log, from, to);
        if (lasted >= seconds - 1 && lasted <= seconds + 10) continue;
        wrong += std::to_string(lasted) + " from " + from + " to " + to + "\n";
    }
    return wrong;
}

TEST(DisturbedAgent, WaitsAsLongAsDescribed) {
    const auto attempt = [](int scale) {
        ScriptedServer service(Always(RepeatAll));
        std::atomic<int> connections{0};
        Cloud cloud([&](Connection& tunnel) {
            if (++connections == 1) return static_cast<void>(tunnel.ReadToEnd());
            Accept(tunnel);
            NewSession(tunnel, service.Port());
            Echo(tunnel);
            EndSession(tunnel);
            AwaitHeartbeat(tunnel);
            EndTheRun(tunnel);
        });
        Process agent(cloud.Command("verbose"), cloud.Environment(20.0 / scale));
        EXPECT_TRUE(Says(agent, "Tunnel client error"));
        return WrongDelays(agent.Output());
    };
    ExpectInTime(std::string(), attempt);
}

// A second of the agent's monotonic clock is 20 ms of ours. The first of the beats follows the welcome.
TEST(DisturbedAgent, BeatsByTheMonotonicClock) {
    Running running;
    std::atomic<std::chrono::steady_clock::duration> lasted{};
    Cloud cloud([&](Connection& tunnel) {
        const auto begin = std::chrono::steady_clock::now();
        Accept(tunnel);
        AwaitHeartbeat(tunnel);
        running.Agent().Signal(SIGUSR1);  // the wall clock falls back
        for (int beat = 0; beat < 3; ++beat) AwaitHeartbeat(tunnel);
        lasted = std::chrono::steady_clock::now() - begin;
        EndTheRun(tunnel);
    });
    Process agent(cloud.Command("debug"), cloud.Environment(50, {}, {FAIL_NTH_LIBRARY}));
    running.agent = &agent;
    ASSERT_TRUE(Says(agent, "Tunnel client error")) << agent.Output();
    EXPECT_GE(lasted.load(), 3 * 550ms);
}

}  // namespace
