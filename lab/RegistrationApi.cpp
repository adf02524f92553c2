#include "lab/RegistrationApi.h"

#include <httplib.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <nlohmann/json.hpp>
#include <string>
#include <system_error>

#include "lab/Listener.h"

namespace lab {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t threadCount = 16;
constexpr std::size_t maxPathBytes = 512;         // the library's routing recurses over the path
constexpr std::chrono::seconds requestLimit{2};   // for a whole request, however many bytes arrive meanwhile
constexpr std::chrono::seconds responseLimit{2};  // for the client to take more of the response
constexpr std::chrono::seconds loopPatience{5};   // the loop takes this long only when the lab is stopping

/// One client's socket. All reads together end at `deadline`: the library would only limit each of them, so a
/// client that sends one byte a second would hold its thread for ever.
class BoundedStream final : public httplib::Stream {
public:
    BoundedStream(int connectedSocket, Clock::time_point readDeadline)
        : handle(connectedSocket), deadline(readDeadline) {}

    bool is_readable() const override { return next < end || WaitUntil(deadline, POLLIN); }
    bool is_writable() const override { return WaitUntil(Clock::now() + responseLimit, POLLOUT); }
    ssize_t read(char* target, std::size_t size) override {
        if (next == end && !Refill()) return -1;
        const std::size_t count = std::min(size, end - next);
        std::copy_n(bytes.begin() + next, count, target);
        next += count;
        return static_cast<ssize_t>(count);
    }
    ssize_t write(const char* source, std::size_t size) override {
        return is_writable() ? send(handle, source, size, MSG_NOSIGNAL) : -1;
    }
    // Nobody asks for the addresses.
    void get_remote_ip_and_port(std::string&, int&) const override {}
    void get_local_ip_and_port(std::string&, int&) const override {}
    socket_t socket() const override { return handle; }

private:
    bool WaitUntil(Clock::time_point time, short event) const {
        pollfd poller{handle, event, 0};
        const auto rest = std::chrono::ceil<std::chrono::milliseconds>(time - Clock::now());
        return rest.count() > 0 && poll(&poller, 1, static_cast<int>(rest.count())) == 1;
    }
    /// The library reads headers byte by byte; this saves it a system call for each.
    bool Refill() {
        const ssize_t size = WaitUntil(deadline, POLLIN) ? recv(handle, bytes.data(), bytes.size(), 0) : 0;
        next = 0;
        end = size > 0 ? static_cast<std::size_t>(size) : 0;
        return end > 0;
    }

    const int handle;
    const Clock::time_point deadline;
    std::array<char, 4096> bytes;
    std::size_t next = 0, end = 0;
};

/// Serves one request on each connection.
class Server final : public httplib::Server {
    bool process_and_close_socket(socket_t client) override {
        BoundedStream stream(client, Clock::now() + requestLimit);
        bool closed = false;
        const bool served = process_request(stream, true, closed, nullptr);
        shutdown(client, SHUT_RDWR);
        close(client);
        return served;
    }
};

// The library's own options would let two labs share one port.
void SetOptions(int listeningSocket) {
    const int on = 1;
    setsockopt(listeningSocket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
}

/// The host of the device's request when that is an address, so that a device that reaches us through a
/// forwarded port finds the tunnel server in the same way; otherwise our own address.
std::string ReachedAt(const httplib::Request& request, const asio::ip::address& ours) {
    const std::string host = request.get_header_value("Host");
    std::error_code notNumeric;
    const auto address = asio::ip::make_address_v4(host.substr(0, host.find(':')), notNumeric);
    return notNumeric ? ours.to_string() : address.to_string();
}

httplib::Server::HandlerResponse RefuseLongPaths(const httplib::Request& request,
                                                 httplib::Response& response) {
    if (request.path.size() <= maxPathBytes) return httplib::Server::HandlerResponse::Unhandled;
    response.status = 414;
    return httplib::Server::HandlerResponse::Handled;
}

ApiRequest Translate(const httplib::Request& request, const asio::ip::address& ours) {
    static const std::string scheme = "Bearer ";
    const std::string authorization = request.get_header_value("Authorization");
    const bool bears = authorization.rfind(scheme, 0) == 0;
    return {request.method, request.path, bears ? authorization.substr(scheme.size()) : "", request.body,
            ReachedAt(request, ours)};
}

}  // namespace

struct RegistrationApi::Http {
    Http(asio::io_context& loop, const asio::ip::address& address, Registration& handler)
        : io(loop), ours(address), registration(handler) {
        const auto handle = [this](const httplib::Request& request, httplib::Response& response) {
            Handle(request, response);
        };
        server.Post(".*", handle)
            .Delete(".*", handle)
            .Get(".*", handle)
            .Put(".*", handle)
            .Patch(".*", handle);
        server.set_pre_routing_handler(RefuseLongPaths);
        server.set_tcp_nodelay(true).set_socket_options(SetOptions).set_payload_max_length(maxApiBodyBytes);
        server.new_task_queue = [] { return new httplib::ThreadPool(threadCount); };
    }

    void Handle(const httplib::Request& request, httplib::Response& response) {
        // The call is copied, because the loop may still handle it when we do not wait any more.
        auto reply =
            asio::post(io, asio::use_future([handler = &registration, call = Translate(request, ours)] {
                           return handler->Handle(call);
                       }));
        if (reply.wait_for(loopPatience) != std::future_status::ready) {
            response.status = 503;
            return;
        }
        const ApiReply made = reply.get();
        response.status = made.status;
        response.set_content(made.body, "application/json");
    }

    asio::io_context& io;
    asio::ip::address ours;
    Registration& registration;
    Server server;
};

RegistrationApi::RegistrationApi(asio::io_context& io, const Ports& ports, Registration& handler)
    : http(std::make_unique<Http>(io, ports.address, handler)) {
    port = Bind(io, ports);
    thread = std::thread([this, working = asio::make_work_guard(io)] { http->server.listen_after_bind(); });
    // Otherwise a Stop that comes before the thread has begun to listen would be lost.
    while (!http->server.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

unsigned short RegistrationApi::Bind(asio::io_context& io, const Ports& ports) {
    const std::string address = ports.address.to_string();
    const int bound = ports.api == 0                                  ? http->server.bind_to_any_port(address)
                      : http->server.bind_to_port(address, ports.api) ? ports.api
                                                                      : -1;
    if (bound >= 0) return static_cast<unsigned short>(bound);
    Listen(io, {ports.address, ports.api});  // throws with the reason, which the library does not tell
    throw std::runtime_error("the registration API cannot listen");
}

RegistrationApi::~RegistrationApi() {
    Stop();
    thread.join();
}

void RegistrationApi::Stop() { http->server.stop(); }

}  // namespace lab
