// The static neighbor list primitives: newest first, find by full MAC, remove anywhere.
#include <gtest/gtest.h>

#include <vector>

#include "static/static_store.h"

namespace {

static_member *node_with_last_byte(uint8_t last) {
    static_member *node = static_member_new();
    node->info.mac = {0x02, 0, 0, 0, 0, last};
    return node;
}

std::vector<uint8_t> last_bytes() {
    std::vector<uint8_t> out;
    for (static_member *node = static_member_list.head; node != nullptr; node = node->next) {
        out.push_back(node->info.mac[5]);
    }
    return out;
}

class StaticList : public testing::Test {
  protected:
    void TearDown() override { static_member_clear(); }
};

TEST_F(StaticList, PushPutsNewestFirstAndCounts) {
    static_member_push(node_with_last_byte(1));
    static_member_push(node_with_last_byte(2));
    static_member_push(node_with_last_byte(3));
    static_member_push(nullptr);
    EXPECT_EQ(last_bytes(), (std::vector<uint8_t>{3, 2, 1}));
    EXPECT_EQ(static_member_list.count, 3);
}

TEST_F(StaticList, NewNodeIsZeroedAndStaticOffline) {
    static_member *node = static_member_new();
    EXPECT_EQ(node->info.state, AP_STATE_STATIC_OFFLINE);
    EXPECT_EQ(node->info.ip, 0u);
    EXPECT_EQ(node->next, nullptr);
    delete node;
}

TEST_F(StaticList, FindComparesAllSixBytesAndReturnsNearestTheHead) {
    static_member *older = node_with_last_byte(7);
    static_member *newer = node_with_last_byte(7);
    static_member_push(older);
    static_member_push(newer);
    static_member_push(node_with_last_byte(8));
    EXPECT_EQ(static_member_find({0x02, 0, 0, 0, 0, 7}), newer);
    EXPECT_EQ(static_member_find({0x03, 0, 0, 0, 0, 7}), nullptr);
}

TEST_F(StaticList, RemoveHeadMiddleAndTail) {
    for (uint8_t i = 1; i <= 4; ++i) {
        static_member_push(node_with_last_byte(i));
    }  // 4 3 2 1
    static_member_remove(static_member_find({0x02, 0, 0, 0, 0, 3}));
    EXPECT_EQ(last_bytes(), (std::vector<uint8_t>{4, 2, 1}));
    static_member_remove(static_member_list.head);
    EXPECT_EQ(last_bytes(), (std::vector<uint8_t>{2, 1}));
    static_member_remove(static_member_find({0x02, 0, 0, 0, 0, 1}));
    EXPECT_EQ(last_bytes(), (std::vector<uint8_t>{2}));
    EXPECT_EQ(static_member_list.count, 1);
}

TEST_F(StaticList, RemovingANodeNotInTheListChangesNothing) {
    static_member_push(node_with_last_byte(1));
    static_member *stranger = node_with_last_byte(9);
    static_member_remove(stranger);
    EXPECT_EQ(static_member_list.count, 1);
    delete stranger;
}

TEST_F(StaticList, ClearEmptiesTheList) {
    static_member_push(node_with_last_byte(1));
    static_member_push(node_with_last_byte(2));
    static_member_clear();
    EXPECT_EQ(static_member_list.head, nullptr);
    EXPECT_EQ(static_member_list.count, 0);
}

}  // namespace
