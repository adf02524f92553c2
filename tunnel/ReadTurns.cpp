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
    if (!isWatching) Watch();
}

void ReadTurns::Leave(const Reader& reader) {
    const auto isReader = [&](const std::weak_ptr<Reader>& other) { return other.lock().get() == &reader; };
    waiting.erase(std::remove_if(waiting.begin(), waiting.end(), isReader), waiting.end());
}

void ReadTurns::GiveTurns() {
    while (HasNext() && line.FramesWaiting() == 0) GiveTurn(NextTurn());
}

// Readers that are gone use up no turn, and nobody has to wait for them.
bool ReadTurns::HasNext() {
    while (!waiting.empty() && waiting.front().expired()) waiting.pop_front();
    return !waiting.empty();
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

void ReadTurns::Watch() {
    isWatching = true;
    watchedFrom = line.Departed();
    timer.expires_after(stallLimit);
    timer.async_wait([this](std::error_code) { OnTimer(); });
}

void ReadTurns::OnTimer() {
    isWatching = false;
    if (waiting.empty()) return;
    if (line.Departed() != watchedFrom) return Watch();
    stalledAt = watchedFrom;
    isWatching = true;
    ReadAhead();
}

// One reader in each turn of the event loop: a thousand would keep the heartbeat waiting.
void ReadTurns::ReadAhead() {
    isWatching = false;
    if (waiting.empty()) return;
    if (!IsStalled()) return Watch();
    isWatching = true;
    GiveTurn(allFrames);
    asio::post(ioContext, [this] { ReadAhead(); });
}

}  // namespace nox::tunnel_client
