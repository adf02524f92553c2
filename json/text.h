#pragma once

#include <string>
#include <vector>

#include "json/reader.h"

namespace json {

/// One value taken off the front of a text.
struct ParseResult {
    jtype type = jtype::not_valid;  ///< not_valid when the text does not begin with a complete value
    /// The value without the white space between tokens; empty when not valid.
    std::string value;
    /// Into the text: the first character that does not belong to the value.
    const char* remainder = nullptr;
};

const char* skip_whitespace(const char* text);

/// Reads one value, after white space, from the front of `text`. Whatever follows it is left alone.
/// @throws parsing_error "Input was only whitespace" when there is nothing else
ParseResult parse_value(const char* text);

/// A string literal's text, up to its closing quote or, without one, the end. Escapes of the form \u and four
/// digits vanish: there is no conversion of code points.
/// @throws parsing_error "Expecting opening quote" or, after a backslash, "Expected control character"
std::string decode_string(const char* literal);

/// The string literal for `text`. Bytes are copied, so UTF-8 stays UTF-8; no \u escapes are made.
std::string encode_string(const char* text);

/// The elements of an array: strings decoded, everything else as its JSON text.
/// @throws parsing_error "Input was not an array" or "Input was not properly formated"; where the text ends
/// although an element is due, what parse_value() throws
std::vector<std::string> parse_array(const char* text);

}  // namespace json
