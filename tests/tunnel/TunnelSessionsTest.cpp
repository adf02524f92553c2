#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <map>
#include <random>

#include "tests/tunnel/TunnelRun.h"

namespace nox::tunnel_client {
namespace {

using namespace std::chrono_literals;
using namespace support;
using Lines = std::vector<std::string>;

std::string RandomBytes(std::size_t size, unsigned seed) {
    std::independent_bits_engine<std::mt19937, 8, unsigned> bytes(seed);
    std::string text(size, '\0');
    std::generate(text.begin(), text.end(), [&] { return static_cast<char>(bytes()); });
    return text;
}

/// A service that takes everything in `down` and answers with `up`.
struct Stream {
    explicit Stream(unsigned number)
        : id("session-0000000" + std::to_string(number)),
          down(RandomBytes(2000000, number)),
          up(RandomBytes(2000000, number + 100)),
          service({[this](lab::Connection& peer) {
              arrived = peer.Read(down.size());
              peer.Write(up);
          }}) {}
    std::string id, down, up, arrived;
    std::size_t sent = 0;
    lab::ScriptedServer service;
};

void SendInTurns(lab::Connection& agent, std::deque<Stream>& streams) {
    std::mt19937 sizes(1);
    const auto left = [](const Stream& stream) { return stream.sent < stream.down.size(); };
    while (std::any_of(streams.begin(), streams.end(), left)) {
        for (Stream& stream : streams) {
            const std::string piece = stream.down.substr(stream.sent, sizes() % 131072 + 1);
            stream.sent += piece.size();
            if (!piece.empty()) lab::WriteFrame(agent, {0, stream.id, piece});
        }
    }
}

TEST(TunnelSessionsTest, CarryMegabytesBothWaysSideBySide) {
    std::deque<Stream> streams;
    for (unsigned number = 1; number <= 4; ++number) streams.emplace_back(number);
    Heard heard;
    RunTunnel({[&](lab::Connection& agent) {
        Accept(agent);
        for (const Stream& stream : streams) NewSession(agent, stream.service.Port(), stream.id);
        SendInTurns(agent, streams);
        heard = Listen(agent, 4);
        HangUp(agent);
    }});
    EXPECT_EQ(heard.data.size(), streams.size());
    for (Stream& stream : streams) {
        stream.service.Finish();
        EXPECT_TRUE(stream.arrived == stream.down) << stream.id;
        EXPECT_TRUE(heard.data[stream.id] == stream.up) << stream.id;
    }
}

TEST(TunnelSessionsTest, OpenAndEndWithTheirLines) {
    lab::ScriptedServer service(
        {[](lab::Connection& peer) { EXPECT_EQ(peer.ReadToEnd(), "before, after"); }});
    const auto log =
        RunTunnel({[&](lab::Connection& agent) {
                      Accept(agent);
                      NewSession(agent, service.Port());
                      EXPECT_THAT(lab::ReadControl(agent),
                                  testing::StartsWith(R"({"method":"connected-session","session":")" +
                                                      sessionId + R"(","timestamp":")"));
                      lab::WriteFrame(agent, {0, sessionId, "before, "});
                      Say(agent, R"({"method":"end_session","session":")" + sessionId + R"("})");
                      lab::WriteFrame(agent, {0, sessionId, "after"});
                      service.Finish();
                      HangUp(agent);
                  }},
                  logDebug);
    const auto tunnelLines = [&] {
        Lines lines;
        for (const auto& line : log) {
            if (line.find(sessionId) != std::string::npos && line[1] == 'T') lines.push_back(line);
        }
        return lines;
    }();
    EXPECT_EQ(tunnelLines, (Lines{"[TunnelClient:305] New session (" + sessionId + ") to port " +
                                      std::to_string(service.Port()),
                                  "[TunnelClient:323] Session " + sessionId + " ended",
                                  "[TunnelClient:362] Removing stopped session " + sessionId}));
}

// Asked for by a frame that was being read when the connection had to stop: this must not keep the run from
// ending, and the first good signature comes too late for heartbeats.
TEST(TunnelSessionsTest, OpenedWhileStoppingAreStoppedToo) {
    lab::ScriptedServer service({[](lab::Connection& peer) { peer.ReadToEnd(); }});
    Delays delays = QuickDelays();
    delays.verificationLimit = 50ms;
    delays.tunnelClose = 600ms;
    const auto log = RunTunnel({[&](lab::Connection& agent) {
                                   lab::ReadControl(agent);
                                   std::this_thread::sleep_for(200ms);
                                   NewSession(agent, service.Port());
                                   lab::ReadControl(agent);  // connected-session is still written
                                   service.Finish();
                                   agent.ReadToEnd();
                               }},
                               logDebug, delays);
    const std::string session = sessionId + " ";
    Lines told;
    for (const auto& line : log) {
        if (line.find(":98]") == std::string::npos) told.push_back(line.substr(line.find("] ") + 2));
    }
    EXPECT_EQ(
        told,
        (Lines{"Verification timeout", "Message signature verified", "Stopping heartbeat messages",
               "New session (" + sessionId + ") to port " + std::to_string(service.Port()),
               "Closing session " + session + "socket after timer delay",
               "Stopping session " + session + "after timer delay", "Removing stopped session " + sessionId,
               "Closing tunnel server socket after timer delay"}));
}

TEST(TunnelSessionsTest, ReportAServiceThatRefuses) {
    const unsigned short closed = lab::ScriptedServer({}).Port();
    Heard heard;
    const auto log =
        RunTunnel({[&](lab::Connection& agent) {
                      Accept(agent);
                      Say(agent, R"({"method":"new_session","session":"s","localHost":"127.0.0.1",)"
                                 R"("localPort":" )" +
                                     std::to_string(closed) + R"(x"})");
                      heard = Listen(agent, 1);
                      HangUp(agent);
                  }},
                  logVerbose);
    EXPECT_EQ(heard.control, (Lines{R"({"method":"connected-session","session":"s")",
                                    R"({"method":"disconnect-session","session":"s")"}));
    EXPECT_EQ(Count(log, "[TunnelClient:348] Service connection failed: s"), 1U);
}

TEST(TunnelSessionsTest, NeedAnIdOfSixteenCharactersForData) {
    lab::ScriptedServer service({[](lab::Connection& peer) {
        peer.Write(std::string(1000000, 'x'));
        peer.ReadToEnd();
    }});
    std::size_t bytes = 0;
    const auto log = RunTunnel({[&](lab::Connection& agent) {
                                   Accept(agent);
                                   NewSession(agent, service.Port(), "abc");
                                   EXPECT_EQ(lab::ReadFrame(agent).type, 1);
                                   EXPECT_EQ(lab::ReadFrame(agent).type, 3);
                                   for (int chunk = 0; chunk < 20; ++chunk) {
                                       const lab::Frame frame = lab::ReadFrame(agent);
                                       EXPECT_EQ(frame.session, "abc0000000000000");
                                       bytes += frame.payload.size();
                                   }
                                   HangUp(agent);
                               }},
                               logDebug);
    EXPECT_LT(bytes, 20U * 16384U + 1U);
    EXPECT_EQ(Count(log, "[TunnelClient:424] In SendAsync, session abc0000000000000 not found"), 20U);
}

// The earlier connection closes at once, without a message and without a trace in the later one.
TEST(TunnelSessionsTest, ReplaceAConnectionWhoseIdIsGivenAgain) {
    lab::ScriptedServer first({[](lab::Connection& peer) {
        peer.Write("first");
        peer.ReadToEnd();
    }});
    lab::ScriptedServer second({[](lab::Connection& peer) {
        EXPECT_EQ(peer.Read(3), "two");
        peer.Write("second");
    }});
    Heard heard;
    const auto log = RunTunnel({[&](lab::Connection& agent) {
                                   Accept(agent);
                                   NewSession(agent, first.Port());
                                   for (lab::Frame frame; frame.type != 0 || frame.payload.empty();) {
                                       frame = lab::ReadFrame(agent);
                                   }
                                   NewSession(agent, second.Port());
                                   first.Finish();  // closed, although the server ended nothing
                                   lab::WriteFrame(agent, {0, sessionId, "two"});
                                   heard = Listen(agent, 1);
                                   HangUp(agent);
                               }},
                               logVerbose);
    EXPECT_EQ(heard.data, (std::map<std::string, std::string>{{sessionId, "second"}}));
    EXPECT_EQ(heard.control.size(), 2U) << "one connected-session, one disconnect-session";
    EXPECT_EQ(Count(log, "[TunnelClient:362] Removing stopped session " + sessionId), 1U);
    EXPECT_EQ(Count(log, "[TunnelClient:366] Stopped session " + sessionId + " not found"), 0U);
}

TEST(TunnelSessionsTest, WaitForAServerThatDoesNotRead) {
    lab::ScriptedServer service({[](lab::Connection& peer) {
        peer.Write(Megabytes(30));
        peer.ReadToEnd();
    }});
    std::size_t bytes = 0;
    const auto log = RunTunnel({[&](lab::Connection& agent) {
                                   Accept(agent);
                                   NewSession(agent, service.Port());
                                   for (std::size_t waiting = 0;
                                        waiting < 50000 || waiting != agent.Socket().available();) {
                                       waiting = agent.Socket().available();
                                       std::this_thread::sleep_for(100ms);  // until no more arrives
                                   }
                                   while (bytes < 30000000) bytes += lab::ReadFrame(agent).payload.size();
                                   HangUp(agent);
                               }},
                               logDebug);
    EXPECT_TRUE(std::any_of(log.begin(), log.end(), [](const std::string& line) {
        return line.find("pausing listening to service") != std::string::npos;
    }));
}

// Once a write has failed nothing more is written: the end of the session stays in the queue.
TEST(TunnelSessionsTest, StopWithTheirTunnelAfterAWriteError) {
    lab::ScriptedServer service({[](lab::Connection& peer) {
        peer.Write(Megabytes(30));
        peer.ReadToEnd();
    }});
    const auto log = RunTunnel({[&](lab::Connection& agent) {
                                   Accept(agent);
                                   NewSession(agent, service.Port());
                                   agent.Read(1000000);
                                   agent.Reset();
                               }},
                               logVerbose);
    const auto failed = std::find_if(log.begin(), log.end(), [](const std::string& line) {
        return line.rfind("[TunnelClient:411] TunnelClient::SendAsync: (", 0) == 0;
    });
    ASSERT_NE(failed, log.end());
    EXPECT_EQ(std::count_if(failed, log.end(),
                            [](const std::string& line) { return line.rfind("[TunnelClient:392]", 0) == 0; }),
              0);
    EXPECT_EQ(Count(log, "[TunnelClient:362] Removing stopped session " + sessionId), 1U);
}

}  // namespace
}  // namespace nox::tunnel_client
