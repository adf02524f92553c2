#include "json/text.h"

#include <cstring>
#include <utility>

namespace json {

namespace {

// The bytes that are escaped, and the letters that stand for them behind a backslash. The solidus is
// deliberately escaped, although reader refuses that: receivers have always been sent it in this form.
constexpr const char* plains = "\"\\/\b\f\n\r\t";
constexpr const char* letters = "\"\\/bfnrt";

char plain_for(char letter) {
    const char* known = letter != '\0' ? std::strchr(letters, letter) : nullptr;
    if (known == nullptr) throw parsing_error("Expected control character");
    return plains[known - letters];
}

// Where the string literal at `quote` ends, or null when it holds an escape or does not end.
const char* end_of_plain_string(const char* quote) {
    const char* end = quote + 1 + std::strcspn(quote + 1, "\"\\");
    return *end == '"' ? end + 1 : nullptr;
}

// Skips the four characters behind \u, whichever they are, but never goes beyond the end.
const char* skip_code_point(const char* digits) { return digits + strnlen(digits, 4); }

}  // namespace

const char* skip_whitespace(const char* text) {
    while (is_space(*text)) ++text;
    return text;
}

ParseResult parse_value(const char* text) {
    const char* at = skip_whitespace(text);
    if (*at == '\0') throw parsing_error("Input was only whitespace");
    // A shortcut for nearly all values that the agent reads; the reader would give the same result.
    const char* end = *at == '"' ? end_of_plain_string(at) : nullptr;
    if (end != nullptr) return {jtype::jstring, {at, end}, end};
    reader input;
    // The end of the text is found here, because inside a string the reader accepts a NUL like any character.
    while (*at != '\0' && input.push(*at) != reader::REJECTED) ++at;
    if (!input.is_valid()) return {jtype::not_valid, {}, at};
    const jtype type = input.type();
    return {type, std::move(static_cast<std::string&>(input)), at};
}

std::string decode_string(const char* literal) {
    if (*literal != '"') throw parsing_error("Expecting opening quote");
    const char* end = end_of_plain_string(literal);
    if (end != nullptr) return {literal + 1, end - 1};
    std::string text;
    for (const char* at = literal + 1;;) {
        const std::size_t plain = std::strcspn(at, "\"\\");
        text.append(at, plain);
        at += plain;
        if (*at != '\\') return text;
        if (at[1] == 'u') {
            at = skip_code_point(at + 2);
        } else {
            text += plain_for(at[1]);
            at += 2;
        }
    }
}

std::string encode_string(const char* text) {
    std::string literal = "\"";
    for (;; ++text) {
        const std::size_t plain = std::strcspn(text, plains);
        literal.append(text, plain);
        text += plain;
        if (*text == '\0') return literal += '"';
        (literal += '\\') += letters[std::strchr(plains, *text) - plains];
    }
}

std::vector<std::string> parse_array(const char* text) {
    const char* at = skip_whitespace(text);
    if (*at != '[') throw parsing_error("Input was not an array");
    at = skip_whitespace(at + 1);
    std::vector<std::string> elements;
    if (*at == ']') return elements;
    for (;; ++at) {
        ParseResult element = parse_value(at);
        if (element.type == jtype::not_valid) throw parsing_error("Input was not properly formated");
        if (element.type == jtype::jstring) element.value = decode_string(element.value.c_str());
        elements.push_back(std::move(element.value));
        at = skip_whitespace(element.remainder);
        if (*at != ',') break;
    }
    if (*at != ']') throw parsing_error("Input was not properly formated");
    return elements;
}

}  // namespace json
