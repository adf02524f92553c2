#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "json/text.h"
#include "tests/json/Outcome.h"

namespace {

using json::jtype;

/// The text in exactly as many bytes as it needs, so that the address sanitizer sees any read beyond its NUL.
std::vector<char> Exactly(const std::string& text) { return {text.c_str(), text.c_str() + text.size() + 1}; }

struct FrontOfText {
    const char* name;
    std::string text;
    jtype type;
    std::string value, remainder;
};

class ParseValue : public testing::TestWithParam<FrontOfText> {};

TEST_P(ParseValue, TakesOneValueAndSaysWhereItStopped) {
    const std::vector<char> text = Exactly(GetParam().text);
    const json::ParseResult result = json::parse_value(text.data());
    EXPECT_EQ(result.type, GetParam().type);
    EXPECT_EQ(result.value, GetParam().value);
    EXPECT_STREQ(result.remainder, GetParam().remainder.c_str());
}

INSTANTIATE_TEST_SUITE_P(
    Texts, ParseValue,
    testing::Values(FrontOfText{"String", " \"a\" ,", jtype::jstring, "\"a\"", " ,"},
                    FrontOfText{"NumberStopsAtSpace", "1 2", jtype::jnumber, "1", " 2"},
                    FrontOfText{"NumberToTheEnd", "-0.5e+3", jtype::jnumber, "-0.5e+3", ""},
                    FrontOfText{"IncompleteNumber", "1.,", jtype::not_valid, "", ","},
                    FrontOfText{"Bool", "falsehood", jtype::jbool, "false", "hood"},
                    FrontOfText{"IncompleteBool", "tru", jtype::not_valid, "", ""},
                    FrontOfText{"Null", "null", jtype::jnull, "null", ""},
                    FrontOfText{"Array", "[ 1 , [ ] ] ]", jtype::jarray, "[1,[]]", " ]"},
                    FrontOfText{"Object", "{ \"a\" : \" \" }}", jtype::jobject, "{\"a\":\" \"}", "}"},
                    FrontOfText{"NoValue", " ,1", jtype::not_valid, "", ",1"},
                    FrontOfText{"UnterminatedString", "\"abc", jtype::not_valid, "", ""},
                    FrontOfText{"UnterminatedEscape", "\"abc\\", jtype::not_valid, "", ""},
                    FrontOfText{"UnterminatedStringInside", "[{\"a", jtype::not_valid, "", ""}),
    nameOf);

TEST(DecodeStringTest, ReadsToTheClosingQuoteOrTheEnd) {
    const std::vector<std::pair<std::string, std::string>> table = {
        {R"("ab"c")", "ab"},
        {R"("")", ""},
        {R"("\"\\\/\b\f\n\r\t")", "\"\\/\b\f\n\r\t"},
        {R"("a\u00e9\u0041b")", "ab"},
        {R"("\u0041")", ""},
        {"\"\xc3\xa9\n\"", "\xc3\xa9\n"},
        {"\"ab", "ab"},
        {"\"a\\u12", "a"},
        {"\"a\\u", "a"}};
    for (const auto& [literal, plain] : table)
        EXPECT_EQ(json::decode_string(Exactly(literal).data()), plain) << literal;
}

TEST(EncodeStringTest, EscapesWhatNeedsItAndTheSolidus) {
    EXPECT_EQ(json::encode_string("\"\\/\b\f\n\r\t"), R"("\"\\\/\b\f\n\r\t")");
    EXPECT_EQ(json::encode_string("\x01\x1f\x7f\xc3\xa9'"), "\"\x01\x1f\x7f\xc3\xa9'\"");
    EXPECT_EQ(json::encode_string(""), "\"\"");
}

TEST(ParseArrayTest, DecodesStringsAndKeepsOtherTexts) {
    using Elements = std::vector<std::string>;
    EXPECT_EQ(json::parse_array(" [ ] x"), Elements{});
    EXPECT_EQ(json::parse_array(R"([ "a\n\u0041" , 1 ,[ 2 ],{"a" : "\n"},true] x)"),
              (Elements{"a\n", "1", "[2]", R"({"a":"\n"})", "true"}));
}

TEST(TextTest, RefusesWhatIsNoValueNoLiteralOrNoArray) {
    const auto value = [](const char* text) { return json::parse_value(text).value; };
    const auto elements = [](const char* text) { return json::parse_array(text).front(); };
    const struct {
        std::string (*read)(const char*);
        std::vector<std::string> texts;
        const char* outcome;
    } table[] = {
        {value, {"", " \t\r\n\v\f"}, "Input was only whitespace"},
        {json::decode_string, {"", "a\"", " \"a\""}, "Expecting opening quote"},
        {json::decode_string, {R"("\x")", R"("\U0041")", "\"\\"}, "Expected control character"},
        {elements, {"", "1", "{}"}, "Input was not an array"},
        {elements, {"[,]", "[1,]", "[1", "[1}", "[1 2]", "[tru]"}, "Input was not properly formated"},
        {elements, {"[", "[1, "}, "Input was only whitespace"}};
    for (const auto& row : table)
        for (const std::string& text : row.texts)
            EXPECT_EQ(OutcomeOf([&] { return row.read(Exactly(text).data()); }), row.outcome) << text;
}

}  // namespace
