#include "registration/SSOConnection.h"

#include <arpa/inet.h>

#include <asio.hpp>
#include <stdexcept>

#include "log/Log.h"

namespace nox::tunnel_client {

using asio::ip::tcp;

namespace {

void WriteFrame(tcp::socket& socket, const std::string& text) {
    const std::uint32_t length = htonl(static_cast<std::uint32_t>(text.size()));
    asio::write(socket, asio::buffer(&length, sizeof length));
    asio::write(socket, asio::buffer(text));
}

std::string ReadFrame(tcp::socket& socket) {
    std::uint32_t length = 0;
    asio::read(socket, asio::buffer(&length, sizeof length));
    std::string text;  // grows as bytes arrive, because an announced length alone must not cost us memory
    asio::read(socket, asio::dynamic_buffer(text), asio::transfer_exactly(ntohl(length)));
    return text;
}

json::jobject RequestFor(const std::string& kind) {
    json::jobject request;
    request["request"] = kind;
    return request;
}

json::jobject Ask(const std::string& host, std::int32_t port, const json::jobject& request) {
    json::jobject reply = json::jobject::parse(SSOConnection::SendRequest(host, port, request.as_string()));
    SSOConnection::CheckStatus(reply);
    return reply;
}

std::string AskFor(const std::string& member, const std::string& host, std::int32_t port,
                   const json::jobject& request) {
    const json::jobject reply = Ask(host, port, request);
    if (!reply.has_key(member)) throw std::invalid_argument("Missing " + member + " in response");
    return reply[member].as_string();
}

}  // namespace

std::string SSOConnection::GetToken(const std::string& host, std::int32_t port) {
    json::jobject request = RequestFor("token");
    request["scope"] = std::string("file-receiver hardware-read");
    return AskFor("token", host, port, request);
}

std::string SSOConnection::GetDiscoveryData(const std::string& host, std::int32_t port) {
    return AskFor("discovery_data", host, port, RequestFor("data"));
}

std::string SSOConnection::GetCertificateId(const std::string& host, std::int32_t port) {
    return AskFor("certificate_id", host, port, RequestFor("certificate_id"));
}

void SSOConnection::Reset(const std::string& host, std::int32_t port) {
    Ask(host, port, RequestFor("reset"));
}

std::string SSOConnection::SendRequest(const std::string& host, std::int32_t port,
                                       const std::string& request) {
    asio::io_context io;
    tcp::socket socket(io);
    LogWrite("SSOConnection", __LINE__, logInfo, "Connecting to SSO service at %s:%d, request %s",
             host.c_str(), port, request.c_str());
    socket.connect(tcp::endpoint(asio::ip::make_address(host), static_cast<std::uint16_t>(port)));
    WriteFrame(socket, request);
    std::string reply = ReadFrame(socket);
    socket.close();
    return reply;
}

void SSOConnection::CheckStatus(const json::jobject& reply) {
    if (!reply.has_key("status") || !reply["status"].is_string() || reply["status"].as_string() != "ok")
        throw std::invalid_argument("Invalid status in response");
}

}  // namespace nox::tunnel_client
