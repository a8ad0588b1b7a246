#include "json_value.h"

#include <gmock/gmock.h>

#include <cstdint>
#include <limits>
#include <stdexcept>

using engine::Json;

TEST(JsonValue, ListsOfNamedPairsAreObjectsAndAllOthersArrays)
{
    EXPECT_EQ((Json{{"b", 1}, {"a", nullptr}}).dump(), R"({"b":1,"a":null})") << "in the order that was given";
    EXPECT_EQ((Json{1, "two", true}).dump(), R"([1,"two",true])");
    EXPECT_EQ((Json{{"b", 1}, {2, 3}}).dump(), R"([["b",1],[2,3]])");
    EXPECT_EQ(Json(std::vector<std::string>{"x", "y"}).dump(), R"(["x","y"])");
    EXPECT_EQ(Json::array().dump(), "[]");
    EXPECT_EQ(Json::object().dump(), "{}");
    EXPECT_EQ(Json().dump(), "null");
}

TEST(JsonValue, MembersAndElementsAreAddedWhereNothingIs)
{
    Json json;
    json["list"].push_back(1);
    json["list"].push_back("two");
    json["name"] = "x";
    json["name"] = "y";
    EXPECT_EQ(json.dump(), R"({"list":[1,"two"],"name":"y"})");
    EXPECT_EQ(json.at("list")[1], "two");
    EXPECT_EQ(json.front(), (Json{1, "two"})) << "of an object too";
    EXPECT_EQ(json.back(), "y");
    EXPECT_EQ(json.value("none", 7).get<int>(), 7);
    EXPECT_FALSE(json.contains("none"));
}

TEST(JsonValue, WhatIsNotThereOrSomethingElseIsRefused)
{
    Json json{{"text", "x"}, {"large", std::numeric_limits<std::uint64_t>::max()}, {"small", -1}};
    EXPECT_THROW((void)json.at("none"), std::runtime_error);
    EXPECT_THROW((void)json.at(3), std::runtime_error);
    EXPECT_THROW((void)json.at("text").at(0), std::runtime_error);
    EXPECT_THROW((void)json.at("text").get<int>(), std::runtime_error);
    EXPECT_THROW((void)json.at("large").get<std::int64_t>(), std::runtime_error);
    EXPECT_THROW((void)json.at("small").get<unsigned>(), std::runtime_error);
    EXPECT_THROW((void)json.at("small").get<std::string>(), std::runtime_error);
    EXPECT_THROW(json["text"].push_back(1), std::runtime_error);
    EXPECT_THROW(json["text"]["member"] = 1, std::runtime_error);
    EXPECT_EQ(json.at("large").dump(), "18446744073709551615");
}

TEST(JsonValue, NumbersAreEqualWhateverTheirType)
{
    EXPECT_EQ(Json(7), Json(7u));
    EXPECT_EQ(Json(std::uint64_t{7}), Json(7));
    EXPECT_FALSE(Json(-1) == Json(std::numeric_limits<std::uint64_t>::max()));
    EXPECT_FALSE(Json(1) == Json(true));
    EXPECT_FALSE(Json("1") == Json(1));
}

TEST(JsonValue, WhatIsReadHasLimits)
{
    const auto nested = [](int depth) {
        return std::string(static_cast<std::size_t>(depth), '[') + std::string(static_cast<std::size_t>(depth), ']');
    };
    EXPECT_TRUE(Json::parsed(nested(12)));
    EXPECT_FALSE(Json::parsed(nested(14)));
    EXPECT_FALSE(Json::parsed(nested(1000000))) << "and takes no stack";
    for (const char *text : {"", "{", "{} {}", "nul", "{\"a\":}", "\xff", "[1,]"}) {
        EXPECT_FALSE(Json::parsed(text)) << text;
    }
    const std::string text = R"({"a":[1,-2,2.5,true,null,"long text"]})";
    EXPECT_EQ(Json::parsed(text)->dump(), text);
    EXPECT_EQ(Json::parsed(text, 4)->dump(), R"({"a":[1,-2,2.5,true,null,"long"]})");
}

TEST(JsonValue, WhatIsNoTextIsReplaced)
{
    const std::string bytes = "a\xff\n\xc2\x9b";
    EXPECT_EQ(Json(bytes).dump_ascii(), R"("a\ufffd\n\u009b")");
    EXPECT_EQ(Json::parsed(Json(bytes).dump())->get<std::string>(), "a\xef\xbf\xbd\n\xc2\x9b");
}
