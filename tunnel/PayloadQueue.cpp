#include "tunnel/PayloadQueue.h"

#include <algorithm>
#include <utility>

namespace nox::tunnel_client {

PayloadQueue::~PayloadQueue() {
    for (std::string& copy : kept) memory.Release(std::move(copy));
}

// Of a payload that has been written in part, only the rest is copied.
void PayloadQueue::KeepArrived() {
    if (kept.empty() && !arrived.empty()) {
        arrived.front().remove_prefix(sentBytes);
        notKept = std::exchange(sentBytes, 0);
    }
    for (const std::string_view payload : arrived) kept.push_back(memory.Copy(payload));
    arrived.clear();
}

PayloadQueue::Pieces PayloadQueue::Next(std::size_t count) const {
    Pieces pieces;
    count = std::min({count, kept.empty() ? arrived.size() : kept.size(), pieces.size()});
    for (std::size_t i = 0; i < count; ++i) pieces[i] = asio::buffer(At(i));
    pieces[0] += sentBytes;
    return pieces;
}

void PayloadQueue::Remove(std::size_t size, const std::function<void(std::size_t)>& onPayload) {
    sentBytes += size;
    while (!IsEmpty() && sentBytes >= At(0).size()) {
        const std::size_t payload = At(0).size();
        sentBytes -= payload;
        RemoveFirst();
        onPayload(payload + std::exchange(notKept, 0));
    }
}

void PayloadQueue::RemoveFirst() {
    if (kept.empty()) return void(arrived.erase(arrived.begin()));
    memory.Release(std::move(kept.front()));
    kept.pop_front();
}

}  // namespace nox::tunnel_client
