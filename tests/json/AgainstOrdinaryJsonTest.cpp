// Beside an ordinary JSON library, on documents that mean the same to both: no escaped solidus or \u, no NUL,
// no empty key, no key twice.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

#include "json/json.h"

namespace {

using ordinary = nlohmann::ordered_json;

const std::vector<std::string> texts = {"aB7",      "{]\"} [,\\:/", "\b\n\r\f\t",
                                        "\xc3\xa9", "\\\"",         "\xf0\x9f\x90\xa7"};
const ordinary numbers = {0, -7, 123456789012345, 0.25, -1.5e-30, 1e300};

/// Any value, nested `depth` times at most.
ordinary Value(std::mt19937& random, unsigned depth) {
    const std::string& text = texts[random() % texts.size()];
    const auto kind = random() % (depth > 0 ? 7 : 4);
    if (kind == 0) return text;
    if (kind == 1) return numbers[random() % numbers.size()];
    if (kind == 2) return nullptr;
    if (kind == 3) return random() % 2 == 0;
    ordinary value = kind == 4 ? ordinary::array() : ordinary::object();
    for (auto left = random() % 6; left > 0; --left) {
        ordinary inner = Value(random, depth - 1);
        kind == 4 ? value.push_back(inner) : value.push_back({text + std::to_string(left), inner});
    }
    return value;
}

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
    std::mt19937 random(1);
    for (int round = 0; round < 2000 && !HasFailure(); ++round) {
        const ordinary theirs = {{"one", Value(random, 5)}, {"two", Value(random, 5)}};
        const std::string text = theirs.dump(round % 4 - 1, " \t\r\v"[round % 3]);
        SCOPED_TRACE(text);
        Compare(json::jobject::const_value(json::parse_value(text.c_str()).value), theirs);
        EXPECT_EQ(ordinary::parse(json::jobject::parse(text).as_string()), theirs);
    }
}

}  // namespace
