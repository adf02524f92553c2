#pragma once

#include <string>

namespace lab {

/// So many letters and digits that nobody can guess: nonces, tokens, passwords.
std::string RandomText(std::size_t characters);

}  // namespace lab
