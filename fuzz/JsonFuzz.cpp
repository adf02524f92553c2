// Feeds any text to every reader of the JSON library.
#include <algorithm>
#include <string>
#include <tuple>
#include <utility>

#include "fuzz/SealedWorld.h"
#include "json/json.h"

using namespace json;

namespace {

using fuzz::Require;
using Tried = reader::push_result;

template <typename Read>
bool Parses(Read read) {
    try {
        read();
        return true;
    } catch (const parsing_error&) {
        return false;
    }
}

bool SameState(const reader& one, const reader& other) {
    return one.size() == other.size() && one.is_valid() == other.is_valid() &&
           one.get_state() == other.get_state();
}

void CheckReader(const std::string& text) {
    reader input;
    for (const char ch : text) {
        const auto [size, valid, state] = std::tuple(input.size(), input.is_valid(), input.get_state());
        if (input.push(ch) != Tried::REJECTED) continue;
        Require(size == input.size() && valid == input.is_valid() && state == input.get_state(),
                "a rejected character changes nothing");
    }
    reader again;
    for (const char ch : input.readout())
        Require(again.push(ch) == Tried::ACCEPTED, "the reader's own text can be read");
    Require(again == input && SameState(again, input), "and reads as the same value");
    again.clear();
    Require(again.empty() && SameState(again, reader()), "a cleared reader is as good as new");
}

void CheckMember(const std::string& text) {
    kvp_reader member;
    for (const char ch : text) member.push(ch);
    member.clear();  // a cleared reader must read like a new one
    for (const char ch : text) member.push(ch);
    if (!member.is_valid()) return;
    reader object;
    for (const char ch : "{" + member.readout() + "}")
        Require(object.push(ch) == Tried::ACCEPTED, "members fit objects");
    Require(object.is_valid(), "a member makes an object");
}

void CheckValue(const std::string& text) {
    ParseResult value;
    if (!Parses([&] { value = parse_value(text.c_str()); })) return;
    const auto read = static_cast<std::size_t>(value.remainder - text.c_str());
    Require(read <= text.size(), "reading ends with the text");
    reader input;
    for (const char ch : text.substr(0, read))
        Require(input.push(ch) != Tried::REJECTED, "one rejection ends it");
    Require(input.is_valid() == (value.type != jtype::not_valid), "reader and value agree on validity");
    Require(!input.is_valid() || (input == value.value && input.type() == value.type), "and on the value");
}

void CheckString(const std::string& text) {
    Require(decode_string(encode_string(text.c_str()).c_str()) == text, "text survives coding");
    std::string plain;
    if (Parses([&] { plain = decode_string(text.c_str()); }))
        Require(decode_string(encode_string(plain.c_str()).c_str()) == plain, "and so does decoded text");
}

void CheckArray(const std::string& text) {
    std::vector<std::string> elements;
    if (!Parses([&] { elements = parse_array(text.c_str()); })) return;
    const jobject array = jobject::parse(text);
    Require(array.is_array() && array.size() == elements.size(), "an array has its elements");
    for (std::size_t i = 0; i < elements.size(); ++i)
        Require(array.at(i).as_string() == elements[i], "and they read alike");
}

void ReadNumbers(const jobject::entry& entry) {
    static_cast<void>(static_cast<int>(entry) + static_cast<double>(static_cast<float>(entry)));
    static_cast<void>(static_cast<unsigned>(entry) + static_cast<unsigned long>(entry));
    static_cast<void>(static_cast<long>(entry) == static_cast<char>(entry));
    static_cast<void>(static_cast<double>(entry));
}

void CheckEntry(const jobject::entry& entry) {
    const char first = entry.ref().front();
    const int kinds =
        entry.is_string() + entry.is_number() + entry.is_bool() + entry.is_null() + entry.is_array();
    Require(kinds == (first == '{' ? 0 : 1), "a value has one type");
    Require(entry.is_string() == (first == '"') && (entry.is_string() || entry.as_string() == entry.ref()),
            "what is no string reads as its text");
    Require(static_cast<bool>(entry) == (entry.ref() == "true"), "only true is true");
    ReadNumbers(entry);
    const bool numbers = Parses([&] { static_cast<void>(static_cast<std::vector<int>>(entry)); });
    const bool container = Parses([&] { static_cast<void>(static_cast<jobject>(entry)); });
    Require(numbers == entry.is_array() && (container || first != '['), "an array reads as one");
}

bool Any(const std::vector<std::string>& keys, const char* characters) {
    const auto holds = [&](const std::string& key) {
        return key.find_first_of(characters) != std::string::npos;
    };
    return std::any_of(keys.begin(), keys.end(), holds);
}

// These checks take time that grows with the square of the size: indenting by depth, and a search for every
// key.
void CheckSmallDocument(jobject document) {
    const auto keys = document.list_keys();
    for (const std::string& key : keys)
        Require(document.has_key(key) && !document[key].ref().empty(), "keys lead to values");
    // Indented text does not escape the keys, at any depth.
    const bool hasEscapes = document.as_string().find('\\') != std::string::npos;
    std::string indented;
    if (Parses([&] { indented = document.pretty(); }) && !document.is_array() && !hasEscapes)
        Require(jobject::parse(indented).list_keys() == keys, "indented text keeps its members");
    for (const std::string& key : keys) document.remove(key);
    Require(document.is_array() || document.size() == 0, "members can be removed");
}

void CheckDocument(const std::string& text) {
    jobject document;
    if (!Parses([&] { document = jobject::parse(text); })) return;
    const std::string written = document.as_string();
    jobject again;
    const bool reads = Parses([&] { again = jobject::parse(written); });
    Require(reads != Any(document.list_keys(), "/"), "written text can be read, except an escaped solidus");
    Require(!reads || again.as_string() == written, "and reads as the same text");
    for (std::size_t i = 0; i < document.size(); ++i) CheckEntry(document.at(i));
    if (written.size() <= 4096) CheckSmallDocument(std::move(document));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    CheckReader(text);
    CheckMember(text);
    // The rest of the library reads texts that end with a NUL.
    const std::string line = text.c_str();
    CheckValue(line);
    CheckString(line);
    CheckArray(line);
    CheckDocument(line);
    return 0;
}
