#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <map>
#include <set>
#include <tuple>

#include "tests/support/Eventually.h"
#include "tests/support/InTime.h"
#include "tests/tunnel/TunnelRun.h"

namespace nox::tunnel_client {
namespace {

using namespace std::chrono_literals;
using namespace support;
using testing::Contains;
using testing::Not;
using testing::StartsWith;
using Lines = std::vector<std::string>;

const std::string removed = "[TunnelClient:362] Removing stopped session " + sessionId;

// Its socket takes frames in part, and the session pauses.
TEST(TunnelSessionsTest, LoseNothingToAServerThatReadsLate) {
    const std::string sent = Megabytes(20);
    support::ScriptedServer service({[&](support::Connection& peer) {
        peer.Write(sent);
        peer.ReadToEnd();
    }});
    const auto late = [&](support::Connection& agent) {
        NewSession(agent, service.Port());
        AwaitLog("Session " + sessionId + ", pausing listening to service");
        std::string received;
        while (received.size() < sent.size()) received += ReadData(agent).payload;
        EXPECT_TRUE(received == sent);
    };
    DuringTunnel(late, logDebug);
}

// Whole, or in many pieces; to a service that keeps up, and to one that takes nothing yet.
TEST(TunnelSessionsTest, DeliverPayloadsHoweverTheyArrive) {
    std::vector<std::pair<std::size_t, std::size_t>> frames;  // payload, and piece
    for (int round = 0; round < 2; ++round) {
        frames.insert(frames.end(), {{131072, 200}, {131072, 50000}, {4096, 4117}, {4095, 1000}, {1, 22}});
        frames.resize(frames.size() + 60, {131072, 131093});
    }
    std::size_t bytes = 0;
    for (const auto& [size, piece] : frames) bytes += size;
    const std::string sent = Numbered(bytes);
    std::promise<void> allSent;
    support::ScriptedServer service({[&](support::Connection& peer) {
        ASSERT_EQ(allSent.get_future().wait_for(patience), std::future_status::ready);
        EXPECT_TRUE(peer.Read(sent.size()) == sent);
    }});
    Lines expected;
    const auto serve = [&](support::Connection& agent) {
        NewSession(agent, service.Port());
        std::size_t begin = 0;
        for (const auto& [size, piece] : frames) {
            const std::string frame = Bytes({lab::dataFrame, sessionId, sent.substr(begin, size)});
            for (std::size_t at = 0; at < frame.size(); at += piece) agent.Write(frame.substr(at, piece));
            begin += size;
            expected.push_back("Session " + sessionId + ", sent " + std::to_string(size) +
                               " bytes to service");
        }
        allSent.set_value();
        service.Finish();
    };
    Lines told;
    for (const auto& line : DuringTunnel(serve, logVerbose))
        if (line.find(", sent ") != std::string::npos) told.push_back(line.substr(line.find("] ") + 2));
    EXPECT_EQ(told, expected);
}

/// By the log, how many data frames waited at most.
int MostThatWait(const Lines& log) {
    int waiting = 0, reached = 0;
    for (const auto& line : log) {
        if (line.find("bytes from service") != std::string::npos) reached = std::max(reached, ++waiting);
        if (line.find("Inside SendAsync, type 0") != std::string::npos) --waiting;
    }
    return reached;
}

// Keeps writing until the session is closed.
const support::Conversation flood = [](support::Connection& peer) {
    try {
        for (;;) peer.Write(Megabytes(1));
    } catch (const std::system_error&) {  // closed
    }
};

void OpenSessions(support::Connection& agent, const std::vector<unsigned short>& ports) {
    for (const auto port : ports) NewSession(agent, port, "session-" + std::to_string(10000000 + port));
}

// How many frames wait at most, of three services that have much to say to a server that reads late: no more
// than one session may have; or, when the tunnel counts as stalled, as many of each.
TEST(TunnelSessionsTest, ReadAheadTogetherAsOneUnlessTheTunnelStands) {
    const std::string sent = Megabytes(3);
    const std::tuple<std::chrono::milliseconds, int, int> rows[] = {{1h, 1, 20}, {10ms, 55, 60}};
    for (const auto& [stall, least, most] : rows) {
        SCOPED_TRACE(most);
        std::atomic<int> talking = 0;
        const support::Conversation talk = [&](support::Connection& peer) {
            peer.Write(sent.substr(0, 1));
            ++talking;
            peer.Write(sent.substr(1));
            peer.ShutdownSend();
            peer.ReadToEnd();
        };
        support::ScriptedServer one({talk}), two({talk}), three({talk});
        const auto late = [&, least = least](support::Connection& agent) {
            OpenSessions(agent, {one.Port(), two.Port(), three.Port()});
            EXPECT_TRUE(Eventually([&] { return talking == 3 && MostThatWait(LogSoFar()) >= least; }))
                << "the first of them may have left";
            AwaitStandstill();
            const Heard heard = Listen(agent, 3);
            for (const auto& [id, data] : heard.data) EXPECT_TRUE(data == sent) << id;
            EXPECT_EQ(heard.data.size(), 3U);
        };
        Delays delays = QuickBeats();
        delays.stall = stall;
        EXPECT_LE(MostThatWait(DuringTunnel(late, logVerbose, delays)), most);
    }
}

// Between a request and its answer come the frames that were on their way, not those that the ended session
// could still read. The server reads on only when the answer is there, because on a busy machine the other
// service may be slow.
TEST(TunnelSessionsTest, AnswerSoonAlthoughTheServerHasEndedOneThatFloods) {
    const std::string steady = "steady-and-alive";
    constexpr int rounds = 10;
    support::ScriptedServer flooding({flood});
    std::atomic<int> answers = 0;
    support::ScriptedServer echo({[&](support::Connection& peer) {
        for (; answers < rounds; ++answers) peer.Write(peer.Read(1));
    }});
    const auto serve = [&](support::Connection& agent) {
        agent.Socket().set_option(asio::socket_base::receive_buffer_size(65536));
        NewSession(agent, echo.Port(), steady);
        NewSession(agent, flooding.Port());
        for (int frames = 0; frames < 50;) frames += support::ReadFrame(agent).session == sessionId;
        EndSession(agent);
        for (int round = 0; round < rounds; ++round) {
            SendData(agent, "x", steady);
            EXPECT_TRUE(Eventually([&] { return answers > round; }));
            int between = 0;
            while (ReadData(agent).session != steady) ++between;
            EXPECT_LE(between, 60);
        }
    };
    DuringTunnel(serve);
}

TEST(TunnelSessionsTest, OpenAndEndWithTheirLines) {
    support::ScriptedServer service({[](support::Connection& peer) { peer.ReadToEnd(); }});
    const auto serve = [&](support::Connection& agent) {
        NewSession(agent, service.Port());
        EXPECT_THAT(support::ReadControl(agent), StartsWith(R"({"method":"connected-session","session":")" +
                                                            sessionId + R"(","timestamp":")"));
        EndSession(agent);
        service.Finish();
        AwaitLog("Removing stopped session " + sessionId);
    };
    Lines told;
    for (const auto& line : DuringTunnel(serve, logDebug, QuickDelays()))
        if (line.find(sessionId) != std::string::npos && line[1] == 'T') told.push_back(line);
    EXPECT_EQ(told, (Lines{"[TunnelClient:305] New session (" + sessionId + ") to port " +
                               std::to_string(service.Port()),
                           "[TunnelClient:323] Session " + sessionId + " ended", removed}));
}

// What is queued for it is lost, whether it comes before the refusal or after it.
TEST(TunnelSessionsTest, ReportAServiceThatRefuses) {
    const unsigned short port = support::ScriptedServer({}).Port();
    const std::string id = sessionId;
    for (const bool isBefore : {true, false}) {
        const auto serve = [&](support::Connection& agent) {
            const std::string lost = Bytes({lab::dataFrame, id, "lost"});
            agent.Write(Control(R"({"method":"new_session","session":")" + id +
                                R"(","localHost":"127.0.0.1","localPort":" )" + std::to_string(port) +
                                R"(x"})") +
                        (isBefore ? lost : ""));
            EXPECT_EQ(Listen(agent, 1).control,
                      (Lines{R"({"method":"connected-session","session":")" + id + '"',
                             R"({"method":"disconnect-session","session":")" + id + '"'}));
            if (!isBefore) agent.Write(lost);
            AwaitLog("SendAsync error with stopFlag, session " + id);
        };
        std::set<std::string> told;
        for (const auto& line : DuringTunnel(serve, logVerbose))
            if (line.find(id) != std::string::npos || line.find("Connection refused") != std::string::npos)
                told.insert(line.substr(line.find("] ") + 2));
        EXPECT_EQ(told, (std::set<std::string>{"New session (" + id + ") to port " + std::to_string(port),
                                               "Sending connected-session message for " + id,
                                               "Session " + id + ", resume sending to service",
                                               "ServiceConnection::Connect: (111) Connection refused",
                                               "Service connection failed: " + id,
                                               "Sending disconnect-session message for " + id,
                                               "ServiceConnection::Stop() called for session " + id,
                                               "SendAsync error with stopFlag, session " + id}))
            << isBefore;
    }
}

// Asked for by a frame that was half there when the connection had to stop: this must not keep the run from
// ending, and the first good signature comes too late for heartbeats. Nothing else is acted on.
TEST(TunnelSessionsTest, OpenedWhileStoppingAreStoppedToo) {
    const std::string port = " to port ", session = sessionId + " ";
    const auto attempt = [&](int scale) {
        support::ScriptedServer service({[](support::Connection& peer) { peer.ReadToEnd(); }});
        std::string answer;
        const auto serve = [&](support::Connection& agent) {
            support::ReadControl(agent);
            const std::string request = Control(NewSessionText(service.Port()));
            agent.Write(request.substr(0, 100));
            AwaitLog("Verification timeout");
            agent.Write(request.substr(100) + Control(NewSessionText(service.Port(), "session-00000002")));
            answer = agent.ReadToEnd();
        };
        Delays delays = QuickDelays(scale);
        delays.verificationLimit = 50ms;
        delays.tunnelClose = scale * 500ms;
        Lines told = RunTunnel({serve}, logDebug, delays);
        for (std::string& line : told) line = line.substr(0, line.find(port)).substr(line.find("] ") + 2);
        told.erase(told.begin());  // "Connecting to ..."
        told.push_back(answer.substr(0, answer.find(",\"timestamp\"")).substr(21));
        return told;
    };
    ExpectInTime(
        Lines{"Verification timeout", "Message signature verified", "Stopping heartbeat messages",
              "New session (" + sessionId + ")", "Closing session " + session + "socket after timer delay",
              "Stopping session " + session + "after timer delay", "Removing stopped session " + sessionId,
              "Closing tunnel server socket after timer delay",
              R"({"method":"connected-session","session":")" + sessionId + '"'},
        attempt);
}

TEST(TunnelSessionsTest, NeedAnIdOfSixteenCharactersForData) {
    support::ScriptedServer service({[](support::Connection& peer) {
        peer.Write(Megabytes(1));
        peer.ReadToEnd();
    }});
    const auto serve = [&](support::Connection& agent) {
        NewSession(agent, service.Port(), "abc");
        EXPECT_EQ(support::ReadFrame(agent).type, 1);
        EXPECT_EQ(support::ReadFrame(agent).type, 3);
        for (int chunk = 0; chunk < 20; ++chunk) EXPECT_EQ(ReadData(agent).session, "abc0000000000000");
    };
    EXPECT_THAT(DuringTunnel(serve, logDebug),
                Contains("[TunnelClient:424] In SendAsync, session abc0000000000000 not found").Times(20));
}

// The earlier connection closes at once, without a message and without a trace in the later one. What came
// for it before, even in the same segment, is written.
TEST(TunnelSessionsTest, ReplaceAConnectionWhoseIdIsGivenAgain) {
    support::ScriptedServer first({[](support::Connection& peer) {
        peer.Write("first");
        EXPECT_EQ(peer.ReadToEnd(), "one");
    }});
    support::ScriptedServer second({[](support::Connection& peer) {
        EXPECT_EQ(peer.Read(3), "two");
        peer.Write("second");
    }});
    const auto serve = [&](support::Connection& agent) {
        NewSession(agent, first.Port());
        EXPECT_EQ(ReadData(agent).payload, "first");
        agent.Write(Bytes({0, sessionId, "one"}) + Control(NewSessionText(second.Port())) +
                    Bytes({0, sessionId, "two"}));
        first.Finish();  // closed, although the server ended nothing
        const Heard heard = Listen(agent, 1);
        EXPECT_EQ(heard.data, (std::map<std::string, std::string>{{sessionId, "second"}}));
        EXPECT_EQ(heard.control.size(), 2U) << "one connected-session, one disconnect-session";
        AwaitLog("Removing stopped session " + sessionId);
    };
    const auto log = DuringTunnel(serve, logVerbose, QuickDelays());
    EXPECT_THAT(log, Contains(removed).Times(1));
    EXPECT_THAT(log, Not(Contains(StartsWith("[TunnelClient:366]"))));
}

// Once a write has failed nothing more is written, and the next connection begins with a frame of its own.
TEST(TunnelSessionsTest, StopWithTheirTunnelAfterAWriteError) {
    support::ScriptedServer service({[](support::Connection& peer) {
        peer.Write(Megabytes(30));
        peer.ReadToEnd();
    }});
    const auto serve = [&](support::Connection& agent) {
        Accept(agent);
        NewSession(agent, service.Port());
        agent.Read(1000000);
        AwaitStandstill();
        agent.Reset();
    };
    const auto next = [](support::Connection& agent) {
        EXPECT_THAT(support::ReadControl(agent), StartsWith(R"({"method":"verify",)"));
        HangUp(agent);
    };
    const auto log = RunTunnel({serve, next}, logVerbose);
    EXPECT_THAT(log, Contains(StartsWith("[TunnelClient:411] TunnelClient::SendAsync: (")));
    EXPECT_THAT(log, Contains(removed).Times(1));
}

}  // namespace
}  // namespace nox::tunnel_client
