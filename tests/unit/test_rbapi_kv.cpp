/* SPDX-License-Identifier: Apache-2.0 */
#include "rbapi_kv.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "leak.hpp"
#include "rb_check.hpp"

namespace {

std::string released;

void log_release(void *val)
{
    released += static_cast<const char *>(val);
}

void *text(const char *literal)
{
    return const_cast<char *>(literal);
}

/* A map whose values are literals. */
class Map {
public:
    Map()
    {
        released.clear();
        EXPECT_EQ(rbapi_kv_init(&kv, log_release), 0);
    }
    ~Map() { rbapi_kv_destroy(&kv); }

    int insert(const char *key, const char *val) { return rbapi_kv_insert(key, text(val), &kv); }

    /* The value of a key, or "-". */
    std::string at(const char *key)
    {
        void *val = nullptr;
        return rbapi_kv_find(key, &val, &kv) == 0 ? static_cast<const char *>(val) : "-";
    }

    rbtree_kv_root kv;
};

/* "key=val " for each entry visited. */
int32_t note(void *data, const char *key, void *val)
{
    *static_cast<std::string *>(data) += std::string(key) + "=" + static_cast<char *>(val) + " ";
    return 0;
}

} // namespace

TEST(RbApiKv, InitClearsTheRecordAndSetsTheFunctions)
{
    rbtree_kv_root kv;
    memset(&kv, 0xa5, sizeof(kv));

    ASSERT_EQ(rbapi_kv_init(&kv, log_release), 0);

    EXPECT_EQ(kv.root.root.rb_node, nullptr);
    EXPECT_EQ(kv.root.count, 0);
    EXPECT_EQ(kv.root.hash, rbtree_string_hash);
    EXPECT_EQ(kv.root.cmp, reinterpret_cast<rbtree_cmp_func>(&strcmp));
    EXPECT_EQ(kv.root.release, rbapi_kv_release);
    EXPECT_EQ(kv.root.my_malloc, &malloc);
    EXPECT_EQ(kv.root.my_free, &free);
    EXPECT_EQ(kv.release, log_release);
}

TEST(RbApiKv, ValuesAreFreedByDefault)
{
    rbtree_kv_root kv;
    ASSERT_EQ(rbapi_kv_init(&kv, nullptr), 0);

    EXPECT_EQ(kv.release, &free);
    EXPECT_EQ(rbapi_kv_insert("key", strdup("val"), &kv), 0);
    EXPECT_EQ(rbapi_kv_destroy(&kv), 0); /* the leak checker watches */
}

TEST(RbApiKv, TheTreeIsTheFirstField)
{
    EXPECT_EQ(offsetof(rbtree_kv_root, root), 0u);
    EXPECT_EQ(offsetof(rbtree_kv_root, release), sizeof(rbtree_root));
}

TEST(RbApiKv, NullArgumentsFail)
{
    Map map;

    EXPECT_EQ(rbapi_kv_init(nullptr, nullptr), -1);
    EXPECT_EQ(rbapi_kv_destroy(nullptr), -1);
    EXPECT_EQ(rbapi_kv_insert("key", nullptr, nullptr), -1);
    EXPECT_EQ(rbapi_kv_insert(nullptr, nullptr, &map.kv), -1);
    EXPECT_EQ(rbapi_kv_find("key", nullptr, nullptr), -1);
    EXPECT_EQ(rbapi_kv_find(nullptr, nullptr, &map.kv), -1);
    EXPECT_EQ(rbapi_kv_erase("key", nullptr), -1);
    EXPECT_EQ(rbapi_kv_erase(nullptr, &map.kv), -1);
    EXPECT_EQ(rbapi_kv_clear(nullptr), -1);
    EXPECT_EQ(rbapi_kv_isinit(nullptr), 0);
    EXPECT_EQ(rbapi_kv_isempty(nullptr), -1);
    EXPECT_EQ(rbapi_kv_travel(nullptr, nullptr, note), -1);
    EXPECT_EQ(rbapi_kv_travel(nullptr, &map.kv, nullptr), -1);
}

TEST(RbApiKv, KeysAreCopied)
{
    Map map;
    char key[] = "key";
    ASSERT_EQ(map.insert(key, "val"), 0);

    key[0] = 'x';

    EXPECT_EQ(map.at("key"), "val");
    EXPECT_EQ(map.at("xey"), "-");
}

TEST(RbApiKv, KeysOfEqualHashAreToldApart)
{
    Map map;
    ASSERT_EQ(rbtree_string_hash("abcd"), rbtree_string_hash("xbcd"));

    EXPECT_EQ(map.insert("abcd", "1"), 0);
    EXPECT_EQ(map.insert("xbcd", "2"), 0);

    EXPECT_EQ(map.at("abcd"), "1");
    EXPECT_EQ(map.at("xbcd"), "2");
    EXPECT_EQ(map.at("ybcd"), "-");
}

TEST(RbApiKv, TheEmptyStringIsAKey)
{
    Map map;

    EXPECT_EQ(map.insert("", "nothing"), 0);
    EXPECT_EQ(map.at(""), "nothing");
}

TEST(RbApiKv, FindWithoutAPlaceForTheValueTellsPresence)
{
    Map map;
    map.insert("key", "val");

    EXPECT_EQ(rbapi_kv_find("key", nullptr, &map.kv), 0);
    EXPECT_EQ(rbapi_kv_find("other", nullptr, &map.kv), -1);
}

TEST(RbApiKv, ARefusedInsertKeepsNodeAndKeyCopy)
{
    Map map;
    map.insert("key", "first");
    {
        PrescribedLeak leak;
        EXPECT_EQ(map.insert("key", "second"), -1);
    }

    EXPECT_EQ(map.at("key"), "first");
    EXPECT_EQ(map.kv.root.count, 1);
    EXPECT_EQ(released, "");
}

TEST(RbApiKv, EraseReleasesTheValue)
{
    Map map;
    map.insert("key", "val");

    EXPECT_EQ(rbapi_kv_erase("key", &map.kv), 0);

    EXPECT_EQ(released, "val");
    EXPECT_EQ(map.at("key"), "-");
    EXPECT_EQ(rbapi_kv_erase("key", &map.kv), -1);
    EXPECT_EQ(released, "val");
}

TEST(RbApiKv, ClearEmptiesTheMapAndDestroyMarksIt)
{
    Map map;
    EXPECT_EQ(rbapi_kv_isinit(&map.kv), 1);
    EXPECT_EQ(rbapi_kv_isempty(&map.kv), 1);
    map.insert("key", "val");
    EXPECT_EQ(rbapi_kv_isempty(&map.kv), 0);

    EXPECT_EQ(rbapi_kv_clear(&map.kv), 0);

    EXPECT_EQ(released, "val");
    EXPECT_EQ(rbapi_kv_isempty(&map.kv), 1);
    EXPECT_EQ(rbapi_kv_isinit(&map.kv), 1);
    map.insert("more", "!");
    EXPECT_EQ(rbapi_kv_destroy(&map.kv), 0);
    EXPECT_EQ(released, "val!");
    EXPECT_EQ(rbapi_kv_isinit(&map.kv), 0);
}

TEST(RbApiKv, TravelVisitsEveryEntryInOrder)
{
    Map map;
    map.insert("xbcd", "2");
    map.insert("abcd", "1"); /* the same hash: the comparison decides */
    std::string seen;

    EXPECT_EQ(rbapi_kv_travel(&seen, &map.kv, note), 0);
    EXPECT_EQ(seen, "abcd=1 xbcd=2 ");
}

TEST(RbApiKv, TheWalkIgnoresTheResultOfTheVisitor)
{
    Map map;
    for (const char *key : {"a", "b", "c"}) {
        map.insert(key, key);
    }
    int visits = 0;

    const int result = rbapi_kv_travel(&visits, &map.kv, [](void *data, const char *, void *) {
        ++*static_cast<int *>(data);
        return int32_t{-1};
    });

    EXPECT_EQ(result, 0);
    EXPECT_EQ(visits, 3);
}

TEST(RbApiKv, TravelGoesOnWhenTheVisitorErasesItsEntry)
{
    Map map;
    for (const char *key : {"a", "b", "c", "d", "e"}) {
        map.insert(key, key);
    }

    rbapi_kv_travel(&map.kv, &map.kv, [](void *data, const char *key, void *) {
        return rbapi_kv_erase(key, static_cast<rbtree_kv_root *>(data));
    });

    std::sort(released.begin(), released.end());
    EXPECT_EQ(released, "abcde");
    EXPECT_EQ(rbapi_kv_isempty(&map.kv), 1);
}

TEST(RbApiKv, ReleaseFreesTheKeyAndReleasesTheValue)
{
    Map map;

    rbapi_kv_release(strdup("key"), text("val"), &map.kv.root); /* the leak checker watches */

    EXPECT_EQ(released, "val");
}

TEST(RbApiKv, RandomChangesAgreeWithAReference)
{
    std::mt19937 random(60);
    Map map;
    std::map<std::string, const char *> reference;
    const char *const values[] = {"u", "v", "w"};
    for (int step = 0; step < 20000; step++) {
        const std::string key = "key-" + std::to_string(random() % 300);
        const bool present = reference.count(key) == 1;
        ASSERT_EQ(map.at(key.c_str()), present ? reference[key] : "-");
        if (present) {
            ASSERT_EQ(rbapi_kv_erase(key.c_str(), &map.kv), 0);
            reference.erase(key);
        } else {
            const char *val = values[random() % 3];
            ASSERT_EQ(map.insert(key.c_str(), val), 0);
            reference[key] = val;
        }
        ASSERT_EQ(static_cast<size_t>(map.kv.root.count), reference.size());
    }

    std::map<std::string, const char *> found;
    rbapi_kv_travel(&found, &map.kv, [](void *data, const char *key, void *val) {
        auto &entries = *static_cast<std::map<std::string, const char *> *>(data);
        entries[key] = static_cast<char *>(val);
        return 0;
    });
    EXPECT_EQ(found, reference);
    EXPECT_EQ(rb_faults(map.kv.root.root), "");
}
