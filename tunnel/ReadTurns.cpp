#include "tunnel/ReadTurns.h"

#include <algorithm>
#include <utility>

namespace nox::tunnel_client {

int ReadTurns::MayRead(const Reader& reader, int ownFrames) {
    if (IsStalled()) return allFrames;
    if (!waiting.empty() || !IsFreeFor(reader, ownFrames)) return 0;
    NoteReader(reader);
    return aloneFrames;
}

// The count of own frames can be below zero; an empty queue is free for everybody all the same.
bool ReadTurns::IsFreeFor(const Reader& reader, int ownFrames) const {
    if (line.FramesWaiting() == 0) return true;
    const bool isShared = &reader != lastReader || Clock::now() < sharedUntil;
    return !isShared && line.FramesWaiting() <= static_cast<std::size_t>(std::max(ownFrames, 0));
}

void ReadTurns::NoteReader(const Reader& reader) {
    if (&reader == lastReader) return;
    if (lastReader != nullptr) sharedUntil = Clock::now() + 20 * firstStallLimit;
    lastReader = &reader;
}

void ReadTurns::Wait(Reader& reader) {
    waiting.push_back(&reader);
    if (!isWatching) Watch(stallLimit);
}

void ReadTurns::Leave(const Reader& reader) {
    waiting.erase(std::remove(waiting.begin(), waiting.end(), &reader), waiting.end());
}

void ReadTurns::GiveTurns() {
    while (!waiting.empty() && line.FramesWaiting() == 0) GiveTurn(NextTurn());
}

// The kernel takes two frames after each wait, so one free turn alone does not make a fast line. Eight frames
// are for a line that has taken eight others without a wait: a thousand busy sessions cost less then.
int ReadTurns::NextTurn() {
    const bool hadToWait = std::exchange(waitsSeen, line.Waits()) != line.Waits();
    freeTurns = hadToWait ? 0 : std::min(freeTurns + 1, sharedFrames.size() - 1);
    return waiting.size() == 1 ? aloneFrames : sharedFrames.at(freeTurns);
}

void ReadTurns::GiveTurn(int frames) {
    Reader& reader = *waiting.front();
    waiting.pop_front();
    NoteReader(reader);
    reader.ReadInTurn(frames);
}

void ReadTurns::Watch(std::chrono::milliseconds delay) {
    isWatching = true;
    watchedFrom = line.Departed();
    timer.expires_after(delay);
    timer.async_wait([this](std::error_code) { OnTimer(); });
}

// Those who wait read ahead one by one, with pauses between: after a short standstill only a few have, and
// the others' frames do not wait behind all that a hundred can read ahead.
void ReadTurns::OnTimer() {
    isWatching = false;
    if (waiting.empty()) return;
    if (line.Departed() == watchedFrom) stalledAt = watchedFrom;
    const bool isStalled = IsStalled();
    if (isStalled) GiveTurn(allFrames);
    Watch(isStalled ? firstStallLimit / 25 : stallLimit);
}

// If something leaves after all, the line had only paused: lines that do are common, with a handover or a
// long way.
bool ReadTurns::IsStalled() {
    if (!stalledAt || line.Departed() == *stalledAt) return stalledAt.has_value();
    stalledAt.reset();
    stallLimit = std::min(2 * stallLimit, 8 * firstStallLimit);
    return false;
}

}  // namespace nox::tunnel_client
