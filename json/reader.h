#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>

namespace json {

/// A text that does not have the required form; what() is always one of the library's fixed texts.
class parsing_error : public std::invalid_argument {
public:
    using std::invalid_argument::invalid_argument;
};

/// The kind of a value.
enum class jtype { jstring = 0, jnumber = 1, jobject = 2, jarray = 3, jbool = 4, jnull = 5, not_valid = 6 };

/// The kind of the values that begin with `first`; not_valid when none does.
jtype type_of(char first);

/// What isspace() calls white space in the "C" locale (so \v and \f too), whatever the process's locale.
inline bool is_space(char ch) { return ch == ' ' || (ch >= '\t' && ch <= '\r'); }

/// Reads one value, character by character, and is stricter than jobject::parse: no comma before a closing
/// bracket, no escaped solidus. Keys inside objects have to be strings, but it does not look into them.
///
/// The string that it derives from holds the accepted characters without the white space between tokens.
/// Nested values stand in that one text; a stack remembers the brackets still open, one byte each, so that
/// neither reading nor destroying recurses, however deep the nesting.
class reader : public std::string {
public:
    enum push_result {
        ACCEPTED = 0,
        REJECTED = 1,   ///< and nothing has changed: the next character may still be accepted
        WHITESPACE = 2  ///< white space between tokens, skipped
    };

    virtual void clear();
    /// White space ahead of the value is ACCEPTED, though it is not stored.
    virtual push_result push(char ch);
    virtual jtype type() const;
    virtual bool is_valid() const;  ///< whether what was accepted so far is a complete value
    virtual std::string readout() const;
    virtual ~reader() = default;

    /// How far the outermost value has come, 0 at its start. A container: 1 after its opening bracket, 2 from
    /// the first character of an element or key on, 3 after a comma, 4 closed. Other values: see reader.cpp.
    unsigned char get_state() const;

private:
    /// The token to which the next character belongs.
    enum class spot { start, opened, after_comma, key, after_key, after_colon, value };

    push_result push_key(char ch);
    push_result push_value(char ch);
    push_result push_string(char ch);
    push_result push_number(char ch);
    push_result push_boolean(char ch);
    push_result push_null(char ch);
    push_result push_array(char ch);
    push_result push_object(char ch);

    push_result begin_value(char ch);
    push_result end_value(char ch);
    push_result close(char ch);
    push_result advance(int next_state, char ch);
    push_result move_to(spot next, char ch);
    push_result spell(const char* word, char ch);
    bool value_is_valid() const;

    spot place = spot::start;
    std::string open;               ///< the brackets that are open, outermost first
    jtype kind = jtype::not_valid;  ///< of the value last begun or closed
    std::size_t begin_of_value = 0;
    unsigned char state = 0;  ///< within the value or key last begun
};

/// Reads one member of an object: a key, a colon and a value. Its own text is the value's.
class kvp_reader : public reader {
public:
    void clear() override;
    push_result push(char ch) override;
    bool is_valid() const override;
    std::string readout() const override;  ///< key and value joined by a colon
    ~kvp_reader() override = default;

private:
    reader _key;
    bool _colon_read = false;
};

}  // namespace json
