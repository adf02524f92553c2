#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "json/json.h"
#include "tests/json/Outcome.h"

namespace {

using json::jobject;

std::string Parsed(const std::string& text) {
    return OutcomeOf([&] { return jobject::parse(text).as_string(); });
}

struct Document {
    const char* name;
    std::string text, outcome;  // the compact text, or the error's
};

class Parse : public testing::TestWithParam<Document> {};

TEST_P(Parse, WritesTheSameAgainOrSaysWhatIsWrongFirst) {
    EXPECT_EQ(Parsed(GetParam().text), GetParam().outcome);
}

INSTANTIATE_TEST_SUITE_P(
    Accepted, Parse,
    testing::Values(
        Document{"EmptyObject", " { } ", "{}"}, Document{"EmptyArray", "[]", "[]"},
        Document{"OrderStaysSpaceGoes", R"( {"b" : 1 , "a" : "x y" } )", R"({"b":1,"a":"x y"})"},
        Document{"Nested", R"({"o": { "k" : [ 1 , 2 ] }})", R"({"o":{"k":[1,2]}})"},
        Document{"Array", R"([ "a" , -1.5e3 , {"a" : null}, [ ] ])", R"(["a",-1.5e3,{"a":null},[]])"},
        Document{"LastComma", R"({"a":1,})", R"({"a":1})"}, Document{"LastCommaInArray", "[1,]", "[1]"},
        Document{"RestIsIgnored", "{}}x", "{}"},
        Document{"NestedKeysAreNotLookedInto", R"({"o":{"":1,"a":1,"a":2}})", R"({"o":{"":1,"a":1,"a":2}})"},
        Document{"EscapesStay", R"({"a\n\"":"\u0041\t"})", R"({"a\n\"":"\u0041\t"})"},
        Document{"CodePointsInKeysVanish", R"({"a\u0041":1})", R"({"a":1})"}),
    nameOf);

constexpr const char* notValid = "Input is not a valid object";

INSTANTIATE_TEST_SUITE_P(
    BadKeys, Parse,
    testing::Values(Document{"SameTwice", R"({"a":1,"b":2,"a":1})", "Key conflict"},
                    Document{"SameOnceRead", R"({"a\n":1,"a\u0041\n":2})", "Key conflict"},
                    Document{"Empty", R"({"":1})", "Missing key"},
                    Document{"ReadAsEmpty", R"({"\u0041":1})", "Missing key"},
                    Document{"ConflictBeforeBadMember", R"({"a":1,"a":2,"b":x})", "Key conflict"},
                    Document{"ConflictBeforeTheEnd", R"({"a":1,"a":2,)", "Key conflict"},
                    Document{"ConflictBeforeEmptyKey", R"({"a":1,"a":2,"":3})", "Key conflict"},
                    Document{"EmptyKeyBeforeConflict", R"({"a":1,"":3,"a":2})", "Missing key"},
                    Document{"EmptyKeyBeforeBadMember", R"({"":1,x})", "Missing key"},
                    Document{"OwnSyntaxBeforeConflict", R"({"a":1,"a":2 x)", notValid},
                    Document{"OwnSyntaxBeforeEmptyKey", R"({"":1)", notValid}),
    nameOf);

TEST(JObjectTest, RefusesWhatIsNoObject) {
    for (const char* text :
         {"", "1", "{ ", "[", "[1, ]", "[1,,2]", "[1 2]", "{1:1}", R"({"a")", R"({"a": )", R"({"a":1)",
          R"({"a":"1})", R"({"a":1])", R"({"a":1, })", R"({"a":[1,]})", R"({"a":"\/"})"})
        EXPECT_EQ(Parsed(text), notValid) << text;
    EXPECT_EQ(Parsed(std::string("{\"a\":1\0}", 8)), notValid);
}

const char* const everyKind =
    R"({"s":"a\nb","n":12,"o":{"k":[ 1 ]},"a":[1,"2"],"t":true,"f":false,"z":null,"q":"true"})";

TEST(JObjectTest, ReadsMembersAsText) {
    const jobject object = jobject::parse(everyKind);
    EXPECT_EQ(object["s"].as_string(), "a\nb");
    EXPECT_EQ(object["s"].ref(), R"("a\nb")");
    EXPECT_EQ(object["n"].as_string(), "12");
    EXPECT_EQ(object["z"].as_string(), "null");
    EXPECT_EQ(object["o"].as_string(), R"({"k":[1]})");
    const jobject inner = object["o"];
    EXPECT_TRUE(inner["k"].is_array());
    EXPECT_EQ(OutcomeOf([&] { return jobject(object["n"]).as_string(); }), notValid);
}

TEST(JObjectTest, TellsTheTypesApart) {
    jobject object = jobject::parse(everyKind);
    for (const char* raw : {" true", "truex", " false", "tru"}) object.set(raw, raw);
    const auto types = [&](const jobject::const_proxy& member) {
        return std::string(member.is_string() ? "s" : "") + (member.is_number() ? "n" : "") +
               (member.is_bool() ? "b" : "") + (member.is_null() ? "z" : "") +
               (member.is_array() ? "a" : "") + (member ? "!" : "");
    };
    std::string all;
    for (const std::string& key : object.list_keys()) all += key + "=" + types(object[key]) + " ";
    EXPECT_EQ(all, "s=s n=n o= a=a t=b! f=b z=z q=s  true=b! truex=b!  false=b tru= ");
}

TEST(JObjectTest, ReadsNumbersAsScanfDoes) {
    jobject object;
    const auto holding = [&object](const char* text) {
        object.set("n", text);
        return object["n"];
    };
    EXPECT_EQ(static_cast<int>(holding("-0x10")), -16);
    EXPECT_EQ(static_cast<int>(holding("\"12\"")), 0);
    EXPECT_EQ(static_cast<int>(holding("")), 0);
    EXPECT_EQ(static_cast<unsigned>(holding("4294967295")), 4294967295u);
    EXPECT_EQ(static_cast<long>(holding("-2147483649")), -2147483649L);
    EXPECT_EQ(static_cast<unsigned long>(holding("x")), 0u);
    EXPECT_EQ(static_cast<char>(holding("7")), '7');
    EXPECT_EQ(static_cast<float>(holding("1.5")), 1.5F);
    EXPECT_EQ(static_cast<double>(holding("-0.5e+3")), -500.0);
    EXPECT_EQ(static_cast<std::vector<int>>(holding(R"([1,"2",null])")), (std::vector<int>{1, 2, 0}));
    const auto list = holding("[7,1.5]");
    EXPECT_EQ(static_cast<std::vector<unsigned>>(list), (std::vector<unsigned>{7, 1}));
    EXPECT_EQ(static_cast<std::vector<long>>(list), (std::vector<long>{7, 1}));
    EXPECT_EQ(static_cast<std::vector<unsigned long>>(list), (std::vector<unsigned long>{7, 1}));
    EXPECT_EQ(static_cast<std::vector<char>>(list), (std::vector<char>{'7', '1'}));
    EXPECT_EQ(static_cast<std::vector<float>>(list), (std::vector<float>{7, 1.5}));
    EXPECT_EQ(static_cast<std::vector<double>>(list), (std::vector<double>{7, 1.5}));
}

TEST(JObjectTest, WritesWhatIsAssigned) {
    jobject object, inner;
    inner["k"] = "v";
    object["text"] = "a/b\n";
    object["cut"] = std::string("ab\0cd", 5);
    object["int"] = 1234567;
    object["short"] = -1;
    object["unsigned"] = 4294967295u;
    object["long"] = -2147483649L;
    object["unsigned long"] = 123456UL;
    object["char"] = '7';
    object["float"] = 1.5F;
    object["double"] = 100000.25;
    object["object"] = inner;
    object["array"] = jobject::parse("[1]");
    object["quoted"].set_array({"a/b", "1"}, true);
    object["bare"].set_array({"1", "null"}, false);
    object["none"].set_array({}, true);
    object["a/b"] = "key";
    EXPECT_EQ(
        object.as_string(),
        R"({"text":"a\/b\n","cut":"ab","int":1234567,"short":-1,"unsigned":4294967295,"long":-2147483649,)"
        R"("unsigned long":123456,"char":7,"float":1.500000,"double":100000.250000,"object":{"k":"v"},)"
        R"("array":[1],"quoted":["a\/b","1"],"bare":[1,null],"none":[],"a\/b":"key"})");
    EXPECT_EQ(object["text"].as_string(), "a/b\n");
}

TEST(JObjectTest, ChangesMembersInPlace) {
    jobject object = jobject::parse(R"({"a":1,"b":2,"c":3})");
    object["b"] = "new";
    object.remove("a");
    object.remove("absent");
    object["a"] = 4;
    EXPECT_EQ(object.as_string(), R"({"b":"new","c":3,"a":4})");
    EXPECT_EQ(object.list_keys(), (std::vector<std::string>{"b", "c", "a"}));
    EXPECT_EQ(object.at(2).as_string(), "4");
    EXPECT_THROW(object.at(3), std::out_of_range);
}

TEST(JObjectTest, NamesTheKeyThatIsMissing) {
    jobject object = jobject::parse(R"({"a":1})");
    const std::string longer("a\0b", 3);
    EXPECT_TRUE(object.has_key("a"));
    EXPECT_FALSE(object.has_key("A"));
    EXPECT_FALSE(object.has_key(longer));
    jobject array = jobject::parse("[1]");
    const jobject& constArray = array;
    EXPECT_EQ(OutcomeOf([&] { return object["gone"].as_string(); }), "missing: gone");
    EXPECT_EQ(OutcomeOf([&] { return object["gone"].is_null() ? "" : "-"; }), "missing: gone");
    EXPECT_EQ(OutcomeOf([&] { return array["k"].as_string(); }), "missing: k");
    EXPECT_EQ(OutcomeOf([&] { return constArray["k"].as_string(); }), "missing: k");
    EXPECT_EQ(OutcomeOf([&] { return array.set("k", "1"), "-"; }), "missing: k");
    EXPECT_EQ(object.size(), 1u);  // asking adds nothing
}

TEST(JObjectTest, ArraysAreReadByIndexOnly) {
    const jobject array = jobject::parse(R"(["a\n",{"k":1},2])");
    ASSERT_TRUE(array.is_array());
    ASSERT_EQ(array.size(), 3u);
    EXPECT_EQ(array.at(0).as_string(), "a\n");
    EXPECT_EQ(static_cast<jobject>(array.at(1))["k"].as_string(), "1");
    EXPECT_TRUE(array.at(2).is_number());
    EXPECT_FALSE(array.has_key(""));
    EXPECT_TRUE(array.list_keys().empty());
    EXPECT_EQ(jobject(true).as_string(), "[]");
    EXPECT_THROW(jobject::const_proxy(array, "k"), std::logic_error);
}

TEST(JObjectTest, IndentsForPeople) {
    jobject object = jobject::parse(R"({"a\n":1,"o":{"k":[1,{},["x"]]},"e":[]})");
    EXPECT_EQ(object.pretty(1),
              "\t{\n\t\t\"a\n\": 1,\n\t\t\"o\": {\n\t\t\t\"k\": [\n\t\t\t\t1,\n\t\t\t\t{},\n"
              "\t\t\t\t[\n\t\t\t\t\t\"x\"\n\t\t\t\t]\n\t\t\t]\n\t\t},\n\t\t\"e\": []\n\t}");
    EXPECT_EQ(jobject().pretty(), "{}");
    object.set("o", R"({"a":1,"a":2})");
    EXPECT_THROW(object.pretty(), json::parsing_error);
}

}  // namespace
