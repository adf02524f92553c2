#pragma once

namespace nox::tunnel_client {

/// Counts one session's frames that wait to be written to the tunnel, and decides when the session pauses
/// reading from its service and when it goes on.
///
/// The count falls below zero when frames are reported that an earlier session with the same id has queued.
class UploadWindow {
public:
    /// One more frame waits. @return whether reading pauses now
    bool OnQueued() {
        ++pending;
        if (isPaused || pending < pauseAt) return false;
        isPaused = true;
        return true;
    }

    /// One frame has been written. @return whether reading goes on now
    bool OnWritten() {
        --pending;
        if (!isPaused || pending > resumeAt) return false;
        isPaused = false;
        return true;
    }

    int Pending() const { return pending; }
    bool IsPaused() const { return isPaused; }
    /// Frames that may still be read until it pauses.
    int Room() const { return pauseAt - pending; }

private:
    static constexpr int pauseAt = 20;
    static constexpr int resumeAt = 14;  // the gap keeps reading from stuttering at the limit

    int pending = 0;
    bool isPaused = false;
};

}  // namespace nox::tunnel_client
