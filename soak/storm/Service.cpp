#include "soak/storm/Service.h"

#include <algorithm>
#include <utility>

namespace storm {

using asio::ip::tcp;

namespace {

constexpr int smallBufferBytes = 16384;  // of a service that stops reading, so that the agent notices soon
constexpr int callsPerTurn = 8;
constexpr std::size_t slowReadBytes = 4096;

const tcp::endpoint anyPort(asio::ip::address_v4::loopback(), 0);

/// All services share it, because nothing stays in it between two calls.
std::array<char, 262144> scratch;

}  // namespace

Service::Service(asio::io_context& loop, Opening& account, std::uint64_t seed)
    : io(loop),
      opening(account),
      plan(account.plan),
      facts(account.facts),
      random(seed),
      nextPause(plan.pauseEvery) {}

unsigned short Service::Listen() {
    if (plan.ending == Ending::ServiceRefuses) {
        facts.isRefused = true;
        return refusing.emplace(io, anyPort).local_endpoint().port();
    }
    acceptor.emplace(io, anyPort);
    if (plan.manner == Manner::Pausing || plan.manner == Manner::Never || plan.isLagging)
        acceptor->set_option(tcp::socket::receive_buffer_size(smallBufferBytes));
    acceptor->async_accept(socket, Handler(&Service::OnAccepted));
    return acceptor->local_endpoint().port();
}

void Service::Abandon() {
    acceptor.reset();
    if (!refusing && socket.is_open()) return;  // it will see the agent's end
    Close();
}

void Service::OnAccepted(std::error_code error) {
    acceptor.reset();
    if (error) return Close();
    acceptTimer.expires_after(plan.acceptDelay);
    acceptTimer.async_wait(Handler(&Service::Begin));
}

void Service::Begin(std::error_code error) {
    if (error || over) return;
    socket.non_blocking(true);
    if (plan.serviceGoesAfter.count() > 0) {
        goTimer.expires_after(plan.serviceGoesAfter);
        goTimer.async_wait(Handler(&Service::OnTimeToGo));
    }
    if (plan.manner != Manner::Never) Receive();
    Send();
}

void Service::Send() {
    for (int calls = 0; calls < callsPerTurn && !over; ++calls) {
        if (facts.sentUp == plan.up) return Finish();
        const auto wanted =
            std::min<std::uint64_t>(Draw(random, 1, plan.largestWrite), plan.up - facts.sentUp);
        opening.up.Fill(facts.sentUp, scratch.data(), wanted);
        std::error_code error;
        facts.sentUp += socket.write_some(asio::buffer(scratch.data(), wanted), error);
        if (error == asio::error::would_block)
            return socket.async_wait(tcp::socket::wait_write, Handler(&Service::OnWritable));
        if (error) return;  // the agent has closed; the reading side sees it, too
        if (plan.writePause.count() > 0 && OneIn(random, 16)) {
            sendTimer.expires_after(plan.writePause);
            return sendTimer.async_wait(Handler(&Service::OnSendPause));
        }
    }
    if (!over) asio::post(io, [self = shared_from_this()] { self->OnWritable({}); });
}

void Service::OnWritable(std::error_code error) {
    if (!error && !over) Send();
}

void Service::OnSendPause(std::error_code error) { OnWritable(error); }

// A service that waits for all bytes before it ends comes here again when it has them.
void Service::Finish() {
    if (over || facts.hasShutDown || facts.sentUp < plan.up) return;
    if (plan.ending == Ending::ServiceCloses) return Leave(false);
    const bool isDone = plan.ending == Ending::ServiceWhenDone && facts.receivedDown >= plan.down;
    if (!isDone && plan.ending != Ending::ServiceShutsDown) return;
    std::error_code error;
    socket.shutdown(tcp::socket::shutdown_send, error);
    if (error) return;  // the agent has closed first
    facts.hasShutDown = true;
}

void Service::Receive() {
    for (int calls = 0; calls < callsPerTurn && !over; ++calls) {
        if (MustPause()) {
            nextPause += plan.pauseEvery;
            readTimer.expires_after(plan.manner == Manner::Slow ? milliseconds(1) : plan.pause);
            return readTimer.async_wait(Handler(&Service::OnReadPause));
        }
        if (!ReadSome()) return;
    }
    if (!over) asio::post(io, [self = shared_from_this()] { self->OnReadPause({}); });
}

bool Service::MustPause() const {
    if (plan.manner == Manner::Slow) return facts.receivedDown >= nextPause;
    return plan.manner == Manner::Pausing && facts.receivedDown >= nextPause;
}

/// @return whether to read on
bool Service::ReadSome() {
    const std::size_t most = plan.manner == Manner::Slow ? Draw(random, 1, slowReadBytes) : scratch.size();
    std::error_code error;
    const std::size_t size = socket.read_some(asio::buffer(scratch.data(), most), error);
    facts.wrongDown += opening.down.CountWrong(facts.receivedDown, {scratch.data(), size});
    facts.receivedDown += size;
    if (error == asio::error::would_block) {
        if (!waitsSince) waitsSince = Clock::now();
        socket.async_wait(tcp::socket::wait_read, Handler(&Service::OnReadable));
        return false;
    }
    if (error) return SawEnd(), false;
    waitsSince.reset();
    if (plan.manner == Manner::Slow) nextPause = facts.receivedDown;
    Finish();
    return !over;
}

void Service::OnReadable(std::error_code error) {
    if (!error && !over) Receive();
}

// It reads at least once between two pauses.
void Service::OnReadPause(std::error_code error) {
    if (!error && !over && ReadSome()) Receive();
}

void Service::OnTimeToGo(std::error_code error) {
    if (!error && !over) Leave(plan.ending == Ending::ServiceResets);
}

void Service::SawEnd() {
    facts.endedAt = Clock::now();
    if (waitsSince) facts.waited = std::chrono::duration_cast<milliseconds>(facts.endedAt - *waitsSince);
    Close();
}

void Service::Leave(bool resets) {
    (resets ? facts.hasReset : facts.hasClosed) = true;
    std::error_code ignored;
    if (resets) socket.set_option(asio::socket_base::linger(true, 0), ignored);
    Close();
}

void Service::Close() {
    over = true;
    std::error_code ignored;
    socket.close(ignored);
    acceptor.reset();
    refusing.reset();
    for (auto* timer : {&acceptTimer, &sendTimer, &readTimer, &goTimer}) timer->cancel();
}

}  // namespace storm
