#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <random>

namespace soak {

/// How a session is meant to end.
enum class Ending {
    ServiceCloses,    ///< the service sends all it has, and no more; the clean end
    ClientCloses,     ///< the client does
    ClientResets,     ///< in the middle of something
    ServiceResets,    ///< the same on the device
    ServiceVanishes,  ///< closes outright, whatever is on its way to it
    ServiceRefuses    ///< nobody listens
};
constexpr int endings = 6;
const char* NameOf(Ending ending);

/// What one end of a session does once it has sent all its bytes.
enum class Finish { Stay, Shutdown, Close };

/// What one end does.
struct EndPlan {
    std::uint64_t bytesToSend = 8;
    std::size_t maxPieceBytes = 65536;
    std::chrono::milliseconds pause{0};  ///< after some of the pieces
    Finish finish = Finish::Stay;
    std::chrono::milliseconds resetAfter{0};  ///< from the start; 0: never
    std::uint64_t stallAt = 0;                ///< stops reading when so many bytes have come
    std::chrono::milliseconds stall{0};       ///< for so long; 0: never

    bool Stalls() const { return stall.count() > 0; }
};

struct Plan {
    Ending ending = Ending::ServiceCloses;
    EndPlan client, service;
};

using Random = std::mt19937_64;

/// The next session's, drawn from `random` and nothing else.
Plan DrawPlan(Random& random);

/// Evenly from both limits and what is between.
std::uint64_t Draw(Random& random, std::uint64_t low, std::uint64_t high);

}  // namespace soak
