#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace soak {

enum class Direction : std::uint64_t { ToService = 1, ToClient = 2 };

/// The bytes that one direction of one session carries. Session, direction and position determine every byte.
/// The first eight are the session's number, little-endian, by which a service finds out which session it
/// has. Noise follows, which differs from that of all other streams.
class KeyedStream {
public:
    KeyedStream(std::uint64_t seed, std::uint64_t sessionNumber, Direction direction);

    void Fill(std::uint64_t position, char* bytes, std::size_t size) const;
    /// How many of `bytes` are not those that the stream has from `position` on.
    std::size_t CountWrong(std::uint64_t position, std::string_view bytes) const;

    static constexpr std::size_t numberBytes = 8;
    static std::uint64_t NumberIn(std::string_view firstBytes);  ///< at least numberBytes

private:
    std::uint64_t Word(std::uint64_t index) const;

    std::uint64_t number, key;
};

/// Maps a number to another one that looks random.
std::uint64_t Mixed(std::uint64_t value);

}  // namespace soak
