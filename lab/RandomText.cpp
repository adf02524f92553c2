#include "lab/RandomText.h"

#include <openssl/rand.h>

#include <array>
#include <stdexcept>
#include <string_view>

namespace lab {

// Not by std::random_device: where the processor's own generator is slow, a nonce took longer than all the rest of its
// session.
std::string RandomText(std::size_t characters) {
    static constexpr std::string_view alphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    std::array<unsigned char, 32> drawn;
    std::string text;
    while (text.size() < characters) {
        if (RAND_bytes(drawn.data(), drawn.size()) != 1) throw std::runtime_error("no random bytes");
        for (const unsigned char byte : drawn)  // those above would favour the first letters
            if (byte < 4 * alphabet.size()) text += alphabet[byte % alphabet.size()];
    }
    return text.substr(0, characters);
}

}  // namespace lab
