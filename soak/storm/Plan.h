#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

#include "soak/Plan.h"
#include "tunnel/Delays.h"

/// All that is random in a storm, drawn from a generator and nothing else.
namespace storm {

using soak::Draw;
using soak::Random;
using std::chrono::milliseconds;

bool OneIn(Random& random, std::uint64_t count);
milliseconds DrawTime(Random& random, std::uint64_t low, std::uint64_t high);
/// Every order of magnitude up to 2^`bits` is as likely as the others.
std::uint64_t DrawSize(Random& random, unsigned bits);

/// How an opening is meant to end.
enum class Ending {
    ServiceWhenDone,   ///< shuts down once all has been sent and all has come
    ServiceShutsDown,  ///< once it has sent all its bytes
    ServiceCloses,     ///< outright, at the same point
    ServiceResets,     ///< in the middle of something
    ServiceRefuses,    ///< nobody listens
    ServerWhenDone,    ///< end_session, once all has come, both ways
    ServerMidway       ///< end_session in the middle of something
};
constexpr std::size_t endings = 7;
const char* NameOf(Ending ending);

/// How a service reads.
enum class Manner { Prompt, Slow, Pausing, Never };

struct OpeningPlan {
    Ending ending = Ending::ServiceWhenDone;
    Manner manner = Manner::Prompt;
    std::uint64_t down = 0, up = 0;
    std::size_t largestFrame = 0;      ///< down
    std::size_t largestWrite = 0;      ///< up
    milliseconds writePause{0};        ///< after some of the writes; 0: none
    std::uint64_t pauseEvery = 0;      ///< bytes, of a service that is Pausing
    milliseconds pause{0};             ///< its length
    milliseconds acceptDelay{0};       ///< of the service
    milliseconds serverEndsAfter{0};   ///< ServerMidway: then, or earlier
    std::uint64_t serverEndsAt = 0;    ///< when this many bytes down have been queued
    milliseconds serviceGoesAfter{0};  ///< closes outright or, with ServiceResets, resets; 0: never
    bool isLagging = false;
    bool isSpokenToAfterwards = false;
    bool hasOddId = false, takesIdInUse = false;
};
OpeningPlan DrawOpening(Random& random);

/// For some time the server writes, or reads, in this way.
struct Mood {
    std::size_t mostBytes = 0;  ///< in one call; 0: none, it holds
    milliseconds pause{0};      ///< after each call
    milliseconds length{0};
};
Mood DrawWriteMood(Random& random);
Mood DrawReadMood(Random& random);
constexpr std::size_t wholeBuffer = 1 << 20;  ///< mostBytes of a mood that has no limit

/// How the server breaks a tunnel.
enum class Break {
    HalfClose,     ///< and reads on until the agent has closed
    Close,         ///< outright
    Reset,         ///< the same, and the agent is told at once
    TooLarge,      ///< a frame longer than is allowed
    BadSignature,  ///< a control message that the agent must not believe
    Throw,         ///< a new_session that ends the agent's run by an exception
    Silence        ///< it never answers, and the agent gives up
};
constexpr std::size_t breaks = 7;
const char* NameOf(Break kind);

enum class Place { BetweenFrames, InHeader, InPayload };

struct TunnelPlan {
    milliseconds life{0};
    std::uint64_t mostBytes = 0;  ///< its life ends earlier when so many have been received
    bool isDrained = false;       ///< no session is left when it breaks
    Break breaks = Break::HalfClose;
    Place place = Place::BetweenFrames;
    std::size_t sessionsAtOnce = 1;  ///< those that are ending do not count
};
TunnelPlan DrawTunnel(Random& random);

/// The agent's for one run.
/// @param isPatient the delay after a stop is long enough to demand that all bytes arrive in it
nox::tunnel_client::Delays DrawDelays(Random& random, bool isPatient);

}  // namespace storm
