// Every call that the agent makes of the system fails once, in a run of several connections and two turns.
#include <gtest/gtest.h>
#include <netdb.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>

#include "tests/faults/Cloud.h"
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
        says::Welcome(agent);
        if (!Over()) {
            says::NewSession(agent, id, service.Port());
            says::Echo(agent, id);
        }
        if (done++ == 0) {
            // Ended in order: the session's ten seconds pass before the heartbeat, the connection's after it.
            support::WriteControl(agent, Cloud::password,
                                  R"({"method":"end_session","session":")" + id + R"("})");
            while (support::ReadFrame(agent).type != lab::heartbeatFrame) continue;
        } else {
            says::NoAddress(agent);  // the session still open
            agent.ReadToEnd();
        }
    }
    bool Over() const { return done > 2; }

private:
    std::atomic<int> done{0};
    const std::string id = "session-00000001";
    support::ScriptedServer service{Always(RepeatAll)};
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

// @return whether the agent made so many calls at all
bool Survives(const Fault& fault, long at) {
    Stages stages;
    Cloud cloud([&](support::Connection& agent) { stages.Play(agent); });
    support::Process agent(
        cloud.Command("verbose"),
        Cloud::Environment(200, {std::string("FAIL_CALL=") + fault.call, "FAIL_AT=" + std::to_string(at),
                                 "FAIL_ERRNO=" + std::to_string(fault.error)}));
    // Between two turns it holds its standard descriptors and nothing else.
    const bool over = support::Eventually(
        [&] { return !agent.IsRunning() || (stages.Over() && Descriptors(agent.Pid()) == 3); });
    const bool fired = agent.Errors().find("the chosen call fails") != std::string::npos;
    if (!over) ADD_FAILURE() << "hangs, or keeps " << Descriptors(agent.Pid()) << " descriptors";
    agent.Signal(SIGTERM);  // orderly, for the leak checker
    const int status = agent.Wait().value_or(-SIGKILL);
    EXPECT_TRUE(status == 0 || MayEnd(agent.Output(), agent.Errors(), status))
        << "ended with " << status << "\n"
        << agent.Errors();
    if (testing::Test::HasFailure()) ADD_FAILURE() << fault.call << " " << at << "\n" << agent.Output();
    return fired;
}

TEST_P(AgentOutlives, EachCallThatFails) {
    // In steps of FAIL_STEP from FAIL_FIRST on, as the script asks for; else ever fewer, for time.
    const char* step = std::getenv("FAIL_STEP");
    const char* first = std::getenv("FAIL_FIRST");
    const auto next = [&](long at) {
        if (step != nullptr) return at + std::atol(step);
        return GetParam().closely ? at + at / 3 + 1 : at * 4;
    };
    long at = first != nullptr ? std::atol(first) : 1;
    long walked = 0;
    for (; Survives(GetParam(), at) && !HasFailure(); at = next(at)) ++walked;
    EXPECT_GT(walked + (first != nullptr), 0) << "the agent never calls it";
    std::cout << GetParam().call << ": " << walked << " faults, the last call is before number " << at
              << std::endl;
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
