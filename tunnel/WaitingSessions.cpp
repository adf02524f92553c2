#include "tunnel/WaitingSessions.h"

#include <utility>

namespace nox::tunnel_client {

void WaitingSessions::Add(std::weak_ptr<ServiceConnection> session) {
    sessions.push_back(std::move(session));
    if (!watching) Watch();
}

bool WaitingSessions::LetOneRead() {
    if (sessions.empty()) return false;
    const auto session = sessions.front().lock();
    sessions.pop_front();
    if (session) session->ReadInTurn();
    return true;
}

void WaitingSessions::TunnelMoves() {
    moving = true;
    stalled = false;
}

void WaitingSessions::Watch() {
    watching = true;
    moving = false;
    timer.expires_after(stallLimit);
    timer.async_wait([this](std::error_code) { OnTimer(); });
}

void WaitingSessions::OnTimer() {
    watching = false;
    if (sessions.empty()) return;
    stalled = !moving;
    while (stalled && LetOneRead()) continue;
    if (!stalled) Watch();
}

}  // namespace nox::tunnel_client
