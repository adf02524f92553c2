#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <map>
#include <set>
#include <tuple>

#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"
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

/// Where a session goes on after its pause: right behind the frame that leaves fourteen of its own. By the log of one
/// session whose service keeps sending.
void ExpectToGoOnAtFourteen(const Lines& log) {
    const std::string listening = "Session " + sessionId + ", listening to service";
    int pending = 0, pauses = 0;
    bool isData = false, isPaused = false, goesOn = false;
    for (const std::string& line : log) {
        const auto has = [&line](const std::string& text) { return line.find(text) != std::string::npos; };
        EXPECT_TRUE(!std::exchange(goesOn, false) || has(listening)) << line;
        if (has("bytes from service")) ++pending;
        EXPECT_TRUE(!has(listening) || !isPaused);
        if (has("pausing listening")) {
            ++pauses;
            isPaused = true;
            EXPECT_EQ(pending, 20);
        }
        if (has("Inside SendAsync")) isData = has("type 0");
        if (!isData || !has("Finished upload")) continue;
        --pending;
        goesOn = isPaused && pending == 14;
        isPaused = isPaused && !goesOn;
    }
    EXPECT_GT(pauses, 0);
}

// Its socket takes frames in part, and the session pauses.
TEST(TunnelSessionsTest, LoseNothingToAServerThatReadsLate) {
    std::string sent, received;
    while (sent.size() < 20000000) sent += "#" + std::to_string(sent.size());
    support::ScriptedServer service({[&](support::Connection& peer) {
        peer.Write(sent);
        peer.ReadToEnd();
    }});
    const auto late = [&](support::Connection& agent) {
        Accept(agent);
        NewSession(agent, service.Port());
        std::this_thread::sleep_for(300ms);
        while (received.size() < sent.size()) {
            const support::Frame frame = support::ReadFrame(agent);
            if (frame.type == lab::dataFrame) received += frame.payload;
        }
        HangUp(agent);
    };
    ExpectToGoOnAtFourteen(RunTunnel({late}, logVerbose));
    EXPECT_TRUE(received == sent);
}

// Whole, or in many pieces; to a service that keeps up, and to one that takes nothing yet.
TEST(TunnelSessionsTest, DeliverPayloadsHoweverTheyArrive) {
    std::vector<std::pair<std::size_t, std::size_t>> frames;  // payload, and piece
    for (int round = 0; round < 2; ++round) {
        frames.insert(frames.end(), {{131072, 200}, {131072, 50000}, {4096, 4117}, {4095, 1000}, {1, 22}});
        frames.resize(frames.size() + 60, {131072, 131093});
    }
    std::string sent, received;
    Lines expected;
    std::promise<void> allSent;
    support::ScriptedServer service({[&](support::Connection& peer) {
        ASSERT_EQ(allSent.get_future().wait_for(20s), std::future_status::ready);
        received = peer.Read(sent.size());
    }});
    const auto serve = [&](support::Connection& agent) {
        Accept(agent);
        NewSession(agent, service.Port());
        for (const auto& [size, piece] : frames) {
            std::string payload;
            while (payload.size() < size) payload += "#" + std::to_string(sent.size() + payload.size());
            payload.resize(size);
            const std::string bytes = Bytes({lab::dataFrame, sessionId, payload});
            for (std::size_t at = 0; at < bytes.size(); at += piece) agent.Write(bytes.substr(at, piece));
            sent += payload;
            expected.push_back("Session " + sessionId + ", sent " + std::to_string(size) +
                               " bytes to service");
        }
        allSent.set_value();
        service.Finish();
        HangUp(agent);
    };
    Lines told;
    for (const auto& line : RunTunnel({serve}, logVerbose))
        if (line.find(", sent ") != std::string::npos) told.push_back(line.substr(line.find("] ") + 2));
    EXPECT_EQ(told, expected);
    EXPECT_TRUE(received == sent);
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

// How many frames wait at most, of three services that have much to say to a server that reads late: no more
// than one session may have; or, when the tunnel counts as stalled, as many of each.
TEST(TunnelSessionsTest, ReadAheadTogetherAsOneUnlessTheTunnelStands) {
    const std::string sent = Megabytes(3);
    const std::tuple<std::chrono::milliseconds, int, int> rows[] = {{1s, 1, 20}, {10ms, 55, 60}};
    for (const auto& [stall, least, most] : rows) {
        SCOPED_TRACE(most);
        const support::Conversation talk = [&](support::Connection& peer) {
            peer.Write(sent);
            peer.ShutdownSend();
            peer.ReadToEnd();
        };
        support::ScriptedServer services[] = {support::ScriptedServer({talk}),
                                              support::ScriptedServer({talk}),
                                              support::ScriptedServer({talk})};
        Heard heard;
        const auto late = [&](support::Connection& agent) {
            Accept(agent);
            for (auto& service : services)
                NewSession(agent, service.Port(), "session-" + std::to_string(10000000 + service.Port()));
            std::this_thread::sleep_for(500ms);
            heard = Listen(agent, 3);
            HangUp(agent);
        };
        Delays delays = QuickDelays();
        delays.stall = stall;
        const int reached = MostThatWait(RunTunnel({late}, logVerbose, delays));
        EXPECT_LE(reached, most);
        EXPECT_GE(reached, least) << "the first of them may have left";
        for (const auto& [id, data] : heard.data) EXPECT_TRUE(data == sent) << id;
        EXPECT_EQ(heard.data.size(), 3U);
    }
}

/// The frames that waited at most on a line of 256 kbit/s.
/// @param longest the longest time for which the server, on a busy machine, read nothing
int MostThatWaitOnASlowLine(const Delays& delays, std::chrono::steady_clock::duration& longest) {
    using asio::ip::tcp;
    support::ScriptedServer services[] = {support::ScriptedServer({flood}), support::ScriptedServer({flood}),
                                          support::ScriptedServer({flood})};
    support::Connection agent;
    tcp::acceptor acceptor(agent.Socket().get_executor(), tcp::v4());
    // Otherwise its kernel takes a lot, and then nothing for long.
    acceptor.set_option(tcp::socket::receive_buffer_size(8192));
    acceptor.bind({asio::ip::address_v4::loopback(), 0});
    acceptor.listen();
    LogCapture log;
    const auto serve = [&] {
        acceptor.accept(agent.Socket());
        acceptor.close();
        Accept(agent);
        for (auto& service : services)
            NewSession(agent, service.Port(), "session-" + std::to_string(10000000 + service.Port()));
        auto last = std::chrono::steady_clock::now();
        for (int piece = 0; piece < 60; ++piece) {
            agent.Read(1024);
            std::this_thread::sleep_for(32ms);
            const auto now = std::chrono::steady_clock::now();
            longest = std::max(longest, now - std::exchange(last, now));
        }
        const int most = MostThatWait(log.Lines());
        agent.Close();
        return most;
    };
    auto served = std::async(std::launch::async, serve);
    TunnelClient(QuickConfig(acceptor.local_endpoint().port()), delays).Run();
    return served.get();
}

// It takes half a second for a frame, but it takes something all the time: it does not stand. Unless the server did.
TEST(TunnelSessionsTest, ReadAheadTogetherAsOneOnASlowLine) {
    Delays delays = QuickDelays();
    delays.stall = 600ms;
    for (int tries = 0; tries < 10; ++tries) {
        std::chrono::steady_clock::duration longest{};
        const int most = MostThatWaitOnASlowLine(delays, longest);
        if (longest > delays.stall / 4) continue;
        EXPECT_LE(most, 20 + 8) << "those of one session, and a turn";
        return;
    }
    FAIL() << "the machine is too busy to tell";
}

// Between a request and its answer come the frames that were on their way, not those that the ended session could
// still read. The server reads on only when the answer is there, because on a busy machine the other service may be
// slow.
TEST(TunnelSessionsTest, AnswerSoonAlthoughTheServerHasEndedOneThatFloods) {
    const std::string steady = "steady-and-alive";
    constexpr int rounds = 10;
    support::ScriptedServer flooding({flood});
    std::atomic<int> answers = 0;
    support::ScriptedServer echo({[&](support::Connection& peer) {
        for (; answers < rounds; ++answers) peer.Write(peer.Read(1));
    }});
    std::vector<int> between;
    const auto serve = [&](support::Connection& agent) {
        agent.Socket().set_option(asio::socket_base::receive_buffer_size(65536));
        Accept(agent);
        NewSession(agent, echo.Port(), steady);
        NewSession(agent, flooding.Port());
        for (int frames = 0; frames < 50;) frames += support::ReadFrame(agent).session == sessionId;
        Say(agent, R"({"method":"end_session","session":")" + sessionId + R"("})");
        for (int round = 0; round < rounds; ++round) {
            support::WriteFrame(agent, {lab::dataFrame, steady, "x"});
            EXPECT_TRUE(Eventually([&] { return answers > round; }));
            int frames = 0;
            for (std::string session; session != steady; frames += session == sessionId)
                session = support::ReadFrame(agent).session;
            between.push_back(frames);
        }
        HangUp(agent);
    };
    Delays delays = QuickDelays();
    delays.sessionClose = 1s;
    RunTunnel({serve}, logInfo, delays);
    EXPECT_THAT(between, testing::Each(testing::Le(60)));
}

TEST(TunnelSessionsTest, OpenAndEndWithTheirLines) {
    const std::string largest(131072, 'x');
    support::ScriptedServer service(
        {[&](support::Connection& peer) { EXPECT_TRUE(peer.ReadToEnd() == largest + "after"); }});
    const auto serve = [&](support::Connection& agent) {
        Accept(agent);
        NewSession(agent, service.Port());
        EXPECT_THAT(support::ReadControl(agent), StartsWith(R"({"method":"connected-session","session":")" +
                                                            sessionId + R"(","timestamp":")"));
        const std::string end = R"({"method":"end_session","session":")" + sessionId + R"("})";
        agent.Write(Bytes({0, sessionId, largest}) + Control(end) + Bytes({0, sessionId, "after"}));
        service.Finish();
        HangUp(agent);
    };
    Lines told;
    for (const auto& line : RunTunnel({serve}, logDebug))
        if (line.find(sessionId) != std::string::npos && line[1] == 'T') told.push_back(line);
    EXPECT_EQ(told, (Lines{"[TunnelClient:305] New session (" + sessionId + ") to port " +
                               std::to_string(service.Port()),
                           "[TunnelClient:323] Session " + sessionId + " ended", removed}));
}

// What is queued for it is lost, whether it comes before the refusal or after it.
TEST(TunnelSessionsTest, ReportAServiceThatRefuses) {
    const std::string port = std::to_string(support::ScriptedServer({}).Port()), id = sessionId;
    Heard heard;
    const auto serve = [&](support::Connection& agent) {
        Accept(agent);
        Say(agent, R"({"method":"new_session","session":")" + id +
                       R"(","localHost":"127.0.0.1","localPort":" )" + port + R"(x"})");
        support::WriteFrame(agent, {0, id, "lost"});
        heard = Listen(agent, 1);
        HangUp(agent);
    };
    std::set<std::string> told;
    for (const auto& line : RunTunnel({serve}, logVerbose))
        if (line.find(id) != std::string::npos || line.find("Connection refused") != std::string::npos)
            told.insert(line.substr(line.find("] ") + 2));
    EXPECT_EQ(told,
              (std::set<std::string>{
                  "New session (" + id + ") to port " + port, "Sending connected-session message for " + id,
                  "Session " + id + ", resume sending to service",
                  "ServiceConnection::Connect: (111) Connection refused", "Service connection failed: " + id,
                  "Sending disconnect-session message for " + id,
                  "ServiceConnection::Stop() called for session " + id,
                  "SendAsync error with stopFlag, session " + id,
                  "Closing session " + id + " socket after timer delay",
                  "Stopping session " + id + " after timer delay", "Removing stopped session " + id}));
    EXPECT_EQ(heard.control, (Lines{R"({"method":"connected-session","session":")" + id + '"',
                                    R"({"method":"disconnect-session","session":")" + id + '"'}));
}

// Asked for by a frame that was half there when the connection had to stop: this must not keep the run from ending, and
// the first good signature comes too late for heartbeats. Nothing else is acted on.
TEST(TunnelSessionsTest, OpenedWhileStoppingAreStoppedToo) {
    support::ScriptedServer service({[](support::Connection& peer) { peer.ReadToEnd(); }});
    Delays delays = QuickDelays();
    delays.verificationLimit = 50ms;
    delays.tunnelClose = 2s;
    LogCapture log(logDebug);
    support::ScriptedServer server({[&](support::Connection& agent) {
        support::ReadControl(agent);
        const std::string request = Control(NewSessionText(service.Port()));
        agent.Write(request.substr(0, 100));
        EXPECT_TRUE(Eventually([&] { return log.Count("Verification timeout") == 1; }));
        agent.Write(request.substr(100) + Control(NewSessionText(service.Port(), "session-00000002")));
        support::ReadControl(agent);  // connected-session is still written
        service.Finish();
        agent.ReadToEnd();
    }});
    TunnelClient(QuickConfig(server.Port()), delays).Run();
    const std::string session = sessionId + " ";
    Lines told = log.Texts();
    told.resize(9);  // those behind are of connections that are refused
    EXPECT_THAT(
        told, testing::ElementsAre(
                  StartsWith("Connecting"), "Verification timeout", "Message signature verified",
                  "Stopping heartbeat messages",
                  "New session (" + sessionId + ") to port " + std::to_string(service.Port()),
                  "Closing session " + session + "socket after timer delay",
                  "Stopping session " + session + "after timer delay",
                  "Removing stopped session " + sessionId, "Closing tunnel server socket after timer delay"));
}

TEST(TunnelSessionsTest, NeedAnIdOfSixteenCharactersForData) {
    support::ScriptedServer service({[](support::Connection& peer) {
        peer.Write(Megabytes(1));
        peer.ReadToEnd();
    }});
    const auto serve = [&](support::Connection& agent) {
        Accept(agent);
        NewSession(agent, service.Port(), "abc");
        EXPECT_EQ(support::ReadFrame(agent).type, 1);
        EXPECT_EQ(support::ReadFrame(agent).type, 3);
        for (int chunk = 0; chunk < 20; ++chunk)
            EXPECT_EQ(support::ReadFrame(agent).session, "abc0000000000000");
        HangUp(agent);
    };
    EXPECT_THAT(RunTunnel({serve}, logDebug),
                Contains("[TunnelClient:424] In SendAsync, session abc0000000000000 not found").Times(20));
}

// The earlier connection closes at once, without a message and without a trace in the later one. What came for it
// before, even in the same segment, is written.
TEST(TunnelSessionsTest, ReplaceAConnectionWhoseIdIsGivenAgain) {
    support::ScriptedServer first({[](support::Connection& peer) {
        peer.Write("first");
        EXPECT_EQ(peer.ReadToEnd(), "one");
    }});
    support::ScriptedServer second({[](support::Connection& peer) {
        EXPECT_EQ(peer.Read(3), "two");
        peer.Write("second");
    }});
    Heard heard;
    const auto serve = [&](support::Connection& agent) {
        Accept(agent);
        NewSession(agent, first.Port());
        while (support::ReadFrame(agent).type != lab::dataFrame) continue;
        agent.Write(Bytes({0, sessionId, "one"}) + Control(NewSessionText(second.Port())) +
                    Bytes({0, sessionId, "two"}));
        first.Finish();  // closed, although the server ended nothing
        heard = Listen(agent, 1);
        HangUp(agent);
    };
    const auto log = RunTunnel({serve}, logVerbose);
    EXPECT_EQ(heard.data, (std::map<std::string, std::string>{{sessionId, "second"}}));
    EXPECT_EQ(heard.control.size(), 2U) << "one connected-session, one disconnect-session";
    EXPECT_THAT(log, Contains(removed).Times(1));
    EXPECT_THAT(log, Not(Contains(StartsWith("[TunnelClient:366]"))));
}

// Once a write has failed nothing more is written: the end of the session stays in the queue. Half a payload has come:
// the reading side learns the reason.
TEST(TunnelSessionsTest, StopWithTheirTunnelAfterAWriteError) {
    support::ScriptedServer service({[](support::Connection& peer) {
        peer.Write(Megabytes(30));
        peer.ReadToEnd();
    }});
    const auto serve = [&](support::Connection& agent) {
        Accept(agent);
        NewSession(agent, service.Port());
        agent.Read(1000000);
        agent.Write(Bytes({lab::dataFrame, sessionId, std::string(100000, 'l')}).substr(0, 50021));
        std::size_t before = 0;
        do {  // until the agent cannot send any more
            before = agent.Socket().available();
            std::this_thread::sleep_for(200ms);
        } while (agent.Socket().available() != before);
        agent.Reset();
    };
    const auto next = [](support::Connection& agent) {
        EXPECT_THAT(support::ReadControl(agent), StartsWith(R"({"method":"verify",)"))
            << "nothing of a half frame";
        HangUp(agent);
    };
    const auto log = RunTunnel({serve, next}, logVerbose);
    const auto failed = std::find_if(log.begin(), log.end(), [](const std::string& line) {
        return line.rfind("[TunnelClient:411] TunnelClient::SendAsync: (", 0) == 0;
    });
    ASSERT_NE(failed, log.end());
    const auto again = std::find(failed, log.end(), "[TunnelClient:50] Tunnel reconnecting...");
    EXPECT_THAT(Lines(failed, again), Not(Contains(StartsWith("[TunnelClient:392]"))));
    EXPECT_THAT(
        log, Contains("[TunnelClient:193] ListenToTunnelServer - read data: (104) Connection reset by peer"));
    EXPECT_THAT(log, Contains(removed).Times(1));
}

}  // namespace
}  // namespace nox::tunnel_client
