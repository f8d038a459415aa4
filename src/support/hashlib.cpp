// Chained string hash table. Items and tables are malloc'ed: callers free the
// items that remove_hash_item hands back, and flush frees keys with free().
#include "support/hashlib.h"

#include <cstdlib>
#include <cstring>

namespace zrpc {

void initialize_hash_table(hash_table *table) {
    for (int32_t i = 0; i < table->size; ++i) table->buckets[i] = nullptr;
}

namespace {

// Match rule shared by find and remove: first bytes equal, then whole strings.
bool same_key(const char *a, const char *b) { return a[0] == b[0] && std::strcmp(a, b) == 0; }

}  // namespace
}  // namespace zrpc

extern "C" {

hash_table *make_hash_table(int32_t size) {
    // 0 (and, defensively, a negative count) means the default bucket count.
    if (size <= 0) size = zrpc::kDefaultHashBuckets;
    auto *table = static_cast<hash_table *>(std::malloc(sizeof(hash_table)));
    table->buckets = static_cast<hash_item **>(std::malloc(sizeof(hash_item *) * size));
    table->size = size;
    table->count = 0;
    zrpc::initialize_hash_table(table);
    return table;
}

long hash_string(const char *key, hash_table *table) {
    uint32_t h = 0;
    // Bytes 0x80-0xFF count as negative: the sum is taken over signed chars.
    for (const char *p = key; *p != '\0'; ++p)
        h = h * 4u + static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(*p)));
    return static_cast<long>((h & 0x7FFFFFFFu) % static_cast<uint32_t>(table->size));
}

hash_item *find_hash_item(const char *key, hash_table *table) {
    if (table == nullptr) return nullptr;
    for (hash_item *item = table->buckets[hash_string(key, table)]; item; item = item->next) {
        if (zrpc::same_key(item->key, key)) {
            ++item->hits;
            return item;
        }
    }
    return nullptr;
}

hash_item *add_hash_item(const char *key, hash_table *table) {
    // A null table gets a default one that the caller never sees (kept as is).
    if (table == nullptr) table = make_hash_table(0);
    if (hash_item *existing = find_hash_item(key, table)) return existing;
    auto *item = static_cast<hash_item *>(std::malloc(sizeof(hash_item)));
    item->next = nullptr;
    item->key = const_cast<char *>(key);  // borrowed; flush may free it later
    item->data = nullptr;
    item->hits = 0;
    hash_item **link = &table->buckets[hash_string(key, table)];
    while (*link != nullptr) link = &(*link)->next;  // append: chains keep insertion order
    *link = item;
    ++table->count;
    return item;
}

hash_item *remove_hash_item(const char *key, hash_table *table) {
    if (table == nullptr) return nullptr;
    for (hash_item **link = &table->buckets[hash_string(key, table)]; *link;
         link = &(*link)->next) {
        hash_item *item = *link;
        if (zrpc::same_key(item->key, key)) {
            *link = item->next;
            --table->count;
            return item;
        }
    }
    return nullptr;
}

void flush_hash_table(hash_table *table, int (*release)(void *data), int32_t free_contents) {
    if (table == nullptr || table->size <= 0) return;
    for (int32_t i = 0; i < table->size; ++i) {
        hash_item *item = table->buckets[i];
        while (item != nullptr) {
            hash_item *next = item->next;
            if (free_contents != 0) {
                if (release != nullptr)
                    release(item->data);
                else
                    std::free(item->data);
                std::free(item->key);
            }
            std::free(item);
            item = next;
        }
        table->buckets[i] = nullptr;
    }
    // `count` keeps its old value on purpose until the table is disposed of.
}

void dispose_hash_table(hash_table *table) {
    if (table == nullptr) return;
    std::free(table->buckets);
    std::free(table);
}

hash_item *get_hash_bucket(int32_t index, hash_table *table) {
    if (table == nullptr || index < 0 || index >= table->size) return nullptr;
    return table->buckets[index];
}

}  // extern "C"
