#include "tunnel/PayloadMemory.h"

#include <malloc.h>

#include <algorithm>
#include <utility>

namespace nox::tunnel_client {

// Large copies mostly have the same size, and the processor still has the one in its cache that was released
// last. A spare of another size is freed, so that the next one fits.
std::string PayloadMemory::Copy(std::string_view bytes) {
    held += bytes.size();
    peak = std::max(peak, held);
    if (spares.empty() || bytes.size() < minSpareBytes / 2) return std::string(bytes);
    std::string spare = std::move(spares.back());
    spares.pop_back();
    const bool fits = spare.capacity() >= bytes.size() && spare.capacity() <= 2 * bytes.size();
    return fits ? std::move(spare.assign(bytes)) : std::string(bytes);
}

void PayloadMemory::Release(std::string copy) {
    held -= copy.size();
    if (copy.capacity() >= minSpareBytes && spares.size() < maxSpares) spares.push_back(std::move(copy));
    if (isTimerSet || !IsBurstOver()) return;
    isTimerSet = true;
    timer.expires_after(trimDelay);
    timer.async_wait([this](std::error_code error) { OnTimer(error); });
}

void PayloadMemory::OnTimer(std::error_code error) {
    isTimerSet = false;
    if (!error && IsBurstOver()) Trim();
}

// The allocator would keep freed memory for later use.
void PayloadMemory::Trim() {
    timer.cancel();
    if (peak < burstBytes) return;
    peak = held;
    spares = {};
    malloc_trim(0);
}

}  // namespace nox::tunnel_client
