#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "soak/KeyedStream.h"
#include "soak/storm/Facts.h"
#include "soak/storm/Plan.h"

namespace storm {

class Service;

/// One new_session message and its session.
struct Opening {
    std::uint64_t key = 0;  ///< tells its bytes from those of all others, even of the same id
    std::string id;
    OpeningPlan plan;
    soak::KeyedStream down, up;
    Facts facts{};

    std::uint64_t composedDown = 0;  ///< put into frames, whether they have left or not
    bool isClosing = false;    ///< its end_session, or the new_session of its successor, has been composed
    bool isAsked = false;      ///< its new_session has left
    bool isConnected = false;  ///< connected-session has come
    int framesUp = 0;
    Clock::time_point openedAt = Clock::now();
    std::shared_ptr<Service> service{};
};

}  // namespace storm
