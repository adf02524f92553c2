// Runs registrations. The first line is the discovery data, and each other line is the API's next reply, as
// in 200 {"apiVersion":"2.0.0"}. When no line is left, connections are refused.
#include <arpa/inet.h>

#include <sstream>
#include <stdexcept>

#include "fuzz/SealedWorld.h"
#include "registration/RegistrationClient.h"

using namespace nox::tunnel_client;

namespace {

constexpr std::uint16_t ssoPort = 1;

// Puts our own API in the place of the one that the input names.
std::string WithOurApi(const std::string& discovery) {
    try {
        json::jobject data = json::jobject::parse(discovery);
        json::jobject config = data["config"];
        json::jobject server = config["tunnelServer"];
        if (server.has_key("apiEndpoint")) server.set("apiEndpoint", "\"http://127.0.0.1:80\"");
        config["tunnelServer"] = server;
        data["config"] = config;
        return data.as_string();
    } catch (const std::exception&) {
        return discovery;  // the agent will find the same error
    }
}

std::string SsoReply(const std::string& discovery) {
    json::jobject reply;
    reply["status"] = "ok";
    reply["token"] = "token";
    reply["certificate_id"] = "certificate";
    reply.set("discovery_data", discovery);
    const std::string text = reply.as_string();
    const std::uint32_t length = htonl(static_cast<std::uint32_t>(text.size()));
    return std::string(reinterpret_cast<const char*>(&length), sizeof length) + text;
}

std::string HttpReply(const std::string& line) {
    const std::string body = line.size() > 4 ? line.substr(4) : "";
    return "HTTP/1.1 " + line.substr(0, 3) +
           " Fuzz\r\nConnection: close\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

RegistrationConfig Configuration() {
    RegistrationConfig config;
    config.ssoHost = "127.0.0.1";
    config.ssoPort = ssoPort;
    config.dvrUsername = "dvr";
    config.macAddress = "00:1A:2B:3C:4D:5E";
    config.routes = {{"web", 80}, {"rtsp", 554}};
    return config;
}

void Register(RegistrationClient& client) {
    try {
        client.Register();
    } catch (const std::runtime_error& error) {
        const std::string text = error.what();
        fuzz::Require(text == "Discovery failed" || text == "Registration failed", "two errors");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    static const CurlConnection keepsLibcurlInitialised;
    std::istringstream lines(std::string(reinterpret_cast<const char*>(data), size));
    std::string line;
    std::getline(lines, line);
    const std::string sso = SsoReply(WithOurApi(line));
    const fuzz::SealedWorld world([&](std::uint16_t port) -> std::optional<fuzz::Peer> {
        if (port == ssoPort) return fuzz::Peer{sso};
        if (!std::getline(lines, line)) return std::nullopt;
        return fuzz::Peer{HttpReply(line)};
    });
    RegistrationClient client(Configuration());
    for (int cycle = 0; cycle < 4; ++cycle) Register(client);
    return 0;
}
