#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "lab/wire/Frame.h"
#include "tests/support/ScriptedServer.h"

/// The three languages that the agent speaks, for scripted servers: one call reads or writes
/// one message of each, as docs/protocol.md describes them. A peer that wants to be wrong
/// writes its own bytes to the Connection.
namespace support {

/// SSO service: a 4-byte big-endian length, then the JSON text.
std::string ReadSsoRequest(Connection& connection);
std::string SsoReply(const std::string& json);

/// HTTP/1.1 request as it came, the body read by its Content-Length (no chunked bodies: the
/// agent sends none).
struct HttpRequest {
    std::string method;
    std::string target;
    std::vector<std::pair<std::string, std::string>> headers;  ///< in order, names as sent
    std::string body;

    /// The value of the first header of that name (case-insensitive), or "".
    std::string Header(const std::string& name) const;
};
HttpRequest ReadHttpRequest(Connection& connection);
/// A whole reply that closes the connection afterwards.
std::string HttpReply(int status, const std::string& body);

/// One whole tunnel frame.
struct Frame {
    std::uint8_t type = 0;
    std::string session;  ///< 16 characters when read; when written, as EncodeHeader takes it
    std::string payload;
};
Frame ReadFrame(Connection& connection);
void WriteFrame(Connection& connection, const Frame& frame);
/// Reads frames, skipping heartbeats, until one of type 3; returns its JSON text.
std::string ReadControl(Connection& connection);
/// Signs a JSON object text with `password` (adding those of timestamp, noncestr and sign that it lacks, the
/// rest goes out as it is written) and writes it as a type 3 frame.
void WriteControl(Connection& connection, const std::string& password, const std::string& json);

}  // namespace support
