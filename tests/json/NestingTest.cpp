#include <gtest/gtest.h>
#include <pthread.h>

#include <functional>
#include <string>

#include "json/json.h"
#include "tests/json/Outcome.h"

/// What hostile peers send: as much nesting and as many members as one message holds.
namespace {

constexpr std::size_t stackBytes = 64 << 10;

/// Runs `work` on a thread whose stack is so small that any recursion per level of nesting ends the process.
void OnASmallStack(std::function<void()> work) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, stackBytes), 0);
    const auto run = [](void* task) -> void* {
        (*static_cast<std::function<void()>*>(task))();
        return nullptr;
    };
    pthread_t thread{};
    ASSERT_EQ(pthread_create(&thread, &attributes, run, &work), 0);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
}

std::string Repeat(const std::string& text, std::size_t times) {
    std::string all;
    while (times-- > 0) all += text;
    return all;
}

TEST(NestingTest, OpenBracketsAreRefusedWithoutRecursion) {
    for (const std::string bracket : {"[", "{\"a\":"}) {
        const auto read = [&] { return json::jobject::parse(Repeat(bracket, 131072)).as_string(); };
        OnASmallStack([&] { EXPECT_EQ(OutcomeOf(read), "Input is not a valid object"); });
    }
}

TEST(NestingTest, ClosedPairsAreReadCopiedAndWrittenWithoutRecursion) {
    const std::string arrays = Repeat("[", 65536) + Repeat("]", 65536);
    const std::string objects = Repeat("{\"a\":", 20000) + "1" + Repeat("}", 20000);
    std::string written, inner;
    bool isArray = false;
    OnASmallStack([&] {
        json::jobject parsed = json::jobject::parse("{\"x\":" + arrays + ", \"y\": " + objects + "}");
        const json::jobject copy = parsed;
        parsed.remove("x");
        written = copy.as_string();
        isArray = copy["x"].is_array();
        inner = static_cast<json::jobject>(copy["y"])["a"].as_string();
    });
    EXPECT_EQ(written, "{\"x\":" + arrays + ",\"y\":" + objects + "}");
    EXPECT_TRUE(isArray);
    EXPECT_EQ(inner, objects.substr(5, objects.size() - 6));
}

TEST(NestingTest, IndentingDoesNotRecurse) {
    std::string pretty;
    OnASmallStack([&] { pretty = json::jobject::parse(Repeat("[", 2000) + Repeat("]", 2000)).pretty(); });
    // Brackets, line feeds, and tabs: 1 to 1999 of them on the way in, 1998 to 0 on the way out.
    EXPECT_EQ(pretty.size(), 2 * 2000 + 2 * 1999 + 1999 * 1999U);
}

TEST(NestingTest, TwentyThousandMembersKeepTheirOrder) {
    std::string text = "{";
    for (int i = 20000; i > 0; --i) text += "\"k" + std::to_string(i) + "\":" + std::to_string(i) + ",";
    text.back() = '}';
    const json::jobject parsed = json::jobject::parse(text);
    ASSERT_EQ(parsed.size(), 20000u);
    EXPECT_EQ(parsed.as_string(), text);
    text.back() = ',';
    text += "\"k20000\":0}";
    EXPECT_EQ(OutcomeOf([&] { return json::jobject::parse(text).as_string(); }), "Key conflict");
}

}  // namespace
