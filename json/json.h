#pragma once

#include <cstddef>
#include <exception>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "json/reader.h"

/// JSON documents whose values stay text. A jobject is an ordered list of members, each a key and the value's JSON
/// text exactly as it came (white space between tokens apart); a value is converted only when it is read. So what was
/// parsed is written again byte for byte, in the same order, which signatures depend on.
///
/// Values are used by one thread at a time; the library keeps no state and never logs.
namespace json {

/// A key that is not there, or any key asked of an array. what() is the key itself.
class invalid_key : public std::exception {
public:
    explicit invalid_key(std::string missing) : key(std::move(missing)) {}
    const char* what() const noexcept override { return key.c_str(); }

private:
    std::string key;
};

/// A JSON object, or an array when made or parsed as one; in an array every key is empty and only values count.
/// Parsing and writing do not recurse: nesting is bounded by memory alone.
class jobject {
public:
    class entry;
    class const_value;
    class const_proxy;
    class proxy;

    explicit jobject(bool array = false) : array_flag(array) {}
    jobject(const jobject&) = default;
    jobject(jobject&&) = default;
    jobject& operator=(const jobject&) = default;
    jobject& operator=(jobject&&) = default;
    virtual ~jobject() = default;

    /// The member `key`, to read or to assign to. It refers to this object and must not outlive it.
    /// @throws invalid_key on an array; reading throws it too when there is no such member
    virtual proxy operator[](const std::string& key);
    virtual const_proxy operator[](const std::string& key) const;

    /// The value at `index` in stored order, of an object as of an array; valid on its own.
    /// @throws std::out_of_range unless `index` is below size()
    const_value at(std::size_t index) const;

    /// Reads one object or array from the front of `text`; what follows its closing bracket is ignored, as is
    /// everything from a NUL on. A comma before that closing bracket is accepted (nested values do not accept it).
    /// @throws parsing_error "Input is not a valid object", "Key conflict" or "Missing key", whichever comes first
    static jobject parse(const std::string& text) { return parse(text.c_str()); }
    static jobject parse(const char* text);

    bool has_key(const std::string& key) const;  ///< always false for an array
    std::size_t size() const { return data.size(); }
    bool is_array() const { return array_flag; }

    /// Replaces the first value of `key`, or appends the member. `value` is JSON text and is taken as it is.
    /// @throws invalid_key on an array
    void set(const std::string& key, const std::string& value);
    void remove(const std::string& key);
    std::vector<std::string> list_keys() const;  ///< in stored order; none for an array

    /// The compact text: {"key":value,...} or [value,...], keys escaped, values as stored, no white space added.
    std::string as_string() const;
    explicit operator std::string() const { return as_string(); }

    /// The indented text, `indent_level` tabs deep. Keys are not escaped.
    /// @throws parsing_error when a nested value cannot be read back (see parse)
    std::string pretty(unsigned indent_level = 0) const;

private:
    using member = std::pair<std::string, std::string>;  // key, value text
    const std::string* find(const std::string& key) const;

    std::vector<member> data;
    bool array_flag;
};

/// A value's text and the ways to read it. A number whose text does not match its format reads as 0.
class jobject::entry {
public:
    virtual ~entry() = default;

    std::string as_string() const;      ///< a JSON string decoded; any other value as its JSON text
    operator std::string() const { return as_string(); }
    operator jobject() const;           ///< @throws parsing_error unless the value is an object or an array
    explicit operator bool() const;     ///< true only for the JSON boolean true

    explicit operator int() const;      ///< sscanf "%i": also octal and hexadecimal
    explicit operator unsigned() const;
    explicit operator long() const;
    explicit operator unsigned long() const;
    explicit operator char() const;
    explicit operator float() const;
    explicit operator double() const;
    /// @throws parsing_error unless the value is an array (see parse_array)
    template <typename Number>
    explicit operator std::vector<Number>() const;

    bool is_string() const { return type_is(jtype::jstring); }
    bool is_number() const { return type_is(jtype::jnumber); }
    bool is_bool() const { return type_is(jtype::jbool); }
    bool is_null() const { return type_is(jtype::jnull); }
    bool is_array() const { return type_is(jtype::jarray); }

protected:
    virtual const std::string& ref() const = 0;

private:
    bool type_is(jtype wanted) const;
};
