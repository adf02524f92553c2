#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/json/Outcome.h"

namespace {

using namespace std::string_literals;

/// A text, the answer to each character: A(ccepted), R(ejected) or W(hitespace), and what that leaves.
struct Reading {
    const char* name;
    std::string text, answers, readout;
    bool valid;
};

void CheckTwice(const Reading& row, json::reader&& reader) {
    for (int round = 0; round < 2; ++round) {
        std::string answers;
        for (const char ch : row.text) answers += "ARW"[reader.push(ch)];
        EXPECT_EQ(answers, row.answers);
        EXPECT_EQ(reader.readout(), row.readout);
        EXPECT_EQ(reader.is_valid(), row.valid);
        reader.clear();
        EXPECT_EQ(reader.get_state(), 0);
    }
}

class ReaderAnswers : public testing::TestWithParam<Reading> {};
class MemberReaderAnswers : public testing::TestWithParam<Reading> {};

TEST_P(ReaderAnswers, EachCharacterAndDoesSoAgainAfterClear) { CheckTwice(GetParam(), json::reader()); }
TEST_P(MemberReaderAnswers, EachCharacterAndDoesSoAgainAfterClear) {
    CheckTwice(GetParam(), json::kvp_reader());
}

INSTANTIATE_TEST_SUITE_P(
    Scalars, ReaderAnswers,
    testing::Values(Reading{"Nothing", "", "", "", false},
                    Reading{"NoValue", "x}],:/+.\0"s, "RRRRRRRRR", "", false},
                    Reading{"SpaceAhead", " \t\n\v\f\r7", "AAAAAAA", "7", true},
                    Reading{"String", "\"a \n\x80\x01\" ", "AAAAAAAR", "\"a \n\x80\x01\"", true},
                    Reading{"EmptyString", R"(""")", "AAR", R"("")", true},
                    Reading{"NulInString", "\"\0\""s, "AAA", "\"\0\""s, true},
                    Reading{"Escapes", R"("\"\\\b\f\n\r\t")", "AAAAAAAAAAAAAAAA", R"("\"\\\b\f\n\r\t")",
                            true},
                    Reading{"EscapedSolidus", R"("\/x'n")", "AARRRAA", R"("\n")", true},
                    Reading{"CodePoint", R"("\u1gaFx0")", "AAAARAARAA", R"("\u1aF0")", true},
                    Reading{"UnfinishedCodePoint", R"("\u12")", "AAAAAR", R"("\u12)", false},
                    Reading{"NumberInFull", "-0.5e+3", "AAAAAAA", "-0.5e+3", true},
                    Reading{"DigitAfterLeadingZero", "01", "AR", "0", true},
                    Reading{"PointWithoutDigit", "1.e.", "AARR", "1.", false},
                    Reading{"ExponentWithoutDigit", "1e", "AA", "1e", false},
                    Reading{"SignedExponentWithoutDigit", "10E-+.", "AAAARR", "10E-", false},
                    Reading{"SecondPoint", "1.5.6e7.", "AAARAAAR", "1.56e7", true},
                    Reading{"SecondExponent", "1e5e", "AAAR", "1e5", true},
                    Reading{"LoneMinus", "-+.e-", "ARRRR", "-", false},
                    Reading{"SpaceInNumber", "1 2", "ARA", "12", true},
                    Reading{"True", "trrue\0"s, "AARAAR", "true", true},
                    Reading{"False", "falsse", "AAAARA", "false", true},
                    Reading{"Null", "nuulll", "AARAAR", "null", true}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    Containers, ReaderAnswers,
    testing::Values(
        Reading{"EmptyArray", "[ ] ", "AWAR", "[]", true},
        Reading{"EmptyObject", "{\n}}", "AWAR", "{}", true},
        Reading{"SpaceBetweenElements", " [ 1 , \"a b\" ] ", "AAWAWAWAAAAAWAR", "[1,\"a b\"]", true},
        Reading{"SpaceBetweenMembers", R"({ "k" : 1 , "l":2 })", "AWAAAWAWAWAWAAAAAWA", R"({"k":1,"l":2})",
                true},
        Reading{"NumberGoesOnBehindSpace", "[1 2]", "AAWAA", "[12]", true},
        Reading{"AndSoInAnObject", R"({"a":1 .5})", "AAAAAAWAAA", R"({"a":1.5})", true},
        Reading{"SpaceInsideUnfinishedValues", "[1. 5,t rue]", "AAARAAARAAAA", "[1.5,true]", true},
        Reading{"StringDoesNotGoOn", R"(["a" "b"])", "AAAAWRRRA", R"(["a"])", true},
        Reading{"CommaBeforeBracket", "[1,],2]", "AAARRAA", "[1,2]", true},
        Reading{"CommaBeforeBrace", R"({"a":1,}"b":2})", "AAAAAAARAAAAAA", R"({"a":1,"b":2})", true},
        Reading{"CommaFirst", "[,{,}]", "ARARAA", "[{}]", true},
        Reading{"KeyIsAString", R"({1a"k"1:,2})", "ARRAAARARAA", R"({"k":2})", true},
        Reading{"KeysAreNotLookedInto", R"({"":1,"a":2,"a":3})", "AAAAAAAAAAAAAAAAAA",
                R"({"":1,"a":2,"a":3})", true},
        Reading{"EscapedSolidusInKey", R"({"\/b":1})", "AAARAAAAA", R"({"\b":1})", true},
        Reading{"EscapedSolidusDeepInside", R"([["\/"]])", "AAAARAAA", R"([["\"]])", false},
        Reading{"WrongBracket", R"([{"a"]:1]}}])", "AAAAARAARARA", R"([{"a":1}])", true},
        Reading{"InnerOnesCloseFirst", "[[1 ] , {} ]", "AAAWAWAWAAWA", "[[1],{}]", true},
        Reading{"ValueBehindContainer", "[[]1{}]", "AAARRRA", "[[]]", true},
        Reading{"NothingAfterTheEnd", "{}[,1", "AARRR", "{}", true},
        Reading{"Nul", "[\0]"s, "ARA", "[]", true}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(Members, MemberReaderAnswers,
                         testing::Values(Reading{"SpaceAnywhere", " \"k\" : 1", "WAAAWAWA", "\"k\":1", true},
                                         Reading{"WrongCharacters", "k\"a\"b:,2,", "RAAARARAR", "\"a\":2",
                                                 true},
                                         Reading{"NoValueYet", "\"k\":", "AAAA", "\"k\":", false},
                                         Reading{"Container", "\"k\":[1 ]]", "AAAAAAWAR", "\"k\":[1]", true}),
                         nameOf);

TEST(ReaderTest, StateIsThatOfTheOutermostValue) {
    const std::vector<std::pair<std::string, std::string>> table = {{R"("a\u00e9")", "123456728"},
                                                                    {R"("\n)", "132"},
                                                                    {"-0.5e+3", "1245678"},
                                                                    {"12e4", "3368"},
                                                                    {"true", "0000"},
                                                                    {" [[1],2]]", "012223244"},
                                                                    {"[ ]", "114"},
                                                                    {"[x,1,]", "111233"},
                                                                    {R"({"a":{},"b":1})", "12222223222224"}};
    for (const auto& [text, expected] : table) {
        json::reader reader;
        std::string states;
        for (const char ch : text) {
            reader.push(ch);
            states += static_cast<char>('0' + reader.get_state());
        }
        EXPECT_EQ(states, expected) << text;
    }
}

}  // namespace
