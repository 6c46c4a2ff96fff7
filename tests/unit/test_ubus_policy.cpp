// Argument reading by policy: a member of another type counts as absent.
#include <gtest/gtest.h>

#include "ubus/json_ref.h"
#include "ubus/policy.h"

namespace {

json_ref parse(const char *text) {
    return json_ref(json_tokener_parse(text));
}

struct type_case {
    const char *value;  // JSON text of the member
    arg_type type;
    bool accepted;
};

class ArgTypeTest : public ::testing::TestWithParam<type_case> {};

TEST_P(ArgTypeTest, AcceptsOnlyItsOwnType) {
    const type_case &c = GetParam();
    json_ref value = parse(c.value);
    EXPECT_EQ(arg_has_type(value.get(), c.type), c.accepted) << c.value;
}

INSTANTIATE_TEST_SUITE_P(
    Values, ArgTypeTest,
    ::testing::Values(
        type_case{"\"1\"", arg_type::string, true}, type_case{"1", arg_type::string, false},
        type_case{"null", arg_type::string, false}, type_case{"1", arg_type::int32, true},
        type_case{"-2147483648", arg_type::int32, true},
        type_case{"2147483647", arg_type::int32, true},
        type_case{"2147483648", arg_type::int32, false},
        type_case{"-2147483649", arg_type::int32, false},
        type_case{"18446744073709551615", arg_type::int32, false},
        type_case{"1.5", arg_type::int32, false}, type_case{"\"1\"", arg_type::int32, false},
        type_case{"true", arg_type::int32, false}, type_case{"[]", arg_type::array, true},
        type_case{"{}", arg_type::array, false}, type_case{"\"[]\"", arg_type::array, false},
        type_case{"{}", arg_type::table, true}, type_case{"[]", arg_type::table, false}));

const arg_policy add_policy[3] = {
    {"mac", arg_type::string}, {"ip", arg_type::string}, {"count", arg_type::int32}};

TEST(ParseArgsJson, FindsMembersOfTheirTypeAndSkipsOthers) {
    json_ref request = parse(R"({"mac":"aa:bb","ip":7,"count":3,"other":"x"})");
    json_object *found[3];
    ASSERT_EQ(parse_args_json(add_policy, 3, request.get(), found), 0);
    ASSERT_NE(found[0], nullptr);
    EXPECT_STREQ(json_object_get_string(found[0]), "aa:bb");
    EXPECT_EQ(found[1], nullptr);  // "ip" is a number, not a string: absent
    ASSERT_NE(found[2], nullptr);
    EXPECT_EQ(json_object_get_int(found[2]), 3);
}

TEST(ParseArgsJson, EmptyObjectParsesWithEverythingAbsent) {
    json_ref request = parse("{}");
    json_object *found[3] = {request.get(), request.get(), request.get()};
    EXPECT_EQ(parse_args_json(add_policy, 3, request.get(), found), 0);
    for (json_object *member : found) {
        EXPECT_EQ(member, nullptr);
    }
}

TEST(ParseArgsJson, NonObjectRequestFailsAndClearsEveryMember) {
    json_ref array = parse(R"([{"mac":"aa"}])");
    for (json_object *request : {static_cast<json_object *>(nullptr), array.get()}) {
        json_object *found[3] = {array.get(), array.get(), array.get()};
        EXPECT_EQ(parse_args_json(add_policy, 3, request, found), -1);
        for (json_object *member : found) {
            EXPECT_EQ(member, nullptr);
        }
    }
}

}  // namespace
