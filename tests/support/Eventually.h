#pragma once

#include <chrono>
#include <thread>

namespace support {

/// How long a test waits for an event. It only ends a hang: nothing takes as long on a busy
/// machine.
constexpr std::chrono::seconds patience{100};

/// Waits until `condition()` holds because another process or thread acts; looks every few milliseconds.
/// @return false when it still does not hold after `ceiling`
template <typename Condition>
bool Eventually(Condition condition, std::chrono::milliseconds ceiling = patience) {
    const auto end = std::chrono::steady_clock::now() + ceiling;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

}  // namespace support
