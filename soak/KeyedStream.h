#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace soak {

enum class Direction : std::uint64_t { ToService = 1, ToClient = 2 };

/// The bytes that one direction of one session carries. Every byte can be told from its position, the session
/// and the direction alone: eight bytes of session number, little-endian, by which a service learns whom it
/// talks to, then noise that no other stream has at the same place.
class KeyedStream {
public:
    KeyedStream(std::uint64_t seed, std::uint64_t sessionNumber, Direction direction);

    void Fill(std::uint64_t position, char* bytes, std::size_t size) const;
    /// How many of `bytes`, taken as the stream's at `position`, are not what belongs there.
    std::size_t CountWrong(std::uint64_t position, std::string_view bytes) const;

    static constexpr std::size_t numberBytes = 8;
    static std::uint64_t NumberIn(std::string_view firstBytes);  ///< at least numberBytes

private:
    std::uint64_t Word(std::uint64_t index) const;

    std::uint64_t number, key;
};

/// A well mixed 64-bit value of another.
std::uint64_t Mixed(std::uint64_t value);

}  // namespace soak
