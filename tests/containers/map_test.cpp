#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "containers/map.h"

using Base::Hash;
using Base::Map;

TEST(Hash, KnownValuesAndBothForms) {
    // CRC-32C of "123456789" with the customary inversions is E3069283.
    const char* check = "123456789";
    for (auto calc : {Hash::calc, Hash::calc_software}) {
        EXPECT_EQ(~calc(check, 9, 0xFFFFFFFFu), 0xE3069283u);
        EXPECT_EQ(calc(check, 0, 1234u), 1234u);
    }

    std::mt19937 rng(7);
    std::vector<unsigned char> data(300);
    for (auto& b : data) b = static_cast<unsigned char>(rng());
    for (int size = 0; size <= 9; ++size)
        for (int shift = 0; shift < 4; ++shift)  // unaligned starts too
            EXPECT_EQ(Hash::calc_hardware(data.data() + shift, size, 77u), Hash::calc_software(data.data() + shift, size, 77u))
                << size << " at " << shift;
    for (int round = 0; round < 200; ++round) {
        int size = static_cast<int>(rng() % 290);
        unsigned int seed = rng();
        ASSERT_EQ(Hash::calc(data.data() + round % 7, size, seed), Hash::calc_software(data.data() + round % 7, size, seed));
    }
    // 7 bytes go as a word, a half-word and a byte; chaining by seed composes.
    unsigned int whole = Hash::calc(data.data(), 7, 5u);
    unsigned int parts = Hash::calc(data.data() + 6, 1, Hash::calc(data.data() + 4, 2, Hash::calc(data.data(), 4, 5u)));
    EXPECT_EQ(whole, parts);
}

TEST(Map, InsertSearchRemoveAndNodeReuse) {
    Map map(Base::DT_INT32, 100, 4, 8);
    EXPECT_EQ(map.get_bucket_count(), 128u);
    for (int k = 0; k < 1000; ++k) {
        long v = k * 10L;
        map.insert(&k, &v);
    }
    for (int k = 0; k < 1000; ++k) {
        const long* v = static_cast<const long*>(map.search(&k));
        ASSERT_NE(v, nullptr);
        EXPECT_EQ(*v, k * 10L);
    }
    int absent = 5000;
    EXPECT_EQ(map.search(&absent), nullptr);
    EXPECT_EQ(map.remove(&absent), nullptr);
    // Insert of a present key replaces the value; a null value zeroes it.
    int k7 = 7;
    long seventy_seven = 77, v = 1;
    EXPECT_EQ(*static_cast<long*>(map.insert(&k7, &seventy_seven)), 77);
    EXPECT_EQ(*static_cast<long*>(map.insert(&k7, nullptr)), 0);
    EXPECT_EQ(map.get_count(), 1000u);
    void* removed = map.remove(&k7);  // a removed node is reused by the next insertion
    ASSERT_NE(removed, nullptr);
    EXPECT_EQ(map.search(&k7), nullptr);
    int k9999 = 9999;
    EXPECT_EQ(map.insert(&k9999, &v), removed);
    EXPECT_EQ(map.get_count(), 1000u);
    // clear on an empty map keeps the free list.
    Map small(Base::DT_INT32, 8, 4, 8);
    int one = 1, two = 2;
    void* first = small.insert(&one, &v);
    small.remove(&one);
    small.clear();
    EXPECT_EQ(small.insert(&two, &v), first);
    map.clear();
    EXPECT_EQ(map.get_count(), 0u);
    EXPECT_EQ(map.search(&k9999), nullptr);
    map.insert(&k9999, &v);
    EXPECT_EQ(*static_cast<long*>(map.search(&k9999)), 1);
}

TEST(Map, StringKeysPointerValuesAndOrder) {
    Map map(Base::DT_STRING, 4, 32, 0);
    std::vector<std::string> names = {"alpha", "beta", "gamma", "delta", "epsilon", "zeta", "eta", "theta", "iota"};
    std::vector<int> payload(names.size());
    for (size_t i = 0; i < names.size(); ++i) map.insert(names[i].c_str(), &payload[i]);
    // The key is copied, the value pointer kept as it is.
    char probe[32];
    strcpy(probe, "gamma");
    EXPECT_EQ(map.search(probe), &payload[2]);

    // Iteration visits every element once, bucket by bucket, newest first in a bucket.
    std::set<const void*> seen;
    std::vector<const Map::Node*> nodes;
    for (Map::Iterator it(&map, nullptr, true); !it.is_end();) nodes.push_back(static_cast<const Map::Node*>(it.next()));
    ASSERT_EQ(nodes.size(), names.size());
    for (size_t i = 0; i < nodes.size(); ++i) {
        seen.insert(nodes[i]->value);
        if (i > 0 && (nodes[i]->hash & 3) == (nodes[i - 1]->hash & 3)) {
            // Same bucket: the later-inserted element comes first.
            const int* a = static_cast<const int*>(nodes[i - 1]->value);
            const int* b = static_cast<const int*>(nodes[i]->value);
            EXPECT_GT(a, b);
        } else if (i > 0) {
            EXPECT_LT(nodes[i - 1]->hash & 3, nodes[i]->hash & 3);
        }
    }
    EXPECT_EQ(seen.size(), names.size());

    // Several elements under one key through alloc and link; a keyed walk finds both.
    Map::Node* extra = map.alloc("beta", &payload[0]);
    map.link(extra);
    std::vector<void*> betas;
    for (Map::Iterator it(&map, "beta", false); !it.is_end();) betas.push_back(it.next());
    EXPECT_EQ(betas, (std::vector<void*>{&payload[0], &payload[1]}));
}
