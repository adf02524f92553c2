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
/// A copy takes little more than its own size, whatever was copied before it. Blocks of full size serve again: fresh
/// ones would have to be found and zeroed. After a burst the memory is given back to the system, which the
/// allocator alone would not do, even while sessions live on; but once a second at most, because a busy tunnel
/// would have to ask for it again.
///
/// Everything runs on the thread of `io`.
class PayloadMemory {
public:
    static constexpr std::size_t blockBytes = 16384;  ///< of one copy at most

    explicit PayloadMemory(asio::io_context& io) : timer(io) {}

    /// @param bytes at most blockBytes
    std::string Copy(std::string_view bytes);
    /// Takes a copy back.
    void Release(std::string copy);
    /// Gives back what it can at once, if there was a burst, and keeps nothing for later.
    void Trim();

private:
    static constexpr std::size_t burstBytes = 2097152;
    static constexpr std::size_t maxSpares = 32;
    static constexpr std::chrono::seconds trimDelay{1};

    bool IsBurstOver() const { return peak >= burstBytes && held < peak / 4; }
    void OnTimer(std::error_code error);

    asio::steady_timer timer;
    bool isTimerSet = false;
    std::size_t held = 0;  // bytes copied and not released
    std::size_t peak = 0;  // the most that was held since the last trim
    std::vector<std::string>
        spares;  // of full size; the last released is used first: the processor has it cached
};

}  // namespace nox::tunnel_client
