#pragma once

#include <cstdint>
#include <string>

#include "json/json.h"

namespace nox::tunnel_client {

/// Client of the device's local single-sign-on service. Each request has a connection of its own:
///   connect, send length and JSON text, receive length and JSON text, close
/// A length is 4 bytes, big-endian; nothing follows the text. Every call blocks without any time-out, for as
/// long as the operating system lets it. The only log line is that of the request that is about to be sent.
///
/// `host` is a numeric IPv4 or IPv6 address (names are not resolved), the port is the low 16 bits of `port`.
/// All calls throw std::system_error when the host is not numeric or the socket fails ("connect: ...",
/// "write: ...", "read: ..." or "close: ..."; a reply that ends too early is an end of file on "read"). The
/// typed requests also throw json::parsing_error for a reply that is no JSON object, and
/// std::invalid_argument "Invalid status in response" or "Missing <member> in response".
class SSOConnection {
public:
    /// The bearer token for the registration API; may be empty.
    static std::string GetToken(const std::string& host, std::int32_t port);
    /// The discovery data as JSON text, sent as an object or as a string; may be empty.
    static std::string GetDiscoveryData(const std::string& host, std::int32_t port);
    /// The id of the device's certificate; may be empty.
    static std::string GetCertificateId(const std::string& host, std::int32_t port);
    /// Makes the service forget its state. This helps when the cloud keeps refusing its tokens.
    static void Reset(const std::string& host, std::int32_t port);

    /// Sends one text and returns the reply. The memory for the reply grows with the bytes that arrive,
    /// whatever length the service announces.
    static std::string SendRequest(const std::string& host, std::int32_t port, const std::string& request);
    /// @throws std::invalid_argument unless "status" is the JSON string "ok"
    static void CheckStatus(const json::jobject& reply);
};

}  // namespace nox::tunnel_client
