#include "tunnel/PayloadQueue.h"

#include <algorithm>
#include <utility>

namespace nox::tunnel_client {

PayloadQueue::~PayloadQueue() {
    for (std::string& copy : kept) memory.Release(std::move(copy));
}

void PayloadQueue::Append(std::string_view payload) {
    sizes.push_back(static_cast<std::uint32_t>(payload.size()));
    arrived.push_back(payload);
}

void PayloadQueue::KeepArrived() {
    for (std::string_view bytes : arrived) {
        for (; !bytes.empty(); bytes.remove_prefix(std::min(bytes.size(), PayloadMemory::blockBytes)))
            kept.push_back(memory.Copy(bytes.substr(0, PayloadMemory::blockBytes)));
    }
    arrived.clear();
}

// Arrived bytes are not offered behind kept ones, because they are copied before the next write.
PayloadQueue::Pieces PayloadQueue::Next(bool firstOnly) const {
    std::size_t limit = firstOnly ? sizes.front() - sentBytes : SIZE_MAX;
    Pieces pieces;
    const auto add = [&](std::string_view bytes) {
        bytes = bytes.substr(0, limit);
        limit -= bytes.size();
        pieces.Add(asio::buffer(bytes));
    };
    if (kept.empty()) {
        for (auto next = arrived.begin(); next != arrived.end() && !pieces.IsFull() && limit > 0; ++next)
            add(*next);
    }
    std::size_t begin = sentOfKept;
    for (auto next = kept.begin(); next != kept.end() && !pieces.IsFull() && limit > 0; ++next) {
        add(std::string_view(*next).substr(begin));
        begin = 0;
    }
    return pieces;
}

void PayloadQueue::Remove(std::size_t size, const std::function<void(std::size_t)>& onPayload) {
    kept.empty() ? RemoveArrived(size) : RemoveKept(size);
    for (sentBytes += size; !sizes.empty() && sentBytes >= sizes.front();) {
        const std::size_t payload = sizes.front();
        sentBytes -= payload;
        sizes.pop_front();
        onPayload(payload);
    }
}

void PayloadQueue::RemoveKept(std::size_t size) {
    for (sentOfKept += size; !kept.empty() && sentOfKept >= kept.front().size();) {
        sentOfKept -= kept.front().size();
        memory.Release(std::move(kept.front()));
        kept.pop_front();
    }
}

void PayloadQueue::RemoveArrived(std::size_t size) {
    auto first = arrived.begin();
    for (; first != arrived.end() && size >= first->size(); ++first) size -= first->size();
    arrived.erase(arrived.begin(), first);
    if (!arrived.empty()) arrived.front().remove_prefix(size);
}

}  // namespace nox::tunnel_client
