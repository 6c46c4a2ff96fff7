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

mac_addr mac_of(uint8_t b3, uint8_t b4, uint8_t b5, uint8_t b0 = 0x00) {
    return mac_addr{b0, 0x11, 0x22, b3, b4, b5};
}

class NeighborTable : public testing::Test {
  protected:
    void SetUp() override {
        neighbor_aps_clear();
        neighbor_table_init();
        max_ngbr_num = MAX_NGBR_NUM_DEFAULT;
    }
    void TearDown() override {
        neighbor_aps_clear();
        max_ngbr_num = MAX_NGBR_NUM_DEFAULT;
    }

    // Inserts a new entry as the driver event handler does; the timestamp marks its age and
    // `tag` (kept in age) tells entries apart in walks.
    static int add(const mac_addr &mac, uint32_t timestamp, uint32_t tag = 0) {
        std::lock_guard<std::mutex> guard(ngb_lock);
        std::unique_ptr<neighbor_ap> entry = neighbor_ap_new();
        entry->mac = mac;
        entry->info.mac = mac;
        entry->timestamp = timestamp;
        entry->age = tag;
        int rc = neighbor_ap_add(mac, entry);
        EXPECT_EQ(rc == 0, entry == nullptr) << "ownership must move exactly on success";
        return rc;
    }
};

// The bucket is the sum of byte 3, byte 4 and the high nibble of byte 5, modulo 67.
TEST(NeighborApHash, UsesBytesThreeToFiveOnly) {
    EXPECT_EQ(neighbor_ap_hash(mac_addr{0xff, 0xff, 0xff, 0xff, 0xff, 0xff}), 56u);
    EXPECT_EQ(neighbor_ap_hash(mac_of(0x10, 0x20, 0x3f)), (0x10u + 0x20u + 0x3u) % 67);
    // Bytes 0..2 and the low nibble of byte 5 do not take part.
    EXPECT_EQ(neighbor_ap_hash(mac_addr{0xaa, 0xbb, 0xcc, 1, 2, 0x30}),
              neighbor_ap_hash(mac_addr{0x00, 0x00, 0x00, 1, 2, 0x3f}));
}

TEST_F(NeighborTable, WalkStopsWhenVisitorSaysSo) {
    for (uint8_t i = 0; i < 5; ++i) {
        ASSERT_EQ(add(mac_of(i, 0, 0), 0), 0);
    }
    int visited = 0;
    std::lock_guard<std::mutex> guard(ngb_lock);
    neighbor_aps_walk([&](neighbor_ap &) { return ++visited < 3; });
    EXPECT_EQ(visited, 3);
}

// ----- Randomised comparison with a plain model of the table --------------------------------

struct ModelEntry {
    mac_addr mac;
    uint32_t timestamp;
    uint32_t tag;
};

// The table as a plain list in insertion order: a walk visits the buckets in order, each in
// insertion order.
class TableModel {
  public:
    size_t capacity = 16;

    size_t size() const { return entries_.size(); }
    ModelEntry *find(const mac_addr &mac) {
        auto at = std::find_if(entries_.begin(), entries_.end(),
                               [&](const ModelEntry &e) { return e.mac == mac; });
        return at == entries_.end() ? nullptr : &*at;
    }
    std::vector<ModelEntry> walk() const {
        std::vector<ModelEntry> all = entries_;
        std::stable_sort(all.begin(), all.end(), [](const ModelEntry &a, const ModelEntry &b) {
            return neighbor_ap_hash(a.mac) < neighbor_ap_hash(b.mac);
        });
        return all;
    }
    // A full table replaces the entry with the greatest non-zero timestamp, the first in walk
    // order among equals; with none to replace, the add is refused (1).
    int add(const ModelEntry &entry) {
        if (size() == capacity) {
            std::vector<ModelEntry> in_walk = walk();
            auto victim = std::max_element(
                in_walk.begin(), in_walk.end(),
                [](const ModelEntry &a, const ModelEntry &b) { return a.timestamp < b.timestamp; });
            if (victim->timestamp == 0) {
                return 1;
            }
            remove(victim->mac);
        }
        entries_.push_back(entry);
        return 0;
    }
    void remove(const mac_addr &mac) {
        entries_.erase(entries_.begin() + (find(mac) - entries_.data()));
    }
    void clear() { entries_.clear(); }

  private:
    std::vector<ModelEntry> entries_;
};

// Checks count, walk order and contents, link integrity and lookups against the model.
void expect_table_matches(TableModel &model, const std::vector<mac_addr> &pool, int step) {
    std::lock_guard<std::mutex> guard(ngb_lock);
    ASSERT_EQ(table_cnt, model.size()) << "step " << step;

    std::vector<ModelEntry> expected = model.walk();
    size_t i = 0;
    bool links_ok = true;
    neighbor_aps_walk([&](neighbor_ap &entry) {
        links_ok = links_ok && entry.list.next->prev == &entry.list &&
                   entry.list.prev->next == &entry.list;
        if (i < expected.size()) {
            EXPECT_EQ(entry.mac, expected[i].mac) << "step " << step << " position " << i;
            EXPECT_EQ(entry.timestamp, expected[i].timestamp) << "step " << step;
            EXPECT_EQ(entry.age, expected[i].tag) << "step " << step;
        }
        ++i;
    });
    ASSERT_EQ(i, expected.size()) << "step " << step;
    ASSERT_TRUE(links_ok) << "step " << step;

    for (const mac_addr &mac : pool) {
        const ModelEntry *want = model.find(mac);
        neighbor_ap *got = neighbor_ap_find(mac);
        ASSERT_EQ(got == nullptr, want == nullptr) << "step " << step;
        if (got != nullptr) {
            ASSERT_EQ(got->age, want->tag) << "step " << step;
        }
    }
}

// MACs crowded into a few buckets (and some spread out), so that buckets hold several entries.
std::vector<mac_addr> mac_pool(std::mt19937 &rng) {
    std::vector<mac_addr> pool;
    std::uniform_int_distribution<int> byte(0, 255);
    std::uniform_int_distribution<int> crowded(0, 3);
    while (pool.size() < 150) {
        mac_addr mac;
        for (uint8_t &b : mac) {
            b = static_cast<uint8_t>(byte(rng));
        }
        if (pool.size() % 3 != 0) {
            mac[3] = static_cast<uint8_t>(crowded(rng));
            mac[4] = 0;
            mac[5] = static_cast<uint8_t>(byte(rng) & 0x1f);
        }
        if (std::find(pool.begin(), pool.end(), mac) == pool.end()) {
            pool.push_back(mac);
        }
    }
    return pool;
}

class NeighborTableModel : public NeighborTable, public testing::WithParamInterface<uint32_t> {};

TEST_P(NeighborTableModel, RandomOperationsMatchModel) {
    std::mt19937 rng(GetParam());
    std::vector<mac_addr> pool = mac_pool(rng);
    uint8_t capacity = 16;
    max_ngbr_num = capacity;
    TableModel model;
    std::uniform_int_distribution<int> op(0, 99);
    std::uniform_int_distribution<size_t> pick(0, pool.size() - 1);
    std::uniform_int_distribution<uint32_t> stamp(0, 6);  // small range: many ties and zeros
    uint32_t next_tag = 1;
    int replaced = 0;
    int refused = 0;

    for (int step = 0; step < 4000; ++step) {
        // Alternate phases: in the quiet one the driver names nobody, so timestamps drain to 0
        // and a full table ends up with nothing to replace.
        bool quiet = (step / 400) % 2 == 1;
        auto next_stamp = [&] { return quiet ? 0u : stamp(rng); };
        const mac_addr &mac = pool[pick(rng)];
        int choice = op(rng);
        if (choice < 55) {
            // Add as callers do: only when the MAC is absent (the table agreed with the model
            // on every lookup after the last step).
            if (model.find(mac) == nullptr) {
                ModelEntry entry{mac, next_stamp(), next_tag++};
                bool full = model.size() == capacity;
                int rc = model.add(entry);
                ASSERT_EQ(add(mac, entry.timestamp, entry.tag), rc) << "step " << step;
                replaced += full && rc == 0;
                refused += rc;
            }
        } else if (choice < 80) {
            std::lock_guard<std::mutex> guard(ngb_lock);
            neighbor_ap *entry = neighbor_ap_find(mac);
            if (entry != nullptr) {
                neighbor_ap_delete(entry);
                model.remove(mac);
            }
        } else if (choice < 98) {
            uint32_t value = next_stamp();
            std::lock_guard<std::mutex> guard(ngb_lock);
            neighbor_ap *entry = neighbor_ap_find(mac);
            if (entry != nullptr) {
                entry->timestamp = value;
                model.find(mac)->timestamp = value;
            }
        } else {
            // Changing the limit empties the table, as the daemon does.
            capacity = static_cast<uint8_t>(16 + (rng() % 49));
            max_ngbr_num = capacity;
            neighbor_aps_clear();
            model.capacity = capacity;
            model.clear();
        }
        expect_table_matches(model, pool, step);
        if (HasFatalFailure() || HasNonfatalFailure()) {
            return;
        }
    }
    // The sequence must have reached the interesting paths of a full table.
    EXPECT_GT(replaced, 20);
    EXPECT_GT(refused, 20);
}

INSTANTIATE_TEST_SUITE_P(Seeds, NeighborTableModel, testing::Values(1u, 7u, 42u, 2024u, 99991u));

}  // namespace
