#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "fuzz/SealedWorld.h"

namespace fuzz {

/// A server's texts, put together piece by piece.
class Stream {
public:
    void Send(const std::string& bytes) { says.back().text += bytes; }
    /// An object without a "sign" is signed, and stamped when it has no time stamp, because otherwise the
    /// signature would keep almost every input out. Anything else is sent as it is.
    void SendControl(const std::string& text);
    /// @param count its lower five bits count: enough for every delay of the agent
    void WaitSeconds(unsigned count) { says.push_back({std::chrono::seconds(count % 32), ""}); }

    const std::vector<Saying>& Sayings() const { return says; }

private:
    std::vector<Saying> says{1};
};

/// The whole life of one connection of a tunnel client to a server that sends `stream` and hangs up.
/// Connections share nothing, so one is enough. Sessions find a service at ports 6 (deaf), 7 (sends 30
/// pieces), 9 (silent), 13 (sends a word and hangs up) and 14 (sends a word after 3 and after 7 seconds).
void RunTunnel(const Stream& stream, std::size_t pieceBytes);

}  // namespace fuzz
