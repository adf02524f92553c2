// Beside an ordinary JSON library, on documents that mean the same to both: no escaped solidus or \u, no NUL,
// no empty key, no key twice.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <random>

#include "json/json.h"

namespace {

using ordinary = nlohmann::ordered_json;

/// Documents from a seed: nested values, white space anywhere, every escape that both read.
class Writer {
public:
    explicit Writer(unsigned seed) : random(seed) {}

    std::string Document() { return Space() + (Below(4) == 0 ? Array(5) : Object(5)) + Space(); }

private:
    unsigned Below(unsigned limit) { return static_cast<unsigned>(random() % limit); }
    template <std::size_t N>
    std::string OneOf(const char* const (&choices)[N]) {
        return choices[Below(N)];
    }
    std::string Space() { return Below(3) > 0 ? "" : OneOf({" ", "\n", "\t", " \r\n  "}); }
    std::string Times(unsigned most, const char* const (&choices)[16]) {
        std::string text;
        for (unsigned count = Below(most + 1); count > 0; --count) text += OneOf(choices);
        return text;
    }
    std::string Text() {
        return Times(8, {"a", "B", "7", " ", "{", "]", ",", ":", "/", "\\\"", "\\\\", "\\b", "\\n\\r",
                         "\\f\\t", "\xc3\xa9", "\xf0\x9f\x90\xa7"});
    }
    std::string Number() {
        return OneOf({"", "-"}) + OneOf({"0", "7", "10", "123456789012345"}) +
               OneOf({"", ".0", ".250", ".001"}) + OneOf({"", "", "e5", "E-3", "e+08"});
    }
    std::string Value(unsigned depth) {
        switch (Below(depth > 0 ? 6 : 4)) {
            case 0: return '"' + Text() + '"';
            case 1:
            case 2: return Number();
            case 3: return OneOf({"true", "false", "null"});
            case 4: return Array(depth - 1);
            default: return Object(depth - 1);
        }
    }
    std::string Array(unsigned depth) {
        std::string text = "[" + Space();
        for (unsigned left = Below(5); left > 0; --left)
            text += Value(depth) + Space() + (left > 1 ? "," + Space() : "");
        return text + "]";
    }
    std::string Object(unsigned depth) {
        std::string text = "{" + Space();
        for (unsigned left = Below(6); left > 0; --left)
            text += '"' + Text() + std::to_string(left) + '"' + Space() + ":" + Space() + Value(depth) +
                    Space() + (left > 1 ? "," + Space() : "");
        return text + "}";
    }

    std::mt19937 random;
};

void Compare(const json::jobject::entry& ours, const ordinary& theirs) {
    EXPECT_EQ(ours.is_string(), theirs.is_string());
    EXPECT_EQ(ours.is_number(), theirs.is_number());
    EXPECT_EQ(ours.is_null(), theirs.is_null());
    EXPECT_EQ(ours.is_bool(), theirs.is_boolean());
    EXPECT_EQ(static_cast<bool>(ours), theirs == true);
    EXPECT_EQ(ours.is_array(), theirs.is_array());
    if (theirs.is_string()) {
        EXPECT_EQ(ours.as_string(), theirs.get<std::string>());
    } else if (theirs.is_number()) {
        EXPECT_EQ(static_cast<double>(ours), theirs.get<double>());
    } else if (theirs.is_structured()) {
        const json::jobject inner = ours;
        ASSERT_EQ(inner.size(), theirs.size());
        std::vector<std::string> keys;
        std::size_t index = 0;
        for (const auto& [key, value] : theirs.items()) {
            if (theirs.is_object()) keys.push_back(key);
            Compare(inner.at(index++), value);
        }
        EXPECT_EQ(inner.list_keys(), keys);
    }
}

TEST(AgainstOrdinaryJsonTest, ReadsAndWritesTheSameDocuments) {
    std::size_t bytes = 0;
    for (unsigned seed = 1; seed <= 2000 && !HasFailure(); ++seed) {
        const std::string text = Writer(seed).Document();
        SCOPED_TRACE(text);
        const ordinary theirs = ordinary::parse(text);
        Compare(json::jobject::const_value(json::parse_value(text.c_str()).value), theirs);
        EXPECT_EQ(ordinary::parse(json::jobject::parse(text).as_string()), theirs);
        bytes += text.size();
    }
    EXPECT_GT(bytes, 100000U) << "the documents have become too small to tell anything";
}

}  // namespace
