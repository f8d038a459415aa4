// String hash table: bucket function, chains, hits, removal, flush modes.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <tuple>

#include <zephrpc.h>

namespace {

// The keys of one bucket's chain, head first.
std::string chain(hash_table *t, int32_t bucket) {
    std::string keys;
    for (hash_item *item = get_hash_bucket(bucket, t); item; item = item->next) keys += item->key;
    return keys;
}

TEST(HashLib, HashTakesBytesAsSignedAndWraps) {
    hash_table *t53 = make_hash_table(0), *t256 = make_hash_table(256);
    const std::tuple<const char *, long, long> cases[] = {
        {"", 0, 0}, {"a", 44, 97}, {"\xff", 20, 255},  // "\xff": h = 0xFFFFFFFF
        {"a\xff" "b", 3, 110}, {"zzzzzzzzzzzzzzzzzzzz", 37, 130},  // 40 bits wrap
    };
    for (auto [k, in53, in256] : cases)
        EXPECT_EQ(std::pair(hash_string(k, t53), hash_string(k, t256)), std::pair(in53, in256));
    for (hash_table *t : {t53, t256}) dispose_hash_table(t);
}

std::string released;

TEST(HashLib, ChainsKeepInsertionOrderAndFlushKeepsTheCount) {
    hash_table *t = make_hash_table(4);  // "a", "e", "i" all land in bucket 1
    char key[] = "a";
    hash_item *a = add_hash_item(key, t);
    for (const char *k : {"e", "i"}) add_hash_item(k, t);
    EXPECT_EQ(add_hash_item("a", t), a);  // equal text, other pointer: no new item
    EXPECT_EQ(a->key, key);               // not copied
    EXPECT_EQ(a->hits, 1);                // 0 when new, as callers rely on
    EXPECT_EQ(chain(t, 1), "aei");
    EXPECT_EQ(find_hash_item("aa", t), nullptr);  // same bucket and first byte
    EXPECT_EQ(remove_hash_item("a", t), a);       // the head moves on
    EXPECT_EQ(chain(t, 1), "ei");
    EXPECT_EQ(get_hash_bucket(4, t), nullptr);  // index == size
    std::free(a);

    flush_hash_table(t, nullptr, 0);  // only the items go: the keys are literals
    // A set flag frees data and key too (a miss shows in the sanitizer build's
    // leak check); a callback gets each data, in bucket then chain order.
    add_hash_item(strdup("a"), t)->data = strdup("data");
    flush_hash_table(t, nullptr, 1);
    for (const char *k : {"b", "a", "e"}) add_hash_item(strdup(k), t)->data = strdup(k);
    flush_hash_table(
        t, [](void *data) { released += static_cast<char *>(data); std::free(data); return 1; }, 1);
    EXPECT_EQ(released, "aeb");  // "a" and "e" share bucket 1, "b" is in 2
    EXPECT_EQ(chain(t, 1) + chain(t, 2), "");
    EXPECT_EQ(t->count, 6);  // 3 added, 1 removed, 4 added: flushing never lowers it
    dispose_hash_table(t);
}

}  // namespace
