#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "tunnel/ServiceConnection.h"

namespace nox::tunnel_client {

/// Memory of payloads, to serve again: new memory would first have to be found, and filled with zeros. The last kept is
/// the first used, for it is still in the processor's cache. Runs on the event loop's thread.
class SparePayloads {
public:
    /// @param most how many are kept
    explicit SparePayloads(std::size_t most) : limit(most) {}

    /// Drops what is too small to be worth it, and what is too many.
    void Keep(std::string payload) {
        const bool isLarge = payload.capacity() >= ServiceConnection::maxReadBytes;
        if (isLarge && payloads.size() < limit) payloads.push_back(std::move(payload));
    }

    /// @return one of those, whatever it holds, or an empty string
    std::string Take() {
        if (payloads.empty()) return {};
        std::string payload = std::move(payloads.back());
        payloads.pop_back();
        return payload;
    }

    /// Frees them all.
    void Clear() { payloads = {}; }

private:
    std::size_t limit;
    std::vector<std::string> payloads;
};

}  // namespace nox::tunnel_client
