#include <dlfcn.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <future>

#include "tests/support/LogCapture.h"
#include "tests/support/Loopback.h"
#include "tests/support/ScriptedServer.h"
#include "tests/tunnel/TunnelRun.h"
#include "tunnel/ServiceConnection.h"

namespace {
bool hasDescriptors = true;
}

// This program's function fails on demand. A limit of the process would also hit the address sanitizer, which
// needs descriptors for its own checks.
extern "C" int socket(int domain, int type, int protocol) noexcept {
    static const auto real = reinterpret_cast<int (*)(int, int, int)>(dlsym(RTLD_NEXT, "socket"));
    if (hasDescriptors) return real(domain, type, protocol);
    errno = EMFILE;
    return -1;
}

namespace nox::tunnel_client {
namespace {

using namespace std::chrono_literals;

const std::string id = "session-00000001";

// A line on which as many frames wait as a test sets.
struct Line : ReadTurns::Line {
    std::size_t FramesWaiting() const override {
        ++asked;
        return waiting;
    }
    std::uint64_t Waits() const override { return 0; }
    std::uint64_t Departed() const override { return 0; }
    std::size_t waiting = 0;
    mutable int asked = 0;
};

// Keeps all frames and reports. The test itself lets go of a removed session, as an owner does.
struct Owner : SessionOwner {
    explicit Owner(asio::io_context& io) : memory(io), turns(io, line, 1h) {}
    void QueueMessage(TunnelMessage message) override { frames.push_back(std::move(message)); }
    void ServiceConnectionFailed(const std::string& session) override { calls += "failed " + session + "\n"; }
    void SendDisconnectSession(const std::string& session) override {
        calls += "disconnect " + session + "\n";
    }
    void RemoveStoppedSession(const std::string& session) override {
        calls += "remove " + session + "\n";
        connection.reset();
    }
    ReadTurns& Turns() override { return turns; }
    PayloadMemory& Memory() override { return memory; }
    std::string Received() const {
        std::string all;
        for (const TunnelMessage& frame : frames) all += frame.data;
        return all;
    }
    std::vector<TunnelMessage> frames;
    std::string calls;
    Line line;
    PayloadMemory memory;
    ReadTurns turns;
    std::shared_ptr<ServiceConnection> connection;
};

struct Idle : ReadTurns::Reader {
    void ReadInTurn(int) override {}
};

// One frame for the service, as the tunnel brings it: its memory does not last.
void Send(ServiceConnection& connection, std::string payload) {
    connection.QueueData(payload);
    connection.SendArrived();
    std::fill(payload.begin(), payload.end(), '?');
}

class ServiceConnectionTest : public testing::Test {
protected:
    std::shared_ptr<ServiceConnection> Connect(unsigned short port, std::chrono::milliseconds close = 60ms) {
        Delays delays;
        delays.sessionClose = close;
        delays.sessionRemoval = 20ms;
        owner.connection =
            std::make_shared<ServiceConnection>(SessionParams{id, "127.0.0.1", port}, &owner, io, delays);
        owner.connection->Connect();
        return owner.connection;
    }
    void RunUntil(const std::function<bool()>& done) { ASSERT_TRUE(support::RunUntil(io, done)); }
    // As when the queue has become empty; then frames of others wait again.
    void GiveTurn() {
        owner.line.waiting = 0;
        owner.turns.GiveTurns();
        owner.line.waiting = others;
    }
    void RunToTheEnd() { EXPECT_TRUE(support::RunToTheEnd(io)) << "work is left"; }

    static constexpr std::size_t others = 1000;  // frames of other sessions

    support::LogCapture log;
    asio::io_context io;
    Owner owner{io};
};

TEST_F(ServiceConnectionTest, RelaysBothWaysUntilTheServiceHangsUp) {
    const std::string sent = "more payloads than one turn writes";
    support::ScriptedServer service({[&sent](support::Connection& peer) {
        EXPECT_EQ(peer.Read(sent.size()), sent);
        peer.Write("answer");
    }});
    const auto connection = Connect(service.Port());
    for (const char one : sent) Send(*connection, {one});
    RunToTheEnd();
    EXPECT_EQ(owner.Received(), "answer");
    EXPECT_EQ(owner.frames.at(0).SessionId(), id);
    EXPECT_EQ(owner.calls, "disconnect " + id + "\nremove " + id + "\n");
    EXPECT_EQ(log.Count("Session " + id + ", resume sending to service"), 1U);
    EXPECT_EQ(log.Count("Session " + id + ", sent 1 bytes to service"), sent.size());
    EXPECT_EQ(log.Count("Session " + id + ", nothing to send, pausing"), 1U);
    const std::vector<std::string> end = {
        "ServiceConnection::ListenToService, session " + id + ", (2) End of file",
        "ServiceConnection::Stop() called for session " + id,
        "Closing session " + id + " socket after timer delay",
        "Stopping session " + id + " after timer delay",
    };
    const auto texts = log.Texts();
    ASSERT_GE(texts.size(), end.size());
    EXPECT_EQ(std::vector<std::string>(texts.end() - 4, texts.end()), end);
    Send(*connection, "dropped");
    EXPECT_EQ(log.Texts(), texts);
}

TEST_F(ServiceConnectionTest, ReportsLaterThatThereIsNoDescriptorForIt) {
    hasDescriptors = false;
    Connect(1);
    hasDescriptors = true;
    EXPECT_EQ(owner.calls, "");
    RunToTheEnd();
    EXPECT_EQ(owner.calls, "failed " + id + "\nremove " + id + "\n");
    EXPECT_EQ(log.Count("ServiceConnection::Connect: (24) Too many open files"), 1U);
}

TEST_F(ServiceConnectionTest, PausesAtTwentyUploadsAndResumesAtFourteen) {
    const std::string sent(2000000, 's');
    support::ScriptedServer service({[&](support::Connection& peer) { peer.Write(sent); }});
    const auto connection = Connect(service.Port());
    const std::string pausing = "Session " + id + ", pausing listening to service";
    RunUntil([&] { return log.Count(pausing) == 1; });
    io.poll();
    EXPECT_EQ(owner.frames.size(), 20U);
    for (int written = 0; written < 5; ++written) connection->UploadFinished();
    io.restart();
    io.poll();
    EXPECT_EQ(owner.frames.size(), 20U) << "resumed above fourteen";
    const std::string listening = "Session " + id + ", listening to service";
    EXPECT_EQ(log.Count(listening), 20U) << "one for each frame, as if read one by one";
    connection->UploadFinished();
    EXPECT_EQ(log.Count(listening), 21U) << "right behind the line of the frame";
    RunUntil([&] { return log.Count(pausing) == 2; });
    EXPECT_EQ(owner.frames.size(), 26U);
    std::size_t reported = 6;
    RunUntil([&] {
        for (; reported < owner.frames.size(); ++reported) connection->UploadFinished();
        return owner.Received().size() == sent.size();
    });
    EXPECT_TRUE(owner.Received() == sent);
    for (const TunnelMessage& frame : owner.frames) EXPECT_LE(frame.data.size(), 16384U);
}

TEST_F(ServiceConnectionTest, ReadsInItsTurnsAndNoticesTheEndAtOnce) {
    const std::string sent(100000, 's');
    support::ScriptedServer service({[&](support::Connection& peer) { peer.Write(sent); }});
    owner.line.waiting = others;
    const auto connection = Connect(service.Port());
    service.Finish();
    while (owner.Received().size() < sent.size() && !HasFailure()) {
        const std::size_t before = owner.frames.size();
        RunUntil([&] { return owner.line.asked > 0; });
        EXPECT_EQ(owner.frames.size(), before) << "out of turn";
        Idle idle;
        owner.turns.Wait(idle);  // so that a turn is four frames at most
        GiveTurn();
        owner.turns.Leave(idle);
        EXPECT_GT(owner.frames.size(), before);
        const std::size_t after = owner.frames.size();
        EXPECT_LE(after, before + 4);
        connection->ReadInTurn(1);
        EXPECT_EQ(owner.frames.size(), after) << "it has not asked again";
        owner.line.asked = 0;
    }
    EXPECT_EQ(owner.calls, "");
    RunUntil([&] { return owner.calls == "disconnect " + id + "\n"; });
    EXPECT_TRUE(owner.Received() == sent);
}

// It waits for a turn when it is stopped. Then it waits for another, or until its socket is closed.
TEST_F(ServiceConnectionTest, ReadsWhatHasArrivedOnceWhenItIsStopped) {
    for (const bool hasTurn : {true, false}) {
        SCOPED_TRACE(hasTurn);
        std::promise<void> isStopped;
        support::ScriptedServer service({[&](support::Connection& peer) {
            peer.Write("before");
            isStopped.get_future().wait();
            peer.Write("after");
            peer.ReadToEnd();
        }});
        owner.frames.clear();
        owner.line.asked = 0;
        owner.line.waiting = others;
        const auto connection = Connect(service.Port(), hasTurn ? 1h : 200ms);
        RunUntil([&] { return owner.line.asked > 0; });
        EXPECT_EQ(owner.Received(), "");
        connection->Stop();
        RunUntil([&] { return !owner.frames.empty(); });
        owner.line.waiting = 0;
        EXPECT_GT(owner.turns.MayRead(*connection, 0), 0) << "it has left the turns";
        owner.line.waiting = others;
        owner.line.asked = 0;
        isStopped.set_value();
        if (!hasTurn) {
            RunUntil([&] { return owner.calls == "remove " + id + "\n"; });
            io.poll();
            EXPECT_EQ(log.Count("ListenToService error with stopFlag, session " + id), 1U);
        } else {
            RunUntil([&] { return owner.line.asked > 0; });
            EXPECT_EQ(owner.Received(), "before");
            GiveTurn();
        }
        EXPECT_EQ(owner.Received(), hasTurn ? "beforeafter" : "before");
        owner.connection.reset();
    }
}

TEST_F(ServiceConnectionTest, LeavesTheTurnsWhenItIsLetGoOf) {
    support::ScriptedServer service({[](support::Connection& peer) {
        peer.Write("x");
        peer.ReadToEnd();
    }});
    owner.line.waiting = others;
    Connect(service.Port());
    RunUntil([&] { return owner.line.asked > 0; });
    Idle other;
    EXPECT_EQ(owner.turns.MayRead(other, 0), 0);
    owner.connection.reset();
    owner.line.waiting = 0;
    EXPECT_GT(owner.turns.MayRead(other, 0), 0) << "nobody waits";
}

TEST_F(ServiceConnectionTest, WritesABatchOfPayloadsAtOnceAndLogsEach) {
    support::ScriptedServer service(
        {[](support::Connection& peer) { EXPECT_EQ(peer.ReadToEnd(), "threeone4"); }});
    const auto connection = Connect(service.Port());
    const std::string session = "Session " + id + ", ";
    RunUntil([&] { return log.Count(session + "listening to service") == 1; });
    EXPECT_EQ(support::OptionOfSocketTo(service.Port(), IPPROTO_TCP, TCP_NODELAY), 1);
    // In socket(7): the kernel doubles the size.
    EXPECT_EQ(support::OptionOfSocketTo(service.Port(), SOL_SOCKET, SO_RCVBUF), 2 * 131072);
    for (const char* payload : {"three", "one", "4"}) connection->QueueData(payload);
    connection->SendArrived();
    EXPECT_EQ(log.Texts(), (std::vector<std::string>{
                               session + "listening to service", session + "resume sending to service",
                               session + "sent 5 bytes to service", session + "sent 3 bytes to service",
                               session + "sent 1 bytes to service", session + "nothing to send, pausing"}));
    connection->Stop();
    RunToTheEnd();
    EXPECT_NO_THROW(service.Finish());
}

TEST_F(ServiceConnectionTest, StillWritesDuringTheDelayAfterStop) {
    std::string received;
    support::ScriptedServer service({[&](support::Connection& peer) { received = peer.ReadToEnd(); }});
    const auto connection = Connect(service.Port());
    RunUntil([&] { return log.Count("Session " + id + ", listening to service") == 1; });
    const auto stopped = std::chrono::steady_clock::now();
    connection->Stop();
    connection->Stop();
    Send(*connection, "late");
    RunToTheEnd();
    EXPECT_GE(std::chrono::steady_clock::now() - stopped, 80ms);
    service.Finish();
    EXPECT_EQ(received, "late");
    EXPECT_EQ(owner.calls, "remove " + id + "\n")
        << "one shutdown, and no disconnect: the server asked for it";
    EXPECT_EQ(log.Count("ServiceConnection::Stop() called for session " + id), 2U);
    EXPECT_EQ(log.Count("ListenToService error with stopFlag, session " + id), 1U);
}

TEST_F(ServiceConnectionTest, FinishesThePayloadThatItHasBegun) {
    const std::string payload = support::Megabytes(10);
    std::promise<void> isEnded;
    std::atomic<bool> hasAll = false;
    support::ScriptedServer service({[&](support::Connection& peer) {
        peer.Read(1);
        peer.ShutdownSend();
        isEnded.get_future().wait();
        EXPECT_TRUE(peer.Read(payload.size() - 1) == payload.substr(1));
        hasAll = true;
        EXPECT_EQ(peer.ReadToEnd(), "");
    }});
    auto connection = Connect(service.Port(), 1h);
    Send(*connection, payload);
    Send(*connection, "never begun");
    RunUntil([&] { return owner.calls == "disconnect " + id + "\n"; });
    EXPECT_EQ(log.Count("ServiceConnection::ListenToService, session " + id + ", (2) End of file"), 1U);
    isEnded.set_value();
    RunUntil([&] { return hasAll.load(); });
    io.poll();
    owner.connection.reset();
    connection.reset();
    EXPECT_NO_THROW(service.Finish());
}

// While it is paused it reads nothing, so the write fails with the reset.
TEST_F(ServiceConnectionTest, ReportsAWriteThatFails) {
    support::ScriptedServer service({[](support::Connection& peer) {
        peer.Write(std::string(327680, 's'));
        peer.Read(1);
        peer.Reset();
    }});
    support::LogCapture errors(logError);
    const auto connection = Connect(service.Port());
    RunUntil([&] { return owner.frames.size() == 20; });
    Send(*connection, support::Megabytes(20));
    RunToTheEnd();
    EXPECT_EQ(owner.calls, "disconnect " + id + "\nremove " + id + "\n");
    EXPECT_EQ(errors.Texts(), std::vector<std::string>{"ServiceConnection::SendAsync, session " + id +
                                                       ": (104) Connection reset by peer"});
}

// The read that waits already is still answered, and relayed behind the word that the session has ended. No
// other is.
TEST_F(ServiceConnectionTest, RelaysOneReadAfterAFailedWrite) {
    support::ScriptedServer service({[](support::Connection& peer) {
        peer.Read(1);
        peer.Write(std::string(60000, 's'));
        peer.Reset();
    }});
    const auto connection = Connect(service.Port());
    Send(*connection, "1");
    RunUntil([&] {
        return log.Count("Session " + id + ", nothing to send, pausing") == 1 &&
               log.Count("Session " + id + ", listening to service") == 1;
    });
    service.Finish();
    Send(*connection, "fails");
    RunToTheEnd();
    EXPECT_EQ(owner.calls, "disconnect " + id + "\nremove " + id + "\n");
    EXPECT_EQ(owner.Received().size(), 16384U);
}

// As many payloads come in each turn of the loop as one batch brings.
TEST_F(ServiceConnectionTest, CatchesUpWithALongQueueOfSmallPayloadsWhileMoreCome) {
    constexpr int many = 5000, batch = 16;
    std::promise<void> isLong;
    support::ScriptedServer service({[&](support::Connection& peer) {
        isLong.get_future().wait();
        peer.ReadToEnd();
    }});
    const auto connection = Connect(service.Port(), 1h);
    Send(*connection, support::Megabytes(20));
    for (int payload = 0; payload < many; ++payload) Send(*connection, "small");
    isLong.set_value();
    int batches = 0;
    const auto isCaughtUp = [&] { return log.Count("Session " + id + ", nothing to send, pausing") > 0; };
    const auto end = std::chrono::steady_clock::now() + support::patience;
    for (io.restart(); batches < 4 * many / batch && std::chrono::steady_clock::now() < end;) {
        if (io.run_one_for(20ms) == 0) {
            if (isCaughtUp()) break;
            continue;
        }
        for (int payload = 0; payload < batch; ++payload) connection->QueueData("small");
        connection->SendArrived();
        ++batches;
    }
    EXPECT_TRUE(isCaughtUp()) << batches;
    connection->Stop();
}

// Letting go in any state closes the socket at once, and operations under way touch nothing (the address
// sanitizer sees it if it does).
struct State {
    const char* name;
    const char* reachedWith;  // the log line that shows it
    std::function<void(ServiceConnection&)> arrange = [](ServiceConnection&) {};
};
class ServiceConnectionDropped : public ServiceConnectionTest, public testing::WithParamInterface<State> {};

TEST_P(ServiceConnectionDropped, DoesNothingMore) {
    bool ended = false;
    support::ScriptedServer service({[&](support::Connection& peer) {
        try {
            peer.Write(std::string(1000000, 's'));
        } catch (const std::system_error&) {  // let go of before all of it was on its way
        }
        peer.ReadToEnd();
        ended = true;
    }});
    std::weak_ptr<ServiceConnection> dropped;
    {
        const auto connection = Connect(service.Port());
        dropped = connection;
        Send(*connection, "x");
        GetParam().arrange(*connection);
        if (GetParam().reachedWith != nullptr) {
            RunUntil([&] { return log.Count("Session " + id + GetParam().reachedWith) > 0; });
        }
    }
    const std::string callsBefore = owner.calls;
    owner.connection.reset();
    EXPECT_TRUE(dropped.expired());
    RunToTheEnd();
    EXPECT_EQ(owner.calls, callsBefore);
    if (GetParam().reachedWith != nullptr) {
        EXPECT_NO_THROW(service.Finish());
        EXPECT_TRUE(ended);
    }
}

void KeepWriting(ServiceConnection& connection) { Send(connection, support::Megabytes(20)); }
INSTANTIATE_TEST_SUITE_P(States, ServiceConnectionDropped,
                         testing::Values(State{"Connecting", nullptr},
                                         State{"Reading", ", pending uploads: 3"},
                                         State{"Writing", ", sent 1 bytes to service", KeepWriting},
                                         State{"Paused", ", pausing listening to service"},
                                         State{"Stopping", ", pending uploads: 3",
                                               [](ServiceConnection& session) { session.Stop(); }}),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace nox::tunnel_client
