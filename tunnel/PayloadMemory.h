#pragma once

#include <asio.hpp>
#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace nox::tunnel_client {

/// The memory in which payloads wait until they can be written, in either direction.
///
/// A copy takes at most twice its size, whatever was copied before it. After a burst the memory goes back to
/// the system, even while sessions live on, but once a second at most. Runs on the thread of `io`.
class PayloadMemory {
public:
    explicit PayloadMemory(asio::io_context& io) : timer(io) {}

    std::string Copy(std::string_view bytes);
    /// Takes a copy back.
    void Release(std::string copy);
    /// Gives unused memory back at once, if there was a burst.
    void Trim();

private:
    static constexpr std::size_t minSpareBytes = 16384;  // a smaller one is quickly allocated
    static constexpr std::size_t maxSpares = 32;
    static constexpr std::size_t burstBytes = 2097152;
    static constexpr std::chrono::seconds trimDelay{1};

    bool IsBurstOver() const { return peak >= burstBytes && held < peak / 4; }
    void OnTimer(std::error_code error);

    asio::steady_timer timer;
    bool isTimerSet = false;
    std::size_t held = 0;  // bytes copied and not released
    std::size_t peak = 0;  // the most that was held since the last trim
    std::vector<std::string> spares;
};

}  // namespace nox::tunnel_client
