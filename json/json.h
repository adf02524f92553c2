#pragma once

#include <cstddef>
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "json/reader.h"
#include "json/text.h"

/// JSON documents whose values stay text. A jobject is an ordered list of members, each a key and the value's
/// JSON text exactly as it came (white space between tokens apart); a value is converted only when it is
/// read. So what was parsed is written again byte for byte, in the same order, which signatures depend on.
///
/// Values are used by one thread at a time; the library keeps no state and never logs. The agent calls
/// neither pretty, set_array, parse_array nor kvp_reader, and converts no value to a number; they belong to
/// the library's promise.
namespace json {

/// A key that is not there, or any key asked of an array. what() is the key itself.
class invalid_key : public std::exception {
public:
    explicit invalid_key(std::string missing) : key(std::move(missing)) {}
    const char* what() const noexcept override { return key.c_str(); }

private:
    std::string key;
};

// Accessors live where they are used and are never deleted through a base: only their ref() is virtual.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
// NOLINTBEGIN(cppcoreguidelines-virtual-class-destructor)

/// A JSON object, or an array when made or parsed as one; in an array every key is empty and only values
/// count. Nothing here recurses: nesting is bounded by memory alone.
class jobject {
public:
    class entry;
    class const_value;
    class const_proxy;
    class proxy;

    explicit jobject(bool array = false) : array_flag(array) { data.reserve(usual_members); }
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

    /// Reads one object or array from the front of `text`; what follows its closing bracket is
    /// ignored, as is everything from a NUL on. A comma right before that bracket is accepted,
    /// though not inside nested values.
    /// @throws parsing_error with the first of "Input is not a valid object", "Key conflict"
    /// and "Missing key"
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

    /// The compact text: {"key":value,...} or [value,...], keys escaped, values as stored, no white space.
    std::string as_string() const;
    explicit operator std::string() const { return as_string(); }

    /// The indented text, `indent_level` tabs deep, for people: keys are not escaped, and the tabs of deeply
    /// nested values take space quadratic in their depth.
    /// @throws parsing_error when a nested value is no object or array that parse() would read
    std::string pretty(unsigned indent_level = 0) const;

private:
    using member = std::pair<std::string, std::string>;  // key, value text

    const char* read_members(const char* at);
    bool has_key_conflict() const;
    const std::string* find(const std::string& key) const;

    static constexpr std::size_t usual_members = 8;  // as they are added, the memory need not grow

    std::vector<member> data;
    bool array_flag;
};

/// A value's text and the ways to read it. A number whose text does not match its format reads as 0.
class jobject::entry {
public:
    /// The value's JSON text as it is stored.
    virtual const std::string& ref() const = 0;

    std::string as_string() const;  ///< a JSON string decoded; any other value as its JSON text
    operator std::string() const { return as_string(); }
    operator jobject() const { return parse(ref()); }  ///< @throws parsing_error, see parse
    /// True only when the text begins, after white space, with the JSON boolean true.
    explicit operator bool() const;

    explicit operator int() const;  ///< sscanf "%i": also octal and hexadecimal
    explicit operator unsigned() const;
    explicit operator long() const;
    explicit operator unsigned long() const;
    explicit operator char() const;  ///< the text's first character
    explicit operator float() const;
    explicit operator double() const;
    /// The elements of an array, each read as that type of number, one of the above.
    /// @throws parsing_error unless the value is an array (see parse_array)
    template <typename Number>
    explicit operator std::vector<Number>() const;

    // These throw parsing_error "Input was only whitespace" of a member that was set() to an empty text.
    bool is_string() const { return type_is(jtype::jstring); }
    bool is_number() const { return type_is(jtype::jnumber); }
    bool is_bool() const { return type_is(jtype::jbool); }
    bool is_null() const { return type_is(jtype::jnull); }
    bool is_array() const { return type_is(jtype::jarray); }

protected:
    ~entry() = default;

private:
    bool type_is(jtype wanted) const;
};

/// A value that stands on its own.
class jobject::const_value final : public entry {
public:
    explicit const_value(std::string value) : text(std::move(value)) {}
    const std::string& ref() const override { return text; }

private:
    std::string text;
};

/// A member of an object, looked up each time it is read.
class jobject::const_proxy : public entry {
public:
    /// @throws std::logic_error "Source cannot be an array"
    const_proxy(const jobject& from, std::string name);
    /// @throws invalid_key when the object has no such member
    const std::string& ref() const override;

protected:
    const jobject& source;
    const std::string key;
};

/// A member that can be assigned to, whether it exists yet or not. Strings are taken up to their first NUL.
class jobject::proxy final : public const_proxy {
public:
    proxy(jobject& object, std::string name) : const_proxy(object, std::move(name)), sink(object) {}

    void operator=(const std::string& text) { sink.set(key, encode_string(text.c_str())); }
    void operator=(const char* text) { sink.set(key, encode_string(text)); }
    void operator=(const jobject& value) { sink.set(key, value.as_string()); }
    void operator=(bool) = delete;  // would be written as a number: set() takes true and false as texts
    void operator=(int number);
    void operator=(unsigned number);
    void operator=(long number);
    void operator=(unsigned long number);
    void operator=(char character);  ///< the bare character: a digit, to make a number
    void operator=(float number);
    void operator=(double number);
    /// An array of those texts, either as JSON strings (`quote`) or as the JSON texts that they are.
    void set_array(const std::vector<std::string>& elements, bool quote);

private:
    jobject& sink;
};
// NOLINTEND(cppcoreguidelines-virtual-class-destructor)
#pragma GCC diagnostic pop

}  // namespace json
