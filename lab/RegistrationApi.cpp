#include "lab/RegistrationApi.h"

#include <httplib.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <string>
#include <system_error>

#include "lab/Listener.h"

namespace lab {

namespace {

constexpr std::size_t threadCount = 4;
constexpr std::size_t maxPathBytes = 512;  // the library's routing recurses over the path
constexpr std::chrono::seconds clientPatience{
    2};  // so long may a client keep a thread waiting for its next byte
constexpr std::chrono::seconds loopPatience{5};  // only a lab that is coming down ever takes so long

void SetOptions(int listeningSocket) {  // the library's own choice would let two labs share one port
    const int on = 1;
    setsockopt(listeningSocket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
}

/// The host that the device used, if it used an address; this serves devices that reach us through a
/// forwarded port.
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
        server.set_keep_alive_max_count(1).set_keep_alive_timeout(clientPatience.count());
        server.set_read_timeout(clientPatience).set_write_timeout(clientPatience);
        server.new_task_queue = [] { return new httplib::ThreadPool(threadCount); };
    }

    void Handle(const httplib::Request& request, httplib::Response& response) {
        // By value: should we stop waiting, the loop may still come to it.
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
    httplib::Server server;
};

RegistrationApi::RegistrationApi(asio::io_context& io, const Ports& ports, Registration& handler)
    : http(std::make_unique<Http>(io, ports.address, handler)) {
    port = Bind(io, ports);
    thread = std::thread([this, working = asio::make_work_guard(io)] { http->server.listen_after_bind(); });
    while (!http->server.is_running())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));  // or Stop is lost
}

unsigned short RegistrationApi::Bind(asio::io_context& io, const Ports& ports) {
    const std::string address = ports.address.to_string();
    const int bound = ports.api == 0                                  ? http->server.bind_to_any_port(address)
                      : http->server.bind_to_port(address, ports.api) ? ports.api
                                                                      : -1;
    if (bound >= 0) return static_cast<unsigned short>(bound);
    Listen(io, {ports.address, ports.api});  // the library does not say what is wrong, but a trial does
    throw std::runtime_error("the registration API cannot listen");
}

RegistrationApi::~RegistrationApi() {
    Stop();
    thread.join();
}

void RegistrationApi::Stop() { http->server.stop(); }

}  // namespace lab
