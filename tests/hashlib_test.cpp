// String hash table: bucket function, chains, hits, removal, flush modes.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "support/hashlib.h"

namespace {

struct Table {
    hash_table *t;
    explicit Table(int32_t size) : t(make_hash_table(size)) {}
    ~Table() {
        flush_hash_table(t, nullptr, 0);
        dispose_hash_table(t);
    }
};

TEST(HashLib, MakeGivesEmptyBucketsOfTheAskedCount) {
    for (auto [asked, size] : {std::pair{0, 53}, std::pair{256, 256}}) {
        Table table(asked);
        EXPECT_EQ(table.t->size, size);
        EXPECT_EQ(table.t->count, 0);
        for (int32_t i = 0; i < size; ++i) EXPECT_EQ(get_hash_bucket(i, table.t), nullptr);
    }
}

TEST(HashLib, HashTakesBytesAsSignedAndWraps) {
    struct Case {
        const char *key;
        long in53, in256;
    };
    const Case cases[] = {
        {"", 0, 0},          {"a", 44, 97},       {"ab", 9, 230},
        {"\xff", 20, 255},   // h = 0xFFFFFFFF, so 0x7FFFFFFF mod size
        {"\x80", 52, 128},   {"a\xff" "b", 3, 110},
        {"RPCExec", 28, 183}, {"zzzzzzzzzzzzzzzzzzzz", 37, 130},  // 40 bits wrap
    };
    Table t53(0), t256(256);
    for (const Case &c : cases) {
        EXPECT_EQ(hash_string(c.key, t53.t), c.in53) << c.key;
        EXPECT_EQ(hash_string(c.key, t256.t), c.in256) << c.key;
    }
}

TEST(HashLib, AddFindAndHits) {
    Table table(0);
    char key[] = "getdata";
    hash_item *item = add_hash_item(key, table.t);
    EXPECT_EQ(item->key, key);  // not copied
    EXPECT_EQ(item->data, nullptr);
    EXPECT_EQ(item->hits, 0);
    EXPECT_EQ(table.t->count, 1);
    EXPECT_EQ(get_hash_bucket(hash_string(key, table.t), table.t), item);

    EXPECT_EQ(add_hash_item("getdata", table.t), item);  // equal text, other pointer
    EXPECT_EQ(item->hits, 1);
    EXPECT_EQ(table.t->count, 1);
    EXPECT_EQ(find_hash_item("getdata", table.t), item);
    EXPECT_EQ(item->hits, 2);

    EXPECT_EQ(find_hash_item("getdat", table.t), nullptr);
    EXPECT_EQ(find_hash_item("getdatax", table.t), nullptr);
    EXPECT_EQ(find_hash_item("getdata", nullptr), nullptr);
}

TEST(HashLib, ChainsKeepInsertionOrderRemoveUnlinksBucketsBounded) {
    Table table(4);  // "a", "e", "i" all land in bucket 1
    hash_item *a = add_hash_item("a", table.t);
    hash_item *e = add_hash_item("e", table.t);
    hash_item *i = add_hash_item("i", table.t);
    ASSERT_EQ(get_hash_bucket(1, table.t), a);
    EXPECT_EQ(a->next, e);
    EXPECT_EQ(e->next, i);
    EXPECT_EQ(find_hash_item("i", table.t), i);
    EXPECT_EQ(find_hash_item("aa", table.t), nullptr);  // same bucket and first byte

    EXPECT_EQ(remove_hash_item("e", table.t), e);  // middle
    EXPECT_EQ(a->next, i);
    EXPECT_EQ(remove_hash_item("a", table.t), a);  // head moves on
    EXPECT_EQ(get_hash_bucket(1, table.t), i);
    EXPECT_EQ(table.t->count, 1);
    EXPECT_EQ(i->hits, 1);  // removal does not count as a hit
    EXPECT_EQ(remove_hash_item("a", table.t), nullptr);
    EXPECT_EQ(remove_hash_item("a", nullptr), nullptr);
    EXPECT_EQ(table.t->count, 1);
    EXPECT_EQ(get_hash_bucket(4, table.t), nullptr);  // index == size
    EXPECT_EQ(get_hash_bucket(-1, table.t), nullptr);
    EXPECT_EQ(get_hash_bucket(0, nullptr), nullptr);
    std::free(a);
    std::free(e);
}

std::vector<void *> released;
int record_release(void *data) {
    released.push_back(data);
    std::free(data);
    return 1;
}

char *heap_text(const char *text) { return strcpy(static_cast<char *>(std::malloc(8)), text); }

TEST(HashLib, FlushModes) {
    // Flag 0: only the items go; keys and data stay the caller's; count stays.
    char a[] = "a", e[] = "e", b[] = "b";
    Table kept(4);
    add_hash_item(a, kept.t)->data = e;
    add_hash_item(e, kept.t)->data = a;
    add_hash_item(b, kept.t);
    flush_hash_table(kept.t, nullptr, 0);
    for (int32_t i = 0; i < 4; ++i) EXPECT_EQ(get_hash_bucket(i, kept.t), nullptr);
    EXPECT_EQ(kept.t->count, 3);
    EXPECT_STREQ(a, "a");

    // Flag set, no callback: data and key are freed with the item.
    Table owned(4);
    add_hash_item(heap_text("a"), owned.t)->data = heap_text("data");
    flush_hash_table(owned.t, nullptr, 1);
    EXPECT_EQ(get_hash_bucket(1, owned.t), nullptr);

    // Flag set with a callback: it gets each data in bucket, then chain, order.
    Table called(4);
    void *d1 = std::malloc(1), *d2 = std::malloc(1), *d3 = std::malloc(1);
    add_hash_item(heap_text("b"), called.t)->data = d3;  // bucket 2
    add_hash_item(heap_text("a"), called.t)->data = d1;  // bucket 1
    add_hash_item(heap_text("e"), called.t)->data = d2;  // bucket 1, after "a"
    released.clear();
    flush_hash_table(called.t, record_release, 1);
    EXPECT_EQ(released, (std::vector<void *>{d1, d2, d3}));
    EXPECT_EQ(called.t->count, 3);

    flush_hash_table(nullptr, nullptr, 1);  // harmless
}

}  // namespace
