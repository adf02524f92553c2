#include "json/reader.h"

#include <cassert>
#include <cstring>
#include <string_view>

namespace json {

namespace {

// get_state() returns these, so the values must not change.
enum string_state : unsigned char {
    string_start = 0,
    string_opened = 1,
    string_inside = 2,
    string_escape = 3,
    string_hex_1 = 4,
    string_hex_2 = 5,
    string_hex_3 = 6,
    string_hex_4 = 7,
    string_closed = 8
};
enum number_state : unsigned char {
    number_start = 0,
    number_minus = 1,
    number_zero = 2,
    number_integer = 3,
    number_point = 4,
    number_fraction = 5,
    number_exponent = 6,
    number_exponent_sign = 7,
    number_exponent_digits = 8
};
enum container_state : unsigned char {
    container_start = 0,
    container_opened = 1,
    container_element = 2,
    container_comma = 3,
    container_closed = 4
};

constexpr int refused = -1;  // in the place of the next state

bool is_digit(char ch) { return ch >= '0' && ch <= '9'; }
bool is_exponent(char ch) { return ch == 'e' || ch == 'E'; }
bool is_hex_digit(char ch) { return is_digit(ch) || (ch >= 'a' && ch <= 'f') || (ch >= 'A' && ch <= 'F'); }

// The solidus is deliberately not among them, although encode_string() escapes it and decode_string() reads
// it: a value with an escaped solidus is refused.
int after_escape(char ch) {
    if (ch == 'u') return string_hex_1;
    return ch != '\0' && std::strchr("\"\\bfnrt", ch) != nullptr ? string_inside : refused;
}

int next_in_string(unsigned char state, char ch) {
    switch (state) {
        case string_start: return ch == '"' ? string_opened : refused;
        case string_opened:
        case string_inside: return ch == '"' ? string_closed : ch == '\\' ? string_escape : string_inside;
        case string_escape: return after_escape(ch);
        case string_hex_1:
        case string_hex_2:
        case string_hex_3: return is_hex_digit(ch) ? state + 1 : refused;
        case string_hex_4: return is_hex_digit(ch) ? string_inside : refused;
        case string_closed: return refused;
        default: throw std::logic_error("Unexpected return");
    }
}

int next_in_number(unsigned char state, char ch) {
    switch (state) {
        case number_start:
            if (ch == '-') return number_minus;
            [[fallthrough]];
        case number_minus: return ch == '0' ? number_zero : is_digit(ch) ? number_integer : refused;
        case number_integer:
            if (is_digit(ch)) return number_integer;
            [[fallthrough]];
        case number_zero: return ch == '.' ? number_point : is_exponent(ch) ? number_exponent : refused;
        case number_fraction:
            if (is_exponent(ch)) return number_exponent;
            [[fallthrough]];
        case number_point: return is_digit(ch) ? number_fraction : refused;
        case number_exponent:
            if (ch == '+' || ch == '-') return number_exponent_sign;
            [[fallthrough]];
        case number_exponent_sign:
        case number_exponent_digits: return is_digit(ch) ? number_exponent_digits : refused;
        default: throw std::logic_error("Unexpected return");
    }
}

bool ends_a_number(unsigned char state) {
    return state == number_zero || state == number_integer || state == number_fraction ||
           state == number_exponent_digits;
}

}  // namespace

jtype type_of(char first) {
    switch (first) {
        case '"': return jtype::jstring;
        case '{': return jtype::jobject;
        case '[': return jtype::jarray;
        case 't':
        case 'f': return jtype::jbool;
        case 'n': return jtype::jnull;
        default: return first == '-' || is_digit(first) ? jtype::jnumber : jtype::not_valid;
    }
}

void reader::clear() {
    std::string::clear();
    open.clear();
    place = spot::start;
    kind = jtype::not_valid;
    state = 0;
}

reader::push_result reader::push(char ch) {
    if (place == spot::start) return is_space(ch) ? ACCEPTED : begin_value(ch);
    if (place == spot::key) return push_key(ch);
    if (place == spot::value) {
        const push_result result = push_value(ch);
        assert(result != WHITESPACE);
        if (result == ACCEPTED || open.empty() || !value_is_valid()) return result;
    }
    return open.back() == '[' ? push_array(ch) : push_object(ch);
}

jtype reader::type() const { return empty() ? jtype::not_valid : type_of(front()); }

bool reader::is_valid() const { return place == spot::value && open.empty() && value_is_valid(); }

std::string reader::readout() const { return {data(), size()}; }

unsigned char reader::get_state() const {
    if (open.empty()) return state;
    if (open.size() == 1 && place == spot::opened) return container_opened;
    if (open.size() == 1 && place == spot::after_comma) return container_comma;
    return container_element;
}

reader::push_result reader::push_key(char ch) {
    const push_result result = push_string(ch);
    if (state == string_closed) place = spot::after_key;
    return result;
}

reader::push_result reader::push_value(char ch) {
    switch (kind) {
        case jtype::jstring: return push_string(ch);
        case jtype::jnumber: return push_number(ch);
        case jtype::jbool: return push_boolean(ch);
        case jtype::jnull: return push_null(ch);
        default: return REJECTED;  // the container is closed
    }
}

reader::push_result reader::push_string(char ch) { return advance(next_in_string(state, ch), ch); }

reader::push_result reader::push_number(char ch) { return advance(next_in_number(state, ch), ch); }

reader::push_result reader::push_boolean(char ch) {
    switch (begin_of_value < size() ? (*this)[begin_of_value] : ch) {
        case 't': return spell("true", ch);
        case 'f': return spell("false", ch);
        default: throw parsing_error("Unexpected state");
    }
}

reader::push_result reader::push_null(char ch) { return spell("null", ch); }

reader::push_result reader::push_array(char ch) {
    if (is_space(ch)) return WHITESPACE;
    if (place == spot::value) return end_value(ch);
    if (place == spot::opened && ch == ']') return close(ch);
    return begin_value(ch);
}

reader::push_result reader::push_object(char ch) {
    if (is_space(ch)) return WHITESPACE;
    if (place == spot::value) return end_value(ch);
    if (place == spot::after_colon) return begin_value(ch);
    if (place == spot::after_key) return ch == ':' ? move_to(spot::after_colon, ch) : REJECTED;
    if (place == spot::opened && ch == '}') return close(ch);
    if (ch != '"') return REJECTED;
    state = string_opened;
    return move_to(spot::key, ch);
}

reader::push_result reader::begin_value(char ch) {
    const jtype begun = type_of(ch);
    if (begun == jtype::not_valid) return REJECTED;
    if (begun == jtype::jarray || begun == jtype::jobject) {
        open.push_back(ch);
        return move_to(spot::opened, ch);
    }
    kind = begun;
    begin_of_value = size();
    state = 0;
    place = spot::value;
    return push_value(ch);
}

// For a value inside a container. White space after it is skipped and does not end it: a number may go on
// behind white space, so [1 2] reads as [12], and is written as [12] too.
reader::push_result reader::end_value(char ch) {
    if (ch == ',') return move_to(spot::after_comma, ch);
    return ch == (open.back() == '[' ? ']' : '}') ? close(ch) : REJECTED;
}

reader::push_result reader::close(char ch) {
    kind = type_of(open.back());
    open.pop_back();
    state = container_closed;
    return move_to(spot::value, ch);
}

reader::push_result reader::advance(int next_state, char ch) {
    if (next_state == refused) return REJECTED;
    state = static_cast<unsigned char>(next_state);
    push_back(ch);
    return ACCEPTED;
}

reader::push_result reader::move_to(spot next, char ch) {
    place = next;
    push_back(ch);
    return ACCEPTED;
}

reader::push_result reader::spell(const char* word, char ch) {
    const std::size_t position = size() - begin_of_value;
    if (position == std::strlen(word) || word[position] != ch) return REJECTED;
    push_back(ch);
    return ACCEPTED;
}

bool reader::value_is_valid() const {
    const auto text = [this] { return std::string_view(*this).substr(begin_of_value); };
    switch (kind) {
        case jtype::jstring: return state == string_closed;
        case jtype::jnumber: return ends_a_number(state);
        case jtype::jarray:
        case jtype::jobject: return state == container_closed;
        case jtype::jbool: return text() == "true" || text() == "false";
        case jtype::jnull: return text() == "null";
        default: throw std::logic_error("Unexpected return");
    }
}

void kvp_reader::clear() {
    reader::clear();
    _key.clear();
    _colon_read = false;
}

reader::push_result kvp_reader::push(char ch) {
    if (_key.empty() && ch != '"') return is_space(ch) ? WHITESPACE : REJECTED;
    if (!_key.is_valid()) return _key.push(ch);
    assert(_key.type() == jtype::jstring);
    if (!_colon_read) {
        _colon_read = ch == ':';
        return _colon_read ? ACCEPTED : is_space(ch) ? WHITESPACE : REJECTED;
    }
    return empty() && is_space(ch) ? WHITESPACE : reader::push(ch);
}

bool kvp_reader::is_valid() const { return _key.is_valid() && reader::is_valid(); }

std::string kvp_reader::readout() const { return _key.readout() + ":" + reader::readout(); }

}  // namespace json
