#include "tunnel/ReadTurns.h"

#include <algorithm>
#include <utility>

namespace nox::tunnel_client {

int ReadTurns::MayRead(const Reader& reader, int ownFrames) {
    if (IsStalled()) return allFrames;
    if (!waiting.empty() || !IsFreeFor(reader, ownFrames)) return 0;
    Note(reader);
    return aloneFrames;
}

// The count of own frames can be below zero; an empty queue is free for everybody all the same.
bool ReadTurns::IsFreeFor(const Reader& reader, int ownFrames) const {
    if (line.FramesWaiting() == 0) return true;
    const bool isShared = &reader != lastReader || Clock::now() < sharedUntil;
    return !isShared && line.FramesWaiting() <= static_cast<std::size_t>(std::max(ownFrames, 0));
}

void ReadTurns::Note(const Reader& reader) {
    if (&reader == lastReader) return;
    if (lastReader != nullptr) sharedUntil = Clock::now() + 20 * stallLimit;
    lastReader = &reader;
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
    while (HasNext() && line.FramesWaiting() == 0) GiveTurn(NextTurn());
}

// Readers that are gone use up no turn, and nobody has to wait for them.
bool ReadTurns::HasNext() {
    while (!waiting.empty() && waiting.front().expired()) waiting.pop_front();
    return !waiting.empty();
}

int ReadTurns::NextTurn() {
    const bool hadToWait = std::exchange(waitsSeen, line.Waits()) != line.Waits();
    freeTurns = hadToWait ? 0 : freeTurns + 1;
    turn = freeTurns < 2 ? 1 : std::min(2 * turn, sharedFrames);
    return waiting.size() == 1 ? aloneFrames : turn;
}

void ReadTurns::GiveTurn(int frames) {
    const auto reader = waiting.front().lock();
    waiting.pop_front();
    if (!reader) return;
    Note(*reader);
    reader->ReadInTurn(frames);
}

void ReadTurns::Watch(std::chrono::milliseconds delay) {
    isWatching = true;
    watchedFrom = line.Departed();
    timer.expires_after(delay);
    timer.async_wait([this](std::error_code) { OnTimer(); });
}

// Those who wait read ahead one by one, with pauses between: after a short standstill only a few have, and the others'
// frames do not wait behind all that a hundred can read ahead.
void ReadTurns::OnTimer() {
    isWatching = false;
    if (waiting.empty()) return;
    if (line.Departed() == watchedFrom) stalledAt = watchedFrom;
    const bool isStalled = IsStalled();
    if (isStalled) GiveTurn(allFrames);
    Watch(isStalled ? stallLimit / 25 : stallLimit);
}

}  // namespace nox::tunnel_client
