#pragma once

#include <cstddef>

#include "bench/load/Client.h"

/// The kinds of load. Each takes a number and words, and prints its figures as one JSON object.
namespace load {

/// prove BYTES: random bytes to the service and back, compared.
void Prove(std::size_t bytes, const Words& words);

/// bulk BYTES up|down STREAMS: that many bytes in all.
void Bulk(std::size_t bytes, const Words& words);

/// both SECONDS STREAMS: each session moves as much as it can both ways at once.
void Both(std::size_t seconds, const Words& words);

/// roundtrip TIMES whole|request|both [up|down]: 64 bytes each way, one after the other. With "request" the
/// request is written in two pieces, with "both" the reply, too. [up|down]: beside a stream in that
/// direction.
void RoundTrip(std::size_t times, const Words& words);

/// sessions TIMES: opened, one byte there and back, closed, one after the other.
void Sessions(std::size_t times, const Words& words);

/// idle SESSIONS: open and silent until a line is read.
void Idle(std::size_t sessions, const Words& words);

/// flood SESSIONS: uploads until a line is read.
void Uploads(std::size_t sessions, const Words& words);

/// beside UPLOADS SECONDS CLOSES: beside so many uploads, round trips of 64 bytes for so long; then how long
/// it takes until the client of a quiet session sees that its service has closed it, for so many sessions;
/// then the worst round trip of six seconds, after the client of one upload has gone.
void Beside(std::size_t uploads, const Words& words);

/// skips TIMES SECONDS: the worst round trip beside a client that watches so many recordings, each for so
/// long, the next at once after the one before.
void Skips(std::size_t times, const Words& words);

/// queued PAYLOADS BYTES: payloads of so many bytes, each a frame of its own with large frames of another
/// session around it, to a service that does not read. "ready" a second time, when they are queued.
void Queued(std::size_t payloads, const Words& words);

/// drained SESSIONS BYTES: that many bytes from the service through each session. "ready" when they are on
/// their way, and again when they have all come and only one idle session is left.
void Drained(std::size_t sessions, const Words& words);

}  // namespace load
