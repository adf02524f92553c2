#include <dlfcn.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <string>
#include <vector>

#include "tests/support/LogCapture.h"
#include "tests/support/Loopback.h"
#include "tunnel/SessionTable.h"

static int trims = 0;

// This program's function counts the calls and hands them on to the C library's.
extern "C" int malloc_trim(std::size_t pad) noexcept {
    ++trims;
    static const auto real = reinterpret_cast<int (*)(std::size_t)>(dlsym(RTLD_NEXT, "malloc_trim"));
    return real != nullptr ? real(pad) : 0;
}

namespace nox::tunnel_client {
namespace {

using namespace std::chrono_literals;
using asio::ip::tcp;
using support::RunUntil;

constexpr std::size_t sessions = 16;
std::string Id(std::size_t session) { return "session-" + std::to_string(10000000 + session); }

class SessionTableTest : public testing::Test, public FrameWriter::Owner {
protected:
    SessionTableTest() { delays.stall = delays.sessionClose = delays.sessionRemoval = 10ms; }
    void OnFrameSent(TunnelMessage& frame) override {
        if (frame.type == dataFrame) table.UploadFinished(frame);
    }
    void OnQueueEmpty() override { table.OnQueueEmpty(); }
    void Stop() override {}

    void ReadFromTunnel() {
        std::error_code error;
        std::vector<char> bytes(1000000);
        while (!error) pair.far.read_some(asio::buffer(bytes), error);
    }

    support::LogCapture log{logDebug};
    asio::io_context io;
    support::SocketPair pair{io, 8192};
    Delays delays;
    std::string password = "secret";
    FrameWriter writer{io, pair.near, *this};
    SessionTable table{io, password, writer, delays};
};

// Of a burst of uploads once they have left, and of one of downloads as soon as no session is left.
TEST_F(SessionTableTest, GivesTheMemoryOfABurstBack) {
    tcp::acceptor acceptor(io, {asio::ip::address_v4::loopback(), 0});
    std::vector<tcp::socket> services;
    services.reserve(sessions);  // their operations refer to them
    const std::string much(400000, 's');
    for (std::size_t session = 0; session < sessions; ++session) {
        table.OpenSession({Id(session), "127.0.0.1", acceptor.local_endpoint().port()});
        services.push_back(acceptor.accept());
        asio::async_write(services.back(), asio::buffer(much), [](auto...) {});
    }
    ASSERT_TRUE(RunUntil(io, [&] { return writer.FramesWaiting() >= 20 * sessions; }))
        << "with the tunnel stalled";
    trims = 0;
    EXPECT_TRUE(RunUntil(io, [&] { return ReadFromTunnel(), trims == 1; }));

    const std::string payload(131072, 'p');
    for (int payloads = 0; payloads < 200; ++payloads) {
        table.Deliver(Id(0), payload);
        table.SendArrived();
    }
    table.StopAll();
    EXPECT_TRUE(RunUntil(io, [&] { return log.Count("Removing stopped session " + Id(sessions - 1)) == 1; }));
    EXPECT_EQ(trims, 2);
}

}  // namespace
}  // namespace nox::tunnel_client
