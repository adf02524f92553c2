// A slow line between a device and its cloud: relays connections to a local port, everything both ways later
// by DELAY milliseconds, and at UP and DOWN megabits per second in all from and to the device. Usage:
// bench-link TARGET_PORT UP DELAY DOWN, which prints its own port and relays until it is killed.

#include <netinet/tcp.h>

#include <algorithm>
#include <asio.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <memory>
#include <string>
#include <utility>

namespace {

using asio::ip::tcp;
using Clock = std::chrono::steady_clock;
using std::chrono::nanoseconds;

/// The line in one direction, shared by all connections: a byte leaves when all bytes before it have left.
/// Lost time is made good up to `burst`, because a timer that fires late would otherwise make the line slower
/// than its rate.
struct Wire {
    static constexpr std::chrono::milliseconds burst{10};
    double bitsPerSecond;
    Clock::time_point isFree = Clock::now();

    Clock::time_point Departure(std::size_t bytes) {
        const nanoseconds duration(
            static_cast<std::int64_t>(8e9 * static_cast<double>(bytes) / bitsPerSecond));
        return isFree = std::max(isFree, Clock::now() - burst) + duration;
    }
};

/// One direction of one connection.  Listen -> OnRead -> Listen ... takes a packet when the wire is free for
/// it, Deliver -> OnDue -> Deliver ... hands it on when it has arrived. Bytes that wait for the wire wait at
/// the sender.
class Direction : public std::enable_shared_from_this<Direction> {
public:
    Direction(std::shared_ptr<tcp::socket> source, std::shared_ptr<tcp::socket> sink, Wire& shared,
              std::chrono::milliseconds delayOfLine)
        : from(std::move(source)),
          to(std::move(sink)),
          free(from->get_executor()),
          due(from->get_executor()),
          wire(shared),
          delay(delayOfLine) {}

    void Listen() {
        free.expires_at(wire.isFree);
        free.async_wait([self = shared_from_this()](auto) {
            if (self->wire.isFree > Clock::now()) return self->Listen();  // another connection was faster
            self->Read();
        });
    }

private:
    struct Packet {
        std::string bytes;
        Clock::time_point arrives;
    };

    void Read() {
        from->async_read_some(
            asio::buffer(buffer),
            [self = shared_from_this()](auto error, std::size_t size) { self->OnRead(error, size); });
    }

    void OnRead(std::error_code error, std::size_t size) {  // an empty packet carries the end
        const auto departure = std::max(wire.Departure(size), Clock::now());
        packets.push_back({error ? "" : buffer.substr(0, size), departure + delay});
        if (packets.size() == 1) Deliver();
        if (!error) Listen();
    }

    void Deliver() {
        due.expires_at(packets.front().arrives);
        due.async_wait([self = shared_from_this()](auto) { self->OnDue(); });
    }

    void OnDue() {
        std::error_code ignored;
        if (packets.front().bytes.empty()) return void(to->shutdown(tcp::socket::shutdown_send, ignored));
        asio::async_write(*to, asio::buffer(packets.front().bytes),
                          [self = shared_from_this()](std::error_code error, auto) {
                              self->packets.pop_front();
                              if (!error && !self->packets.empty()) self->Deliver();
                          });
    }

    std::shared_ptr<tcp::socket> from, to;
    asio::steady_timer free, due;
    Wire& wire;
    std::chrono::milliseconds delay;
    std::string buffer = std::string(1448, '\0');
    std::deque<Packet> packets;  // that have left and not arrived
};

struct Link {
    Link(unsigned short port, double upMegabits, std::chrono::milliseconds delayOfLine, double downMegabits)
        : up{upMegabits * 1e6},
          down{downMegabits * 1e6},
          target(asio::ip::address_v4::loopback(), port),
          delay(delayOfLine) {
        // A small buffer, because little waits in a real line; and packets of a real line's size, because
        // loopback's are larger than that buffer and would trickle.
        acceptor.set_option(asio::socket_base::receive_buffer_size(16384));
        acceptor.set_option(asio::detail::socket_option::integer<IPPROTO_TCP, TCP_MAXSEG>(1460));
        acceptor.listen();
        std::printf("port %d\n", acceptor.local_endpoint().port());
        std::fflush(stdout);
    }

    void Accept() {
        auto device = std::make_shared<tcp::socket>(io);
        acceptor.async_accept(*device, [this, device](std::error_code error) {
            if (!error) Relay(device);
            Accept();
        });
    }

    void Relay(const std::shared_ptr<tcp::socket>& device) {
        auto cloud = std::make_shared<tcp::socket>(io);
        cloud->connect(target);
        device->set_option(tcp::no_delay(true));
        cloud->set_option(tcp::no_delay(true));
        std::make_shared<Direction>(device, cloud, up, delay)->Listen();
        std::make_shared<Direction>(cloud, device, down, delay)->Listen();
    }

    asio::io_context io{1};
    tcp::acceptor acceptor{io, {asio::ip::address_v4::loopback(), 0}, false};
    Wire up, down;
    tcp::endpoint target;
    std::chrono::milliseconds delay;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) return 2;
    Link link(static_cast<unsigned short>(std::atoi(argv[1])), std::atof(argv[2]),
              std::chrono::milliseconds(std::atoi(argv[3])), std::atof(argv[4]));
    link.Accept();
    link.io.run();
}
