#include "tunnel/PayloadMemory.h"

#include <malloc.h>

#include <algorithm>
#include <utility>

namespace nox::tunnel_client {

// A spare block holds at most twice what is copied into it.
std::string PayloadMemory::Copy(std::string_view bytes) {
    held += bytes.size();
    peak = std::max(peak, held);
    if (spares.empty() || bytes.size() < blockBytes / 2) return std::string(bytes);
    std::string copy = std::move(spares.back());
    spares.pop_back();
    copy.assign(bytes);
    return copy;
}

void PayloadMemory::Release(std::string copy) {
    held -= copy.size();
    if (copy.capacity() >= blockBytes && spares.size() < maxSpares) spares.push_back(std::move(copy));
    if (isTimerSet || !IsBurstOver()) return;
    isTimerSet = true;
    timer.expires_after(trimDelay);
    timer.async_wait([this](std::error_code error) { OnTimer(error); });
}

void PayloadMemory::OnTimer(std::error_code error) {
    isTimerSet = false;
    if (!error && IsBurstOver()) Trim();
}

void PayloadMemory::Trim() {
    timer.cancel();
    if (peak < burstBytes) return;
    spares = {};
    malloc_trim(0);
    peak = held;
}

}  // namespace nox::tunnel_client
