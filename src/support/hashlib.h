// String hash table (the exported operations are declared in zephrpc.h).
#pragma once

#include "zephrpc.h"

namespace zrpc {

constexpr int32_t kDefaultHashBuckets = 53;

// Sets every bucket head to null; frees nothing and leaves `count` alone.
void initialize_hash_table(hash_table *table);

}  // namespace zrpc
