#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>

#include <map>
#include <regex>
#include <set>
#include <utility>

#include "tests/support/InTime.h"
#include "tests/support/LogCapture.h"
#include "tests/tunnel/TunnelRun.h"
#include "tunnel/MessageSigning.h"
#include "tunnel/TunnelClient.h"

namespace nox::tunnel_client {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using namespace support;
using Lines = std::vector<std::string>;

struct Spoken {
    const char* name;
    std::function<void(support::Connection&)> say;
    Lines log;
};

// A signed control frame; a text that cannot be signed is sent as it is.
auto Signed(const std::string& json) {
    return [json](support::Connection& agent) { Say(agent, json); };
}
auto Raw(std::uint8_t type, const std::string& payload) {
    return [=](support::Connection& agent) {
        support::WriteFrame(agent, {type, "0123456789abcdef", payload});
    };
}
// The same text as it arrives, for lines that quote it: the signature differs each time.
Spoken Incomplete(const char* name, const std::string& json, const std::string& line) {
    std::string stamped = json;
    stamped.insert(stamped.size() - 1, R"(,"timestamp":"1","noncestr":"n")");
    stamped.insert(stamped.size() - 1,
                   R"(,"sign":")" + ComputeSign(password, json::jobject::parse(stamped)) + "\"");
    return {name, Raw(3, stamped), {line + stamped}};
}

const std::string unreadable = "[TunnelClient:337] Failed to parse server message: ";
const std::string noObject = unreadable + "Input is not a valid object";
const std::string noMethod = "[TunnelClient:251] Missing method in server message";
const std::string noSign = "[TunnelClient:266] Missing sign: in server message";
const std::string noNewSession = "[TunnelClient:289] Incomplete new_session request: ";
const std::string deepPairs = "{\"a\":" + std::string(65530, '[') + std::string(65530, ']') + "}";

// What a server can say without losing the connection.
const Spoken survived[] = {
    {"NotJson", Raw(3, "hello"), {noObject}},
    {"Empty", Raw(3, ""), {noObject}},
    {"DuplicateKey", Raw(3, R"({"a":1,"a":2})"), {unreadable + "Key conflict"}},
    {"EmptyKey", Raw(3, R"({"":1})"), {unreadable + "Missing key"}},
    {"BracketsAsDeepAsAFrame", Raw(3, std::string(131072, '[')), {noObject}},
    {"NestedPairs", Raw(3, deepPairs), {noMethod}},
    {"AnArray", Raw(3, "[]"), {noMethod}},
    {"MethodIsANumber", Raw(3, R"({"method":5,"sign":"x"})"), {noMethod}},
    {"NoSign", Raw(3, R"({"method":"message"})"), {noSign}},
    {"SignIsANumber", Raw(3, R"({"method":"message","sign":1})"), {noSign}},
    {"NoTimestamp",
     Raw(3, R"({"method":"x","sign":"x"})"),
     {"[TunnelClient:341] Invalid JSON key: timestamp"}},
    {"UnknownMethod", Signed(R"({"method":"dance"})"), {}},
    {"MessageMissing", Signed(R"({"method":"message"})"), {"[TunnelClient:279] Missing \"message\" field"}},
    {"MessageIsANumber", Signed(R"({"method":"message","message":7})"), {}},
    {"Conflict",
     Signed(R"({"method":"conflict"})"),
     {"[TunnelClient:332] Device was already connected to server, disconnecting other client"}},
    Incomplete("NoSession", R"({"method":"new_session","localPort":1})", noNewSession),
    Incomplete("NoPort", R"({"method":"new_session","session":"s"})", noNewSession),
    Incomplete("PortIsTrue", R"({"method":"new_session","session":"s","localPort":true})", noNewSession),
    Incomplete("SessionIsANumber", R"({"method":"new_session","session":1,"localPort":1})", noNewSession),
    Incomplete("NoSessionToEnd", R"({"method":"end_session"})",
               "[TunnelClient:318] Incomplete end_session request: "),
    {"EndOfUnknown",
     Signed(R"({"method":"end_session","session":"s"})"),
     {"[TunnelClient:328] Session s not found"}},
    {"Heartbeat", Raw(1, ""), {}},
    {"TypeTwo", Raw(2, "whatever"), {}},
    {"UnknownType", Raw(9, "x"), {"[TunnelClient:238] Unknown message type 9"}},
    {"LargestPayload", Raw(255, std::string(131072, 'x')), {"[TunnelClient:238] Unknown message type 255"}},
    {"EmptyDataOfUnknownSession", Raw(0, ""), {}},
    {"DataOfUnknownSession",
     Raw(0, "x"),
     {"[TunnelClient:224] Received data for unknown session 0123456789abcdef"}},
};

TEST(TunnelClientTest, AnswersEachMessageWithItsLineAndReadsTheNext) {
    const auto serve = [](support::Connection& agent) {
        for (const Spoken& row : survived) {
            row.say(agent);
            Say(agent, R"({"method":"message","message":")"s + row.name + "\"}");
        }
    };
    const auto log = DuringTunnel(serve, logDebug);
    const std::string marker = "[TunnelClient:283] Tunnel server message: ";
    std::map<std::string, Lines> told;
    Lines lines;
    for (const std::string& line : log) {
        if (line.rfind(marker, 0) == 0) {
            told[line.substr(marker.size())] = std::exchange(lines, {});
        } else if (line != "[TunnelClient:448] Sending heartbeat") {
            lines.push_back(line);
        }
    }
    EXPECT_EQ(told.size(), 1 + std::size(survived)) << "the welcome and these";
    for (const Spoken& row : survived) EXPECT_EQ(told[row.name], row.log) << row.name;
}

const std::string closing = "[TunnelClient:147] Closing tunnel server socket after timer delay";
const std::string timeout = "[TunnelClient:122] Verification timeout";
auto Bytes(const std::string& bytes) {
    return [bytes](support::Connection& agent) {
        agent.Write(bytes);
        HangUp(agent);
    };
}
// Nothing behind it is acted on, although it comes in the same segment.
void Forge(support::Connection& agent) {
    agent.Write(support::Bytes({3, "", R"({"method":"conflict","timestamp":17,"sign":"0"})"}) +
                support::Bytes({9, "", "x"}) + support::Bytes({0, sessionId, "x"}));
    agent.ReadToEnd();
}

// "Connecting to ...", with the port.
Lines WithoutFirst(Lines log) {
    EXPECT_EQ(log.at(0).rfind("[TunnelClient:98] Connecting to tunnel server 127.0.0.1:", 0), 0U);
    log.erase(log.begin());
    return log;
}

// With the whole log: the line of the cause, the delayed close and the lines that follow from it.
TEST(TunnelClientTest, EndsTheConnectionAndTriesTheNextOne) {
    const Spoken table[] = {
        {"OneByteTooLong",
         Bytes("\x03\0\x02\0\x01"s + "0000000000000000" + "not read"),
         {"[TunnelClient:178] Tunnel message size too large: 131073", closing, timeout}},
        {"FourGigabytes",
         Bytes("\x03\xFF\xFF\xFF\xFF"s + "0000000000000000"),
         {"[TunnelClient:178] Tunnel message size too large: -1", closing, timeout}},
        {"ForgedSignature",
         Forge,
         {"[TunnelClient:259] Message signature mismatch: 0, 7CE9ADCE4793965D9571BDB8F822BCA8",
          "[TunnelClient:260] Failed to verify server message", closing, timeout}}};
    for (const Spoken& row : table) {
        SCOPED_TRACE(row.name);
        ExpectInTime(row.log, [&](int scale) {
            return WithoutFirst(RunTunnel({row.say}, logDebug, QuickDelays(scale)));
        });
    }
}

// What a server can ask for that ends the whole run: the cycle logs it and registers again.
TEST(TunnelClientTest, ThrowsForAServiceWithoutAddress) {
    const std::pair<const char*, const char*> table[] = {
        {R"("localHost":"127.0.0.1","localPort":"abc")", "stoi"},
        {R"("localHost":"127.0.0.1","localPort":4294967296)", "stoi"},
        {R"("localPort":80)", "Invalid argument"},
        {R"("localPort":80,"localHost":5)", "Invalid argument"},
        {R"("localPort":80,"localHost":"localhost")", "Invalid argument"},
        {R"("localPort":80,"localHost":"127.1")", "Invalid argument"}};
    for (const auto& [members, error] : table) {
        const auto ask = [request =
                              R"({"method":"new_session","session":"s",)"s + members + "}"](auto& agent) {
            Accept(agent);
            Say(agent, request);
            agent.ReadToEnd();
        };
        EXPECT_THAT(([&] { RunTunnel({ask}, logInfo, Delays{}); }),
                    testing::ThrowsMessage<std::exception>(testing::StartsWith(error)))
            << members;
    }
}

TEST(TunnelClientTest, IntroducesItselfAndBeats) {
    const auto attempt = [](int scale) {
        std::string verify;
        const auto serve = [&](support::Connection& agent) {
            const auto port = agent.Socket().local_endpoint().port();
            verify = Accept(agent);
            EXPECT_EQ(OptionOfSocketTo(port, IPPROTO_TCP, TCP_NODELAY), 1);
            EXPECT_EQ(OptionOfSocketTo(port, IPPROTO_TCP, TCP_NOTSENT_LOWAT), 16384);
            for (int beat = 0; beat < 2; ++beat)
                EXPECT_EQ(agent.Read(21), "\1\0\0\0\0"s + std::string(16, '0'));
            HangUp(agent);
        };
        const Lines log = WithoutFirst(RunTunnel({serve}, logVerbose, QuickDelays(scale)));
        EXPECT_TRUE(std::regex_match(
            verify,
            std::regex(
                R"(\{"method":"verify","username":"user","message":"","deviceId":"device\\/1",)"
                R"("version":"1.0","timestamp":"\d{13}","noncestr":"\w{16}","sign":"[0-9A-F]{32}"\})")))
            << verify;
        return log;
    };
    constexpr int verifyBytes = 189;
    ExpectInTime(
        Lines{
            "[TunnelClient:107] Resolved server, connecting...",
            "[TunnelClient:115] Connected to server, sending verification message...",
            "[TunnelClient:392] Inside SendAsync, type 3, length " + std::to_string(verifyBytes),
            "[TunnelClient:162] Listening to tunnel server",
            "[TunnelClient:415] Finished upload, length " + std::to_string(21 + verifyBytes),
            "[TunnelClient:436] skipping SendAsync, sendQueue is empty",
            "[TunnelClient:175] Header, type 3, len 140",
            "[TunnelClient:214] Received message, type 3, length 140",
            "[TunnelClient:270] Message signature verified",
            "[TunnelClient:448] Sending heartbeat",
            "[TunnelClient:283] Tunnel server message: welcome",
            "[TunnelClient:162] Listening to tunnel server",
            "[TunnelClient:392] Inside SendAsync, type 1, length 0",
            "[TunnelClient:415] Finished upload, length 21",
            "[TunnelClient:436] skipping SendAsync, sendQueue is empty",
            "[TunnelClient:448] Sending heartbeat",
            "[TunnelClient:392] Inside SendAsync, type 1, length 0",
            "[TunnelClient:415] Finished upload, length 21",
            "[TunnelClient:436] skipping SendAsync, sendQueue is empty",
            "[TunnelClient:168] ListenToTunnelServer - read header: (2) End of file",
            closing,
            "[TunnelClient:445] Stopping heartbeat messages",
        },
        attempt);
}

TEST(TunnelClientTest, GivesUpAfterThreeFailures) {
    TunnelConfig config = ConfigFor(support::ScriptedServer({}).Port());
    const std::string again = "[TunnelClient:50] Tunnel reconnecting...";
    for (const char* failure : {"[TunnelClient:112] Failed to connect: (111) Connection refused",
                                "[TunnelClient:104] Failed to resolve server: ("}) {
        support::LogCapture log(logError);
        TunnelClient(config, QuickDelays()).Run();
        const auto failed = testing::StartsWith(failure);
        EXPECT_THAT(log.Lines(),
                    testing::ElementsAre(failed, again, failed, again, failed,
                                         "[TunnelClient:45] Too many reconnects, will restart discovery"));
        config.serverHost = "not a host name";
    }
}

// All lines of a tunnel and its sessions, except those that other tests see at level "error" and those that
// cannot occur.
Lines SayEverything(int level, int scale) {
    const support::Conversation talk = [much = Megabytes(10)](support::Connection& peer) {
        for (int i = 0; i < 40; ++i) peer.Write(much);  // it has not sent all when the tunnel closes
    };
    const support::Conversation listen = [](support::Connection& peer) { peer.ReadToEnd(); };
    const support::Conversation hangUp = [](support::Connection& peer) { peer.Read(4); };
    support::ScriptedServer services({listen, hangUp}), talker({talk}), other({talk});
    const auto everything = [&](support::Connection& agent) {
        Accept(agent);
        for (const Spoken& row : survived) row.say(agent);
        NewSession(agent, support::ScriptedServer({}).Port(), "refused-00000000");
        SendData(agent, "not sent", "refused-00000000");
        NewSession(agent, services.Port());
        EndSession(agent);
        Listen(agent, 1);
        NewSession(agent, services.Port(), "hangs-up-0000000");
        SendData(agent, "sent", "hangs-up-0000000");
        Listen(agent, 1);
        NewSession(agent, talker.Port(), "short");
        NewSession(agent, other.Port(), "talks-0000000000");
        for (std::set<std::string> heard; heard.size() < 2;) heard.insert(ReadData(agent).session);
        agent.Write("\3\0\0\0\1"s + "0000000000000000");
        HangUp(agent);
    };
    Delays delays = QuickDelays();
    delays.verificationLimit = scale * 300ms;
    delays.tunnelClose = 10ms;
    delays.sessionClose = scale * 300ms;  // so that sessions still upload to the closed tunnel
    delays.second = 1ms;
    const auto tooLong = Bytes("\3\xFF\xFF\xFF\xFF"s + "0000000000000000");
    return RunTunnel({everything, Forge, tooLong}, level, delays);
}

/// What a line is known by: its number, or where that is the line of the call, the end of its text.
std::string Kind(const std::string& line) {
    if (line.rfind("[TunnelClient:", 0) == 0) return line.substr(14, line.find(']') - 14);
    return std::regex_replace(line,
                              std::regex(R"(^.*\] |[:,]? ?\(.*|(,|for)? ?[Ss]ession [\w-]+,? ?|:? \d+)"), "");
}

// Keyed by the lowest threshold at which they are written.
std::map<int, std::set<std::string>> KindsByLevel(int scale) {
    std::map<std::string, int> levels;
    for (int level = logError; level <= logVerbose; ++level)
        for (const std::string& line : SayEverything(level, scale)) levels.emplace(Kind(line), level);
    std::map<int, std::set<std::string>> kinds;
    for (const auto& [kind, level] : levels) kinds[level].insert(kind);
    return kinds;
}

TEST(TunnelClientTest, GivesEachLineItsLevel) {
    ExpectInTime(
        std::map<int, std::set<std::string>>{
            {logError,
             {"45", "50", "122", "178", "193", "224", "238", "251", "260", "266", "289", "318", "337", "341",
              "411", "ServiceConnection::Connect"}},
            {logWarning, {"279"}},
            {logInfo, {"98", "270", "283", "332", "445", "448"}},
            {logDebug,
             {"147", "259", "305", "323", "328", "362", "424", "ServiceConnection::ListenToService",
              "pausing listening to service", "resume sending to service", "nothing to send, pausing",
              "Closingsocket after timer delay", "Stoppingafter timer delay"}},
            {logVerbose,
             {"107", "115", "162", "175", "214", "309", "348", "354", "392", "415", "436",
              "listening to service", "received bytes from service", "pending uploads",
              "sent bytes to service", "ServiceConnection::Stop", "ListenToService error with stopFlag",
              "SendAsync error with stopFlag"}}},
        KindsByLevel);
}

// The figures that a device runs with; everywhere else tests shorten them.
TEST(TunnelClientTest, KeepsItsDelays) {
    const Delays delays;
    EXPECT_EQ(delays.verificationLimit, 15s);
    EXPECT_EQ(delays.tunnelClose, 5s);
    EXPECT_EQ(delays.sessionClose, 5s);
    EXPECT_EQ(delays.sessionRemoval, 5s);
    EXPECT_EQ(delays.stall, 250ms);
    EXPECT_EQ(delays.second, 1s);
}

}  // namespace
}  // namespace nox::tunnel_client
