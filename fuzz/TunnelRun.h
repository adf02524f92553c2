#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace fuzz {

/// A server's control frame. An object without a "sign" is signed, and stamped where it has no time stamp:
/// else the signature would keep every input out. Anything else is sent as it is.
std::string ControlFrame(const std::string& text);

/// A whole Run of a tunnel client: its first `connections` are sent `stream` and closed, the others refused.
/// Sessions find a service at ports 6 (deaf), 7 (sends 30 pieces), 9 (is silent) and 13 (says hello).
void RunTunnel(const std::string& stream, std::size_t pieceBytes, int connections);

}  // namespace fuzz
