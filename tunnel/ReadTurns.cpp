#include "tunnel/ReadTurns.h"

#include <algorithm>
#include <utility>

namespace nox::tunnel_client {

// The count of own frames can be below zero; an empty queue is free for everybody all the same.
int ReadTurns::MayRead(int ownFrames) const {
    if (IsStalled()) return allFrames;
    const bool isFree = line.FramesWaiting() <= static_cast<std::size_t>(std::max(ownFrames, 0));
    return isFree && waiting.empty() ? aloneFrames : 0;
}

void ReadTurns::Wait(std::weak_ptr<Reader> reader) {
    waiting.push_back(std::move(reader));
    if (!isWatching) Watch(stallLimit);
}

void ReadTurns::Leave(const Reader& reader) {
    const auto isReader = [&](const std::weak_ptr<Reader>& other) { return other.lock().get() == &reader; };
    waiting.erase(std::remove_if(waiting.begin(), waiting.end(), isReader), waiting.end());
}

void ReadTurns::GiveTurns() {
    while (!waiting.empty() && line.FramesWaiting() == 0) GiveTurn(NextTurn());
}

int ReadTurns::NextTurn() {
    const bool hadToWait = std::exchange(waitsSeen, line.Waits()) != line.Waits();
    turn = hadToWait ? 1 : std::min(2 * turn, sharedFrames);
    return waiting.size() == 1 ? aloneFrames : turn;
}

void ReadTurns::GiveTurn(int frames) {
    const auto reader = waiting.front().lock();
    waiting.pop_front();
    if (reader) reader->ReadInTurn(frames);
}

void ReadTurns::Watch(std::chrono::milliseconds delay) {
    isWatching = true;
    watchedFrom = line.Departed();
    timer.expires_after(delay);
    timer.async_wait([this](std::error_code) { OnTimer(); });
}

// Those who wait read ahead one by one, in turns of the event loop: a thousand would keep the heartbeat waiting.
void ReadTurns::OnTimer() {
    isWatching = false;
    if (waiting.empty()) return;
    if (line.Departed() == watchedFrom) stalledAt = watchedFrom;
    const bool isStalled = IsStalled();
    if (isStalled) GiveTurn(allFrames);
    Watch(isStalled ? std::chrono::milliseconds(0) : stallLimit);
}

}  // namespace nox::tunnel_client
