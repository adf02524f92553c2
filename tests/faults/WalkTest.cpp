// Every call that the agent makes of the system fails once, in a run of several connections and two turns.
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <netdb.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>

#include "tests/support/Cloud.h"
#include "tests/support/Eventually.h"
#include "tests/support/Process.h"

namespace {

struct Fault {
    const char* call;
    int error;
    bool closely = false;  // tried at more places, where single calls of few matter
};
void PrintTo(const Fault& fault, std::ostream* out) { *out << fault.call; }

class AgentOutlives : public testing::TestWithParam<Fault> {};

// The life that is disturbed. Each stage takes a connection of its own, and is begun again
// when the fault spoils it.
class Stages {
public:
    void Play(support::Connection& agent) {
        ++begun;
        support::Accept(agent);
        if (!Over()) {
            support::NewSession(agent, service.Port());
            support::Echo(agent);
        }
        if (done++ == 0) {
            // Ended in order: the session's ten seconds pass before the heartbeat, the connection's after it.
            support::EndSession(agent);
            support::AwaitHeartbeat(agent);
        } else {
            support::EndTheRun(agent);  // the session still open
            agent.ReadToEnd();
        }
    }
    bool Over() const { return done > 2; }
    /// One fault spoils one stage or two. When more are, the agent's clock is too fast for this machine.
    bool AreHurried() const { return begun > 20; }

private:
    std::atomic<int> begun{0}, done{0};
    support::ScriptedServer service{support::Always(support::RepeatAll)};
};

// Those of the agent itself: the library that quickens its clock keeps some of its own.
std::size_t Descriptors(pid_t pid) {
    std::error_code gone;
    std::size_t count = 0;
    for (const auto& entry :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", gone)) {
        const std::string target = std::filesystem::read_symlink(entry, gone);
        if (target.find("faketime") == std::string::npos) ++count;
    }
    return count;
}

// Before it registers, the process may end as described: by a configuration that it could not read, or in the
// constructor of the registration client, which nothing catches. That logs nothing but its MAC address.
bool MayEnd(const std::string& log, const std::string& errors, int status) {
    if (status == 1)
        return log.empty() && errors.find("Invalid configuration - exiting: ") != std::string::npos;
    return status == -SIGABRT && log.find("client:196") != std::string::npos &&
           log.find("Requesting discovery") == std::string::npos;
}

enum class Outcome { Survived, NeverCalled, Hurried };

Outcome Survive(const Fault& fault, long at, int speed) {
    Stages stages;
    support::Cloud cloud([&](support::Connection& agent) { stages.Play(agent); });
    support::Process agent(
        cloud.Command("verbose"),
        cloud.Environment(speed,
                          {std::string("FAIL_CALL=") + fault.call, "FAIL_AT=" + std::to_string(at),
                           "FAIL_ERRNO=" + std::to_string(fault.error)},
                          {FAIL_NTH_LIBRARY}));
    // Between two turns it holds its standard descriptors and nothing else.
    const auto isOver = [&] { return stages.Over() && Descriptors(agent.Pid()) == 3; };
    const bool ends = support::Eventually(
        [&] { return !agent.IsRunning() || isOver() || (!stages.Over() && stages.AreHurried()); });
    if (agent.IsRunning() && !stages.Over() && stages.AreHurried()) return Outcome::Hurried;
    const bool fired = agent.Errors().find("the chosen call fails") != std::string::npos;
    if (!ends) ADD_FAILURE() << "hangs, or keeps " << Descriptors(agent.Pid()) << " descriptors";
    agent.Signal(SIGTERM);  // orderly, for the leak checker
    const int status = agent.Wait().value_or(-SIGKILL);
    EXPECT_TRUE(status == 0 || MayEnd(agent.Output(), agent.Errors(), status))
        << "ended with " << status << "\n"
        << agent.Errors();
    if (testing::Test::HasFailure()) ADD_FAILURE() << fault.call << " " << at << "\n" << agent.Output();
    return fired ? Outcome::Survived : Outcome::NeverCalled;
}

// @return whether the agent made so many calls at all
bool Survives(const Fault& fault, long at) {
    for (const int speed : {200, 50, 12, 3}) {
        const Outcome outcome = Survive(fault, at, speed);
        if (outcome != Outcome::Hurried) return outcome == Outcome::Survived;
    }
    ADD_FAILURE() << fault.call << " " << at << ": no stage comes to its end";
    return false;
}

// In steps of FAIL_STEP from FAIL_FIRST on, as the script asks for; otherwise ever fewer, to save time. Only
// a walk that begins behind the first call may find nothing.
void Walk(const Fault& fault) {
    const char* step = std::getenv("FAIL_STEP");
    const char* first = std::getenv("FAIL_FIRST");
    const auto next = [&](long at) {
        if (step != nullptr) return at + std::atol(step);
        return fault.closely ? at + at / 3 + 1 : at * 4;
    };
    const long begin = first != nullptr ? std::atol(first) : 1;
    long at = begin, walked = 0;
    for (; Survives(fault, at) && !testing::Test::HasFailure(); at = next(at)) ++walked;
    EXPECT_TRUE(walked > 0 || begin > 1) << "the agent never calls " << fault.call;
    std::cout << fault.call << ": " << walked << " faults, the last call is before number " << at
              << std::endl;
}

TEST_P(AgentOutlives, EachCallThatFails) { Walk(GetParam()); }

TEST(Walk, FailsWhenItMadeNothingFail) {
    if (std::getenv("FAIL_FIRST") != nullptr) GTEST_SKIP() << "for a walk from the first call on";
    EXPECT_NONFATAL_FAILURE(Walk({"no_such_call", EIO}), "the agent never calls no_such_call");
}

INSTANTIATE_TEST_SUITE_P(
    Calls, AgentOutlives,
    testing::Values(Fault{"socket", EMFILE, true}, Fault{"socketpair", EMFILE}, Fault{"connect", ENETUNREACH},
                    Fault{"getsockname", ENOBUFS}, Fault{"getpeername", ENOTCONN},
                    Fault{"getsockopt", ENOBUFS}, Fault{"setsockopt", ENOBUFS}, Fault{"ioctl", EIO},
                    Fault{"fcntl", EMFILE}, Fault{"send", ECONNRESET}, Fault{"sendmsg", EPIPE},
                    Fault{"recv", ECONNRESET}, Fault{"getaddrinfo", EAI_AGAIN, true}, Fault{"poll", EINTR},
                    Fault{"epoll_create1", EMFILE}, Fault{"epoll_ctl", ENOSPC, true},
                    Fault{"epoll_wait", EINTR}, Fault{"eventfd", EMFILE, true},
                    Fault{"pthread_create", EAGAIN}, Fault{"close", EIO}, Fault{"fopen", EMFILE},
                    Fault{"malloc", ENOMEM}, Fault{"calloc", ENOMEM}, Fault{"realloc", ENOMEM},
                    Fault{"new", ENOMEM}),
    [](const auto& row) { return std::string(row.param.call); });

}  // namespace
