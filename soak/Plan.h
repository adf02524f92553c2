#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <random>

namespace soak {

/// How a session is meant to end.
enum class Ending {
    ServiceCloses,    ///< the service shuts down when it has sent everything; the clean end
    ClientCloses,     ///< the client does the same
    ClientResets,     ///< at any moment
    ServiceResets,    ///< the same on the device
    ServiceVanishes,  ///< the service closes, whatever is on its way to it
    ServiceRefuses    ///< nobody listens
};
constexpr int endings = 6;
const char* NameOf(Ending ending);

/// How one end of a session goes on once it has sent all its bytes.
enum class Finish { Stay, Shutdown, Close };

/// The plan of one end.
struct EndPlan {
    std::uint64_t bytesToSend = 8;
    std::size_t maxPieceBytes = 65536;
    std::chrono::milliseconds pause{0};  ///< after some of the pieces
    Finish finish = Finish::Stay;
    std::chrono::milliseconds resetAfter{0};  ///< from the start; 0: never
    std::uint64_t stallAt = 0;                ///< stops reading when this many bytes have come
    std::chrono::milliseconds stall{0};       ///< for this long; 0: never

    bool Stalls() const { return stall.count() > 0; }
};

struct Plan {
    Ending ending = Ending::ServiceCloses;
    EndPlan client, service;
};

using Random = std::mt19937_64;

/// The next session's, drawn from `random` and nothing else.
Plan DrawPlan(Random& random);
/// The same for a session of a few bytes that is over soon.
Plan DrawSmallPlan(Random& random);

/// A number from `low` to `high`, both included, each as likely as the others.
std::uint64_t Draw(Random& random, std::uint64_t low, std::uint64_t high);

}  // namespace soak
