#include "lab/wire/RandomText.h"

#include <openssl/rand.h>

#include <array>
#include <stdexcept>
#include <string_view>

namespace lab {

namespace {

// Draws many bytes at a time, because one call takes longer than the rest of a signature. std::random_device
// is not used, because on processors whose own generator is slow a nonce took longer than all the rest of its
// session.
unsigned RandomByte() {
    thread_local std::array<unsigned char, 1024> drawn;
    thread_local std::size_t used = drawn.size();
    if (used == drawn.size()) {
        if (RAND_bytes(drawn.data(), drawn.size()) != 1) throw std::runtime_error("no random bytes");
        used = 0;
    }
    return drawn[used++];
}

}  // namespace

std::string RandomText(std::size_t characters) {
    static constexpr std::string_view alphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    std::string text;
    while (text.size() < characters) {
        const unsigned byte = RandomByte();
        // Larger bytes are left out; otherwise the first letters would come more often than the others.
        if (byte < 4 * alphabet.size()) text += alphabet[byte % alphabet.size()];
    }
    return text;
}

}  // namespace lab
