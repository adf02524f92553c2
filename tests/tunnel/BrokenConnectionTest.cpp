// Each conversation of the tunnel ended after each of its steps, in each of three ways. What follows is
// always the same: the lines of such an end, and a next connection or session that works.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <numeric>
#include <regex>

#include "lab/wire/Signing.h"
#include "tests/support/Eventually.h"
#include "tests/support/InTime.h"
#include "tests/tunnel/TunnelRun.h"

namespace nox::tunnel_client {
namespace {

using namespace std::chrono_literals;
using namespace support;
using Lines = std::vector<std::string>;

enum class Way { Close, Reset, Silence };

struct Step {
    support::Conversation play;
    bool insidePayload = false;  // a frame of ours has begun, and its header has arrived
};
using Script = std::vector<Step>;

/// A frame in pieces that end at `cuts`.
void Write(Script& script, const support::Frame& frame, const std::vector<std::size_t>& cuts) {
    const std::string bytes = Bytes(frame);
    std::size_t begin = 0;
    for (const std::size_t end : cuts) {
        const std::string piece = bytes.substr(begin, end - begin);
        script.push_back({[piece](auto& agent) { agent.Write(piece); }, end >= 21 && end < bytes.size()});
        begin = end;
    }
}

/// The server's side of connecting, verification, a session, its data and its end.
constexpr std::size_t verifiedAfter = 26;
Script WholeStory(unsigned short service) {
    Script script = {{[](auto& agent) { agent.Read(1); }},
                     {[](auto& agent) { agent.ReadUntil("\"sign\":\""), agent.Read(34); }}};
    const support::Frame welcome{lab::controlFrame, "", lab::Sign(password, R"({"method":"anything"})")};
    std::vector<std::size_t> cuts(22);
    std::iota(cuts.begin(), cuts.end(), 1);  // every byte of the header, and one more
    cuts.insert(cuts.end(), {welcome.payload.size() + 20, welcome.payload.size() + 21});
    Write(script, welcome, cuts);
    script.push_back({[service](auto& agent) { NewSession(agent, service); }});
    script.push_back({[](auto& agent) { support::ReadControl(agent); }});
    Write(script, {lab::dataFrame, sessionId, "ping"}, {7, 23, 25});
    script.push_back({[](auto& agent) { ReadData(agent); }});
    script.push_back({[](auto& agent) { EndSession(agent); }});
    return script;
}

// A silent server is given up by an agent that still waits for its first word, and else goes on hearing it.
void End(support::Connection& agent, Way way, bool verified) {
    if (way == Way::Reset) return agent.Reset();
    if (way == Way::Silence) {
        for (int beats = verified ? 3 : 0; beats > 0; --beats) AwaitHeartbeat(agent);
        if (!verified) agent.ReadToEnd();
    }
    if (agent.Socket().is_open()) HangUp(agent);
}

class TunnelEnded : public testing::TestWithParam<Way> {
protected:
    std::atomic<int> opened{0}, ended{0};
    support::Conversation service = [this](support::Connection& peer) {
        ++opened;
        peer.Write("pong");
        peer.ReadToEnd();
        ++ended;
    };
};

Lines ExpectedEnd(Way way, std::size_t steps, const Script& script) {
    const bool isInside = steps > 0 && steps <= script.size() && script[steps - 1].insidePayload;
    const std::string read = isInside ? "[TunnelClient:193] ListenToTunnelServer - read data: "
                                      : "[TunnelClient:168] ListenToTunnelServer - read header: ";
    const std::string cause = way == Way::Reset ? "reset" : read + "(2) End of file";
    const std::string timeout = "[TunnelClient:122] Verification timeout";
    if (steps >= verifiedAfter) return {cause};
    if (way == Way::Silence) return {timeout, read + "(125) Operation aborted."};
    return {cause, timeout};
}

/// The log of errors. A reset is met by reading, by writing or by both. All steps have to fit into the time
/// limit of verification.
Lines RunThrough(Way way, const Script& script, std::size_t first, int scale) {
    std::vector<support::Conversation> conversations;
    for (std::size_t steps = first; steps < first + 3; ++steps) {
        conversations.push_back([=, &script](support::Connection& agent) {
            for (std::size_t i = 0; i < std::min(steps, script.size()); ++i) script[i].play(agent);
            End(agent, way, steps >= verifiedAfter);
        });
    }
    Delays delays = QuickDelays(scale);
    delays.verificationLimit = scale * 200ms;
    delays.tunnelClose = delays.sessionClose = scale * 30ms;
    delays.second = 1ms;
    Lines lines = RunTunnel(std::move(conversations), logError, delays);
    const std::regex failed(R"(\[TunnelClient:(168|193|411)\].*)");
    for (std::string& line : lines)
        if (way == Way::Reset && std::regex_match(line, failed)) line = "reset";
    if (way == Way::Reset) lines.erase(std::unique(lines.begin(), lines.end()), lines.end());
    return lines;
}

TEST_P(TunnelEnded, AfterAnyStepIsFollowedByTheNextConnection) {
    const Script story = WholeStory(0);
    const bool reset = GetParam() == Way::Reset;  // at once, it could be taken for a failed connect
    for (std::size_t first = reset ? 1 : 0; first <= story.size() && !HasFailure(); first += 3) {
        SCOPED_TRACE(first);
        Lines expected;
        for (std::size_t steps = first; steps < first + 3; ++steps) {
            const Lines end = ExpectedEnd(GetParam(), steps, story);
            expected.insert(expected.end(), end.begin(), end.end());
            expected.push_back("[TunnelClient:50] Tunnel reconnecting...");
        }
        expected.back() = "[TunnelClient:45] Too many reconnects, will restart discovery";
        const auto attempt = [&](int scale) {
            support::ScriptedServer services({service, service, service});
            Lines lines = RunThrough(GetParam(), WholeStory(services.Port()), first, scale);
            EXPECT_TRUE(Eventually([&] { return opened == ended; })) << "a session outlived its tunnel";
            return lines;
        };
        ExpectInTime(expected, attempt);
    }
    EXPECT_GT(opened, 0);
}

/// One session with a service that is asked "ping", answers "pong", and ends, or falls silent, inside or
/// after the one or the other.
void Meet(support::Connection& agent, Way way, std::size_t bytes, const std::string& id) {
    const std::string asked = std::string("ping").substr(0, bytes);
    const std::string answer = bytes > 4 ? std::string("pong").substr(0, bytes - 4) : "";
    support::ScriptedServer service({[=](support::Connection& peer) {
        EXPECT_EQ(peer.Read(asked.size()), asked);
        peer.Write(answer);
        if (way == Way::Reset) peer.Reset();
        if (way != Way::Silence) return;
        EXPECT_EQ(asked + peer.ReadToEnd(), "ping");
    }});
    NewSession(agent, service.Port(), id);
    SendData(agent, "ping", id);
    if (way == Way::Silence) {
        std::string heard;
        while (heard.size() < answer.size()) heard += ReadData(agent).payload;
        EXPECT_EQ(heard, answer);
        EndSession(agent, id);
        return service.Finish();
    }
    Heard heard = Listen(agent, 1);
    EXPECT_EQ(heard.control, (Lines{R"({"method":"connected-session","session":")" + id + '"',
                                    R"({"method":"disconnect-session","session":")" + id + '"'}));
    // A reset may overtake bytes that were written before it.
    EXPECT_EQ(heard.data[id], way == Way::Close ? answer : answer.substr(0, heard.data[id].size()));
}

TEST(BrokenServiceTest, EndsItsOwnSessionAndNoOther) {
    constexpr int rounds = 15;
    const std::string steady = "steady-and-alive";
    support::ScriptedServer echo({[](support::Connection& peer) {
        for (int round = 0; round < rounds; ++round) peer.Write(peer.Read(1));
    }});
    const auto serve = [&](support::Connection& agent) {
        NewSession(agent, echo.Port(), steady);
        support::ReadControl(agent);
        for (int round = 0; round < rounds; ++round) {
            const std::string id = "short-lived-" + std::to_string(1000 + round);
            Meet(agent, static_cast<Way>(round % 3), 2 * static_cast<std::size_t>(round / 3), id);
            SendData(agent, "x", steady);
            EXPECT_EQ(ReadData(agent).session, steady);
            AwaitLog("Removing stopped session " + id);
        }
    };
    EXPECT_THAT(DuringTunnel(serve, logDebug, QuickDelays()),
                testing::Contains(testing::StartsWith("[TunnelClient:362]")).Times(rounds));
}

constexpr const char* names[] = {"Close", "Reset", "Silence"};
INSTANTIATE_TEST_SUITE_P(Ways, TunnelEnded, testing::Values(Way::Close, Way::Reset, Way::Silence),
                         [](const auto& row) { return std::string(names[static_cast<int>(row.param)]); });

}  // namespace
}  // namespace nox::tunnel_client
