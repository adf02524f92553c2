// Sends an SSO service's reply. The first character chooses the request: t, d, c or r. Then the reply's
// length is put before it. With any other character the reply is sent as it is, length included, in pieces of
// 3 bytes.
#include <arpa/inet.h>

#include <stdexcept>
#include <system_error>

#include "fuzz/SealedWorld.h"
#include "json/json.h"
#include "registration/SSOConnection.h"

using nox::tunnel_client::SSOConnection;

namespace {

std::string Framed(const std::string& reply) {
    const std::uint32_t length = htonl(static_cast<std::uint32_t>(reply.size()));
    return std::string(reinterpret_cast<const char*>(&length), sizeof length) + reply;
}

void Request(char kind) {
    switch (kind) {
        case 'd': SSOConnection::GetDiscoveryData("127.0.0.1", 1); break;
        case 'c': SSOConnection::GetCertificateId("127.0.0.1", 1); break;
        case 'r': SSOConnection::Reset("127.0.0.1", 1); break;
        default: SSOConnection::GetToken("127.0.0.1", 1);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    if (size == 0) return 0;
    const char kind = static_cast<char>(data[0]);
    const bool framed = std::string("tdcr").find(kind) != std::string::npos;
    const std::string reply(reinterpret_cast<const char*>(data) + 1, size - 1);
    const auto answer = [&](std::uint16_t) { return fuzz::Peer{framed ? Framed(reply) : reply}; };
    const fuzz::SealedWorld world(answer, framed ? SIZE_MAX : 3);
    try {
        Request(kind);
        fuzz::Require(reply.find("\"ok\"") != std::string::npos, "no status, no success");
    } catch (const std::invalid_argument&) {  // the JSON library's errors are of this kind too
    } catch (const std::system_error&) {
        fuzz::Require(!framed, "a whole reply is read");
    }
    return 0;
}
