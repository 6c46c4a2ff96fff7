// The neighbor table: its hash, and a randomized comparison of every operation with a plain
// model of the table (buckets in walk order, replacement of the oldest when full).
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "core/settings.h"
#include "neighbor/neighbor_table.h"

namespace {

class NeighborTableModel : public testing::TestWithParam<uint32_t> {
  protected:
    void SetUp() override { neighbor_table_init(); }
    void TearDown() override {
        neighbor_aps_clear();
        max_ngbr_num = MAX_NGBR_NUM_DEFAULT;
    }

    // Inserts a new entry as the driver event handler does; the timestamp marks its age and
    // `tag` (kept in age) tells entries apart in walks.
    static int add(const mac_addr &mac, uint32_t timestamp, uint32_t tag) {
        std::lock_guard<std::mutex> guard(ngb_lock);
        std::unique_ptr<neighbor_ap> entry = neighbor_ap_new();
        entry->mac = entry->info.mac = mac;
        entry->timestamp = timestamp;
        entry->age = tag;
        int rc = neighbor_ap_add(mac, entry);
        EXPECT_EQ(rc == 0, entry == nullptr) << "ownership must move exactly on success";
        return rc;
    }
};

// The bucket is the sum of byte 3, byte 4 and the high nibble of byte 5, modulo 67; bytes 0 to
// 2 and the low nibble of byte 5 do not take part.
TEST(NeighborApHash, UsesBytesThreeToFiveOnly) {
    EXPECT_EQ(neighbor_ap_hash(mac_addr{0xff, 0xff, 0xff, 0xff, 0xff, 0xff}), 56u);
    EXPECT_EQ(neighbor_ap_hash(mac_addr{0xaa, 0xbb, 0xcc, 0x10, 0x20, 0x3f}), 0x33u);
}

struct ModelEntry {
    mac_addr mac;
    uint32_t timestamp;
    uint32_t tag;
};

// The table as a plain list in insertion order: a walk visits the buckets in order, each in
// insertion order.
struct TableModel {
    size_t capacity = 16;
    std::vector<ModelEntry> entries;

    std::vector<ModelEntry>::iterator at(const mac_addr &mac) {
        return std::find_if(entries.begin(), entries.end(),
                            [&](const ModelEntry &e) { return e.mac == mac; });
    }
    ModelEntry *find(const mac_addr &mac) { return at(mac) == entries.end() ? nullptr : &*at(mac); }
    std::vector<ModelEntry> walk() const {
        std::vector<ModelEntry> all = entries;
        std::stable_sort(all.begin(), all.end(), [](const ModelEntry &a, const ModelEntry &b) {
            return neighbor_ap_hash(a.mac) < neighbor_ap_hash(b.mac);
        });
        return all;
    }
    // A full table replaces the entry with the greatest non-zero timestamp, the first in walk
    // order among equals; with none to replace, the add is refused (1).
    int add(const ModelEntry &entry) {
        if (entries.size() == capacity) {
            std::vector<ModelEntry> in_walk = walk();
            auto victim = std::max_element(
                in_walk.begin(), in_walk.end(),
                [](const ModelEntry &a, const ModelEntry &b) { return a.timestamp < b.timestamp; });
            if (victim->timestamp == 0) {
                return 1;
            }
            entries.erase(at(victim->mac));
        }
        entries.push_back(entry);
        return 0;
    }
};

// Whether count, walk order and contents, links and lookups all agree with the model.
bool table_matches(TableModel &model, const std::vector<mac_addr> &pool) {
    std::lock_guard<std::mutex> guard(ngb_lock);
    const std::vector<ModelEntry> expected = model.walk();
    bool same = table_cnt == model.entries.size();
    size_t i = 0;
    neighbor_aps_walk([&](neighbor_ap &e) {
        same = same && i < expected.size() && e.mac == expected[i].mac &&
               e.timestamp == expected[i].timestamp && e.age == expected[i].tag &&
               e.list.next->prev == &e.list && e.list.prev->next == &e.list;
        ++i;
    });
    same = same && i == expected.size();
    for (const mac_addr &mac : pool) {
        const ModelEntry *want = model.find(mac);
        const neighbor_ap *got = neighbor_ap_find(mac);
        same = same && (got == nullptr) == (want == nullptr) &&
               (got == nullptr || got->age == want->tag);
    }
    return same;
}

// MACs crowded into a few buckets (and some spread out), so that buckets hold several entries.
std::vector<mac_addr> mac_pool(std::mt19937 &rng) {
    std::vector<mac_addr> pool;
    std::uniform_int_distribution<int> byte(0, 255);
    while (pool.size() < 150) {
        mac_addr mac;
        std::generate(mac.begin(), mac.end(), [&] { return static_cast<uint8_t>(byte(rng)); });
        if (pool.size() % 3 != 0) {
            mac[3] = static_cast<uint8_t>(byte(rng) % 4);
            mac[4] = 0;
            mac[5] = static_cast<uint8_t>(byte(rng) & 0x1f);
        }
        if (std::find(pool.begin(), pool.end(), mac) == pool.end()) {
            pool.push_back(mac);
        }
    }
    return pool;
}

TEST_P(NeighborTableModel, RandomOperationsMatchModel) {
    std::mt19937 rng(GetParam());
    std::vector<mac_addr> pool = mac_pool(rng);
    TableModel model;
    max_ngbr_num = static_cast<uint8_t>(model.capacity);
    std::uniform_int_distribution<size_t> pick(0, pool.size() - 1);
    std::uniform_int_distribution<uint32_t> stamp(0, 6);  // small range: many ties and zeros
    uint32_t next_tag = 1;
    int replaced = 0, refused = 0;  // adds to a full table

    for (int step = 0; step < 4000; ++step) {
        // Alternate phases: in the quiet one the driver names nobody, so timestamps drain to 0
        // and a full table ends up with nothing to replace.
        bool quiet = (step / 400) % 2 == 1;
        auto next_stamp = [&] { return quiet ? 0u : stamp(rng); };
        const mac_addr &mac = pool[pick(rng)];
        int choice = static_cast<int>(rng() % 100);
        if (choice < 55) {
            // Add as callers do: only when the MAC is absent (the table agreed with the model).
            if (model.find(mac) == nullptr) {
                ModelEntry entry{mac, next_stamp(), next_tag++};
                bool full = model.entries.size() == model.capacity;
                int rc = model.add(entry);
                ASSERT_EQ(add(mac, entry.timestamp, entry.tag), rc) << "step " << step;
                replaced += full && rc == 0;
                refused += rc;
            }
        } else if (choice < 80) {
            std::lock_guard<std::mutex> guard(ngb_lock);
            if (neighbor_ap *entry = neighbor_ap_find(mac)) {
                neighbor_ap_delete(entry);
                model.entries.erase(model.at(mac));
            }
        } else if (choice < 98) {
            uint32_t value = next_stamp();
            std::lock_guard<std::mutex> guard(ngb_lock);
            if (neighbor_ap *entry = neighbor_ap_find(mac)) {
                entry->timestamp = value;
                model.find(mac)->timestamp = value;
            }
        } else {
            // Changing the limit empties the table, as the daemon does.
            max_ngbr_num = static_cast<uint8_t>(16 + (rng() % 49));
            model.capacity = max_ngbr_num;
            neighbor_aps_clear();
            model.entries.clear();
        }
        ASSERT_TRUE(table_matches(model, pool)) << "step " << step;
    }
    // The sequence must have reached the interesting paths of a full table.
    EXPECT_GT(replaced, 20);
    EXPECT_GT(refused, 20);
}

INSTANTIATE_TEST_SUITE_P(Seeds, NeighborTableModel, testing::Values(1u, 7u, 42u, 2024u, 99991u));

}  // namespace
