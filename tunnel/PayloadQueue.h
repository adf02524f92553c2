#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "tunnel/GatherList.h"
#include "tunnel/PayloadMemory.h"

namespace nox::tunnel_client {

/// Payloads that wait to be written to one service, in order.
///
/// A payload is written from where it arrived if that can be done at once; what cannot is copied by KeepArrived.
class PayloadQueue {
public:
    using Pieces = GatherList<16>;

    /// @param payloadMemory not owned, outlives the queue
    explicit PayloadQueue(PayloadMemory& payloadMemory) : memory(payloadMemory) {}
    PayloadQueue(const PayloadQueue&) = delete;
    PayloadQueue& operator=(const PayloadQueue&) = delete;
    ~PayloadQueue();

    /// @param payload not empty, not copied: stays valid until KeepArrived
    void Append(std::string_view payload);
    /// Copies what has been appended and not been written.
    void KeepArrived();

    bool IsEmpty() const { return sizes.empty(); }
    /// Whether the first payload has been written in part.
    bool HasBegun() const { return sentBytes > 0; }
    /// What is to be written next. @param firstOnly nothing behind the first payload
    Pieces Next(bool firstOnly) const;
    /// The first `size` bytes have been written. Calls `onPayload` with the size of each payload that is complete now.
    void Remove(std::size_t size, const std::function<void(std::size_t)>& onPayload);

private:
    void RemoveKept(std::size_t size);
    void RemoveArrived(std::size_t size);

    PayloadMemory& memory;
    std::deque<std::uint32_t> sizes;        // of all payloads
    std::size_t sentBytes = 0;              // of the first payload
    std::deque<std::string> kept;           // their bytes: copies, whose limits are not those of payloads,
    std::size_t sentOfKept = 0;             // of the first copy
    std::vector<std::string_view> arrived;  // and behind them those that have not been copied
};

}  // namespace nox::tunnel_client
