#include <cstdio>

#include "json/json.h"

namespace json {

namespace {

// The formats decide how numbers are read and written: "%i" takes 010 for eight and 0x10 for sixteen.
void scan(const char* text, int& number) { std::sscanf(text, "%i", &number); }
void scan(const char* text, unsigned& number) { std::sscanf(text, "%u", &number); }
void scan(const char* text, long& number) { std::sscanf(text, "%li", &number); }
void scan(const char* text, unsigned long& number) { std::sscanf(text, "%lu", &number); }
void scan(const char* text, char& character) { std::sscanf(text, "%c", &character); }
void scan(const char* text, float& number) { std::sscanf(text, "%f", &number); }
void scan(const char* text, double& number) { std::sscanf(text, "%lf", &number); }

int print(char* to, std::size_t size, int number) { return std::snprintf(to, size, "%i", number); }
int print(char* to, std::size_t size, unsigned number) { return std::snprintf(to, size, "%u", number); }
int print(char* to, std::size_t size, long number) { return std::snprintf(to, size, "%li", number); }
int print(char* to, std::size_t size, unsigned long number) { return std::snprintf(to, size, "%lu", number); }
int print(char* to, std::size_t size, char character) { return std::snprintf(to, size, "%c", character); }
int print(char* to, std::size_t size, double number) { return std::snprintf(to, size, "%lf", number); }

template <typename Number>
Number number_of(const std::string& text) {
    Number number{};  // stays 0 when the text does not match
    scan(text.c_str(), number);
    return number;
}

template <typename Number>
std::string text_of(Number number) {
    std::string text(6, '\0');  // long enough for most numbers
    const int length = print(text.data(), text.size(), number);
    if (length < 0) return {};
    const auto needed = static_cast<std::size_t>(length);
    if (needed >= text.size()) {
        text.resize(needed + 1);
        print(text.data(), text.size(), number);
    }
    text.resize(needed);
    return text;
}

}  // namespace

std::string jobject::entry::as_string() const {
    const std::string& text = ref();
    return !text.empty() && text.front() == '"' ? decode_string(text.c_str()) : text;
}

bool jobject::entry::type_is(jtype wanted) const { return parse_value(ref().c_str()).type == wanted; }

jobject::entry::operator bool() const {
    const ParseResult found = parse_value(ref().c_str());
    return found.type == jtype::jbool && found.value == "true";
}

jobject::entry::operator int() const { return number_of<int>(ref()); }
jobject::entry::operator unsigned() const { return number_of<unsigned>(ref()); }
jobject::entry::operator long() const { return number_of<long>(ref()); }
jobject::entry::operator unsigned long() const { return number_of<unsigned long>(ref()); }
jobject::entry::operator char() const { return number_of<char>(ref()); }
jobject::entry::operator float() const { return number_of<float>(ref()); }
jobject::entry::operator double() const { return number_of<double>(ref()); }

template <typename Number>
jobject::entry::operator std::vector<Number>() const {
    std::vector<Number> numbers;
    for (const std::string& element : parse_array(ref().c_str()))
        numbers.push_back(number_of<Number>(element));
    return numbers;
}
template jobject::entry::operator std::vector<int>() const;
template jobject::entry::operator std::vector<unsigned>() const;
template jobject::entry::operator std::vector<long>() const;
template jobject::entry::operator std::vector<unsigned long>() const;
template jobject::entry::operator std::vector<char>() const;
template jobject::entry::operator std::vector<float>() const;
template jobject::entry::operator std::vector<double>() const;

jobject::const_proxy::const_proxy(const jobject& from, std::string name)
    : source(from), key(std::move(name)) {
    if (source.is_array()) throw std::logic_error("Source cannot be an array");
}

const std::string& jobject::const_proxy::ref() const {
    const std::string* value = source.find(key);
    if (value == nullptr) throw invalid_key(key);
    return *value;
}

void jobject::proxy::operator=(int number) { sink.set(key, text_of(number)); }
void jobject::proxy::operator=(unsigned number) { sink.set(key, text_of(number)); }
void jobject::proxy::operator=(long number) { sink.set(key, text_of(number)); }
void jobject::proxy::operator=(unsigned long number) { sink.set(key, text_of(number)); }
void jobject::proxy::operator=(char character) { sink.set(key, text_of(character)); }
void jobject::proxy::operator=(float number) { sink.set(key, text_of(number)); }
void jobject::proxy::operator=(double number) { sink.set(key, text_of(number)); }

void jobject::proxy::set_array(const std::vector<std::string>& elements, bool quote) {
    std::string text = "[";
    for (const std::string& element : elements)
        (text += quote ? encode_string(element.c_str()) : element) += ',';
    if (!elements.empty()) text.pop_back();
    sink.set(key, text += ']');
}

}  // namespace json
