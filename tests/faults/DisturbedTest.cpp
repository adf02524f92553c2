// The machine misbehaves around the running agent; it lives on, says what it has to say, and recovers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <sstream>

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

// Without descriptors the undefined-behaviour sanitizer cannot look at memory, and takes every object for a broken one.
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
    Cloud cloud([](support::Connection& tunnel) { says::Welcome(tunnel), tunnel.ReadToEnd(); }, limit);
    support::Process agent(cloud.Command("info", 1), Cloud::Environment(1));
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
        Shortage{"EventLoop", "/routes/add", 3, "Tunnel client error: eventfd_select_interrupter: Too many"},
        Shortage{"TunnelConnect", "/routes/add", 5, "[TunnelClient:112] Failed to connect: (125)"}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(DisturbedAgent, KeepsItsSessionsWhenThereIsNoDescriptorForAnother) {
    SKIP_WITHOUT_DESCRIPTORS();
    support::ScriptedServer one({RepeatAll}), two({RepeatAll});
    Running running;
    Cloud cloud([&](support::Connection& tunnel) {
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
    Cloud cloud([&](support::Connection& tunnel) {
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

TEST(DisturbedAgent, OutlivesTheFolderOfItsLog) {
    std::atomic<int> turns{0};
    Cloud cloud([&](support::Connection& tunnel) {
        says::Welcome(tunnel);
        ++turns;
        says::NoAddress(tunnel);
    });
    const auto logs = cloud.folder.Path() / "logs";
    std::filesystem::create_directory(logs);
    support::Process agent(cloud.Command("info", 1, logs / "agent"), Cloud::Environment(20));
    ASSERT_TRUE(Eventually([&] { return turns > 0; }));
    EXPECT_GT(std::filesystem::remove_all(logs), 1U) << "folder and log";
    const int removed = turns;
    EXPECT_TRUE(Eventually([&] { return turns > removed + 2; }));
    EXPECT_EQ(agent.Output() + agent.Errors(), "");
}

TEST(DisturbedAgent, GoesOnAfterBeingStoppedAcrossItsTimers) {
    support::ScriptedServer service({RepeatAll});
    Running running;
    Cloud cloud([&](support::Connection& tunnel) {
        says::Welcome(tunnel);
        says::NewSession(tunnel, first, service.Port());
        says::Echo(tunnel, first);
        running.Agent().Signal(SIGSTOP);
        std::this_thread::sleep_for(2s);  // fifty seconds to the agent: verification limit and heartbeat pass
        running.Agent().Signal(SIGCONT);
        while (support::ReadFrame(tunnel).type != lab::heartbeatFrame) continue;
        says::Echo(tunnel, first);
        says::NoAddress(tunnel);
    });
    support::Process agent(cloud.Command("error"), Cloud::Environment(25));
    running.agent = &agent;
    ASSERT_TRUE(Says(agent, "Tunnel client error"));
    EXPECT_EQ(Count(agent.Output(), "\n"), 2U)
        << agent.Output();  // LOG START and that: nothing else went wrong
}

// The log's own time of the first line with that text, in seconds of the day.
double TimeOf(const std::string& log, const std::string& text) {
    const auto at = log.find(text);
    EXPECT_NE(at, std::string::npos) << text << " is missing in\n" << log;
    if (at == std::string::npos) return 0;
    int hours = 0, minutes = 0;
    double seconds = 0;
    char colon = ':';
    std::istringstream(log.substr(log.rfind('\n', at) + 1)) >> hours >> colon >> minutes >> colon >> seconds;
    return hours * 3600 + minutes * 60 + seconds;
}

// A second may be missing, because the log reads two clocks for one line; ten are one of the machine's, that may stand
// still as long.
void ExpectDelay(const std::string& log, const std::string& from, const std::string& to, double seconds) {
    double lasted = TimeOf(log, to) - TimeOf(log, from);
    if (lasted < -1) lasted += 86400;
    EXPECT_GE(lasted, seconds - 1) << from << " to " << to;
    EXPECT_LE(lasted, seconds + 10) << from << " to " << to;
}

TEST(DisturbedAgent, WaitsAsLongAsDescribed) {
    support::ScriptedServer service({RepeatAll});
    std::atomic<int> connections{0};
    Cloud cloud([&](support::Connection& tunnel) {
        if (++connections == 1) return static_cast<void>(tunnel.ReadToEnd());
        says::Welcome(tunnel);
        says::NewSession(tunnel, first, service.Port());
        says::Echo(tunnel, first);
        support::WriteControl(tunnel, Cloud::password,
                              R"({"method":"end_session","session":")" + first + R"("})");
        while (support::ReadFrame(tunnel).type != lab::heartbeatFrame) continue;
        says::NoAddress(tunnel);
    });
    support::Process agent(cloud.Command("verbose"), Cloud::Environment(10));
    ASSERT_TRUE(Says(agent, "Tunnel client error"));
    const std::string log = agent.Output();
    ExpectDelay(log, "TunnelClient:115]", "Verification timeout", 15);
    ExpectDelay(log, "Verification timeout", "Closing tunnel server socket after timer delay", 5);
    ExpectDelay(log, "Session " + first + " ended", "Closing session " + first, 5);
    ExpectDelay(log, "Closing session " + first, "Stopping session " + first + " after timer delay", 5);
    const auto beat = log.find("[TunnelClient:448]");
    ExpectDelay(log, "[TunnelClient:448]", log.substr(log.find("[TunnelClient:448]", beat + 1) - 13, 12), 30);
}

TEST(DisturbedAgent, BeatsByTheMonotonicClock) {
    Running running;
    std::vector<std::chrono::steady_clock::time_point> beats;
    Cloud cloud([&](support::Connection& tunnel) {
        says::Welcome(tunnel);
        while (beats.size() < 3) {
            if (support::ReadFrame(tunnel).type != lab::heartbeatFrame) continue;
            beats.push_back(std::chrono::steady_clock::now());
            if (beats.size() == 1) running.Agent().Signal(SIGUSR1);  // the wall clock falls back
        }
        says::NoAddress(tunnel);
    });
    support::Process agent(cloud.Command("debug"), Cloud::Environment(50));
    running.agent = &agent;
    ASSERT_TRUE(Says(agent, "Tunnel client error")) << agent.Output();
    for (std::size_t i = 1; i < beats.size(); ++i) EXPECT_GE(beats[i] - beats[i - 1], 300ms) << i;
}

}  // namespace
