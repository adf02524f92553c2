#pragma once

#include <array>
#include <asio/buffer.hpp>
#include <cstddef>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "tunnel/PayloadMemory.h"

namespace nox::tunnel_client {

/// Payloads that wait to be written to one service, in order. One that can be written at once is written from where it
/// arrived; the others are copied by KeepArrived.
class PayloadQueue {
public:
    /// Twice as many as one batch from the tunnel brings, so that a long queue shrinks whatever the server sends.
    using Pieces = std::array<asio::const_buffer, 32>;

    /// @param payloadMemory not owned, outlives the queue
    explicit PayloadQueue(PayloadMemory& payloadMemory) : memory(payloadMemory) {}
    PayloadQueue(const PayloadQueue&) = delete;
    PayloadQueue& operator=(const PayloadQueue&) = delete;
    ~PayloadQueue();

    /// @param payload not empty, not copied: stays valid until KeepArrived
    void Append(std::string_view payload) { arrived.push_back(payload); }
    /// Copies what has been appended and not been written.
    void KeepArrived();

    bool IsEmpty() const { return kept.empty() && arrived.empty(); }
    /// Whether payloads have been copied.
    bool HasKept() const { return !kept.empty(); }
    /// One piece for each payload to be written next; the rest is empty. The queue is not empty.
    /// @param count of payloads at most
    Pieces Next(std::size_t count = SIZE_MAX) const;
    /// `size` bytes of those have been written. Calls `onPayload` with the size of each payload that is complete now.
    void Remove(std::size_t size, const std::function<void(std::size_t)>& onPayload);

private:
    std::string_view At(std::size_t i) const { return kept.empty() ? arrived[i] : kept[i]; }
    void RemoveFirst();

    PayloadMemory& memory;
    std::deque<std::string> kept;
    std::vector<std::string_view> arrived;  // behind those, and not written before they have been copied
    std::size_t sentBytes = 0;              // of the first payload, as it lies here
    std::size_t notKept = 0;                // of it, because they had been written before
};

}  // namespace nox::tunnel_client
