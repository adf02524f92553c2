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

/// Payloads that wait to be written to one service, in order. One that can be written at once is written from
/// where it arrived; the others are copied by KeepArrived.
class PayloadQueue {
public:
    /// Twice as many as one batch from the tunnel brings, so that a long queue shrinks whatever the server
    /// sends.
    using Pieces = std::array<asio::const_buffer, 32>;

    /// @param payloadMemory not owned, outlives the queue
    explicit PayloadQueue(PayloadMemory& payloadMemory) : memory(payloadMemory) {}
    PayloadQueue(const PayloadQueue&) = delete;
    PayloadQueue& operator=(const PayloadQueue&) = delete;
    ~PayloadQueue();

    /// @param payload not empty, not copied: stays valid until KeepArrived
    void Append(std::string_view payload) { arrived.push_back(payload); }
    /// Copies the payloads that have been appended and not been written.
    void KeepArrived();

    bool IsEmpty() const { return kept.empty() && arrived.empty(); }
    /// Whether payloads have been copied.
    bool HasKept() const { return !kept.empty(); }
    /// One piece for each payload to be written next; the rest is empty. Requires a queue that is not empty.
    /// @param count of payloads at most
    Pieces Next(std::size_t count = SIZE_MAX) const;
    /// `size` bytes of those have been written. Calls `onPayload` with the size of each payload that is
    /// complete now.
    void Remove(std::size_t size, const std::function<void(std::size_t)>& onPayload);

private:
    std::string_view At(std::size_t i) const { return kept.empty() ? arrived[i] : kept[i]; }
    void RemoveFirst();

    PayloadMemory& memory;
    std::deque<std::string> kept;
    // They follow the kept ones; while there are any of those, these are written only after they have been
    // copied.
    std::vector<std::string_view> arrived;
    std::size_t sentBytes = 0;  // written of the first payload in the queue
    std::size_t notKept = 0;    // its first bytes, which were written before the rest was copied
};

}  // namespace nox::tunnel_client
