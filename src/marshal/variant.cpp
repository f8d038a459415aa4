// Variant arrays: int32 count, then per element a tag byte and the element
// in full form (value), shape form (what the server must allocate) or not at
// all (count only), chosen by mode and direction.

#include "marshal/variant.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "marshal/block.h"
#include "marshal/frame.h"
#include "marshal/pointer.h"

namespace zrpc {

namespace {

constexpr int32_t kServer = 0;
constexpr int32_t kClient = 1;
constexpr uint32_t kUnknownCode = 0xFFFFFFFFu;
constexpr uint32_t kNotSent = 0x80;  // a code no sender may use

enum class Form { kFull, kShape, kCountOnly };

Form form_for(const rpc_handle *h, uint32_t flags) {
    const bool in = (flags & RPC_IN) != 0;
    const bool out = (flags & RPC_OUT) != 0;
    if (h->mode == kClient) return in ? Form::kFull : out ? Form::kShape : Form::kCountOnly;
    if (h->mode == kServer && out) return Form::kFull;
    return Form::kCountOnly;
}

// The trace label of element i: "warray_<i>".
struct ElementName {
    char text[24];
    explicit ElementName(int32_t i) { std::snprintf(text, sizeof(text), "warray_%d", i); }
};

uint32_t code_of(uint8_t tag) {
    if (tag == 0) return 0;
    return tag <= 32 ? 1u << (tag - 1) : kUnknownCode;
}

// Width of a scalar element's value; 0 for blocks and unknown codes.
int32_t scalar_width(uint32_t code) {
    switch (code) {
        case RPC_V_INT16: return 2;
        case RPC_V_INT32: return 4;
        case RPC_V_INT64:
        case RPC_V_PTR:
        case RPC_V_SQLLEN:
        case RPC_V_SQLULEN: return 8;
        default: return 0;
    }
}

bool is_block(uint32_t code) {
    switch (code) {
        case RPC_V_MEM:
        case RPC_V_FLOAT_ARRAY:
        case RPC_V_DOUBLE_ARRAY:
        case RPC_V_INT16_ARRAY:
        case RPC_V_INT32_ARRAY:
        case RPC_V_INT64_ARRAY:
        case RPC_V_SQLLEN_ARRAY:
        case RPC_V_SQLULEN_ARRAY: return true;
        default: return false;
    }
}

bool is_sqllen_array(uint32_t code) {
    return code == RPC_V_SQLLEN_ARRAY || code == RPC_V_SQLULEN_ARRAY;
}

// Codes that can travel; anything else (0x80 included) ends the process.
void require_known(uint32_t code) {
    if (code != RPC_V_NONE && scalar_width(code) == 0 && !is_block(code)) prescribed_abort("unknown variant tag");
}

// A scalar element's value; a null buffer sends 0 to keep the stream aligned.
template <typename T>
T read_value(const void *data) {
    T value{};
    if (data != nullptr) std::memcpy(&value, data, sizeof(T));
    return value;
}

RPCMemDesc desc_of(const RPCVariant &e) {
    RPCMemDesc desc{};
    desc.length = e.length;
    desc.value = e.data;
    return desc;
}

// Converts a float or double element in place, one 4- or 8-byte value at a
// time (floats from 4 bytes on, doubles from 8).
void convert_floats(const RPCVariant &e, int32_t (*of_float)(void *), int32_t (*of_double)(void *)) {
    auto *p = static_cast<uint8_t *>(e.data);
    if (p == nullptr) return;
    if (e.type == RPC_V_FLOAT_ARRAY && e.length >= 4) {
        for (int32_t i = 0; i < e.length / 4; ++i) of_float(p + i * 4);
    } else if (e.type == RPC_V_DOUBLE_ARRAY && e.length > 7) {
        for (int32_t i = 0; i < e.length / 8; ++i) of_double(p + i * 8);
    }
}

void push_full(HRPC h, const RPCVariant &e, const char *name) {
    switch (e.type) {
        case RPC_V_NONE: break;
        case RPC_V_INT16: RPCPushInt16(h, read_value<int16_t>(e.data), name); break;
        case RPC_V_INT32: RPCPushInt32(h, read_value<int32_t>(e.data), name); break;
        case RPC_V_INT64: RPCPushInt64(h, read_value<int64_t>(e.data), name); break;
        case RPC_V_SQLLEN: RPCPushSqlLen(h, read_value<int64_t>(e.data), name); break;
        case RPC_V_SQLULEN: RPCPushSqlULen(h, read_value<uint64_t>(e.data), name); break;
        case RPC_V_PTR: RPCPushPtr(h, read_value<void *>(e.data), 0, name); break;
        case RPC_V_FLOAT_ARRAY:
        case RPC_V_DOUBLE_ARRAY:
            // The caller's buffer keeps the stored format: nothing converts it back.
            convert_floats(e, float_to_store, double_to_store);
            [[fallthrough]];
        case RPC_V_MEM: RPCPushDesc(h, name, desc_of(e)); break;
        case RPC_V_INT16_ARRAY: RPCPushInt16Array(h, name, desc_of(e)); break;
        case RPC_V_INT32_ARRAY: RPCPushInt32Array(h, name, desc_of(e)); break;
        case RPC_V_INT64_ARRAY: RPCPushInt64Array(h, name, desc_of(e)); break;
        case RPC_V_SQLLEN_ARRAY: RPCPushSqlLenArray(h, name, desc_of(e)); break;
        case RPC_V_SQLULEN_ARRAY: RPCPushSqlULenArray(h, name, desc_of(e)); break;
        default: prescribed_abort("variant tag not allowed here");
    }
}

void push_element(HRPC h, const RPCVariant &e, Form form, const char *name) {
    require_known(e.type);
    const uint8_t tag = bitno(e.type);
    if (form == Form::kFull) {
        RPCPushByte(h, tag, "warray_type");
        push_full(h, e, name);
        return;
    }
    // Shape: a scalar without a buffer goes as tag 0, a block as its length.
    if (scalar_width(e.type) != 0 && e.type != RPC_V_PTR) {
        RPCPushByte(h, e.data != nullptr ? tag : 0, "warray_type");
        return;
    }
    RPCPushByte(h, tag, "warray_type");
    if (!is_block(e.type)) return;
    const bool halve = is_sqllen_array(e.type) && has_flag(h, kPeerSqlLen4);
    RPCPushInt32(h, halve ? e.length / 2 : e.length, name);
}

void *alloc_zeroed(std::size_t size) {
    void *p = std::calloc(1, size);
    if (p == nullptr) fail(RPC_NOMEM);
    return p;
}

// A block element's header: L, C when it travels compressed, and L doubled for
// SQLLEN arrays from a 4-byte peer.
struct BlockHeader {
    int32_t length;
    int32_t wire;
};

BlockHeader pop_block_header(HRPC h, uint32_t code, bool may_compress, const char *name) {
    BlockHeader header{};
    RPCPopInt32(h, &header.length, name);
    header.wire = header.length;
    if (may_compress && compresses(h, header.length)) RPCPopInt32(h, &header.wire, name);
    if (header.length < 0) header.length = 0;  // nothing to allocate or read
    if (is_sqllen_array(code) && has_flag(h, kPeerSqlLen4)) {
        if (header.length > INT32_MAX / 2) fail(RPC_TRUNC);
        header.length *= 2;
    }
    return header;
}

void pop_payload(HRPC h, RPCVariant &e, const BlockHeader &header, const char *name) {
    if (e.type == RPC_V_MEM || e.type == RPC_V_FLOAT_ARRAY || e.type == RPC_V_DOUBLE_ARRAY) {
        RPCPopMem(h, header.wire, header.length, e.data, name);
    } else {
        RPCPopArray(h, header.wire, header.length, e.data, e.type, name);
    }
    convert_floats(e, store_to_float, store_to_double);
}

void pop_scalar_into(HRPC h, uint32_t code, void *data, const char *name) {
    switch (code) {
        case RPC_V_INT16: RPCPopInt16(h, static_cast<int16_t *>(data), name); break;
        case RPC_V_INT32: RPCPopInt32(h, static_cast<int32_t *>(data), name); break;
        case RPC_V_INT64: RPCPopInt64(h, static_cast<int64_t *>(data), name); break;
        case RPC_V_SQLLEN: RPCPopSqlLen(h, static_cast<int64_t *>(data), name); break;
        case RPC_V_SQLULEN: RPCPopSqlULen(h, static_cast<uint64_t *>(data), name); break;
        case RPC_V_PTR: RPCPopPtr(h, static_cast<void **>(data), 0, name); break;
        default: break;
    }
}

// Server: every element gets a buffer of its own, filled only with RPC_IN.
void pop_server_element(HRPC h, RPCVariant &e, bool in, const char *name) {
    uint8_t tag = 0;
    RPCPopByte(h, &tag, "warray_type");
    e.type = code_of(tag);
    require_known(e.type);
    if (const int32_t width = scalar_width(e.type); width != 0) {
        e.data = alloc_zeroed(static_cast<std::size_t>(width));
        e.length = e.type == RPC_V_PTR ? 0 : width;
        if (in) pop_scalar_into(h, e.type, e.data, name);
        return;
    }
    if (!is_block(e.type)) return;
    const BlockHeader header = pop_block_header(h, e.type, in, name);
    e.length = header.length;
    // An output element's room is zeroed (it goes back whole); an input
    // element's is filled by its payload as the bytes arrive, so a length
    // announced but never sent costs no resident memory.
    if (header.length > 0) {
        const auto size = static_cast<std::size_t>(header.length);
        e.data = in ? std::malloc(size) : std::calloc(1, size);
        if (e.data == nullptr) fail(RPC_NOMEM);
    }
    if (in) pop_payload(h, e, header, name);
}

// Client: the value lands in the caller's own buffer, which must hold it.
void pop_client_element(HRPC h, RPCVariant &e, const char *name) {
    uint8_t tag = 0;
    RPCPopByte(h, &tag, "warray_type");
    const uint32_t code = code_of(tag);
    // The caller's buffer size: its scalar type's width, or its block length.
    const int64_t capacity = e.data == nullptr ? 0
                             : scalar_width(e.type) != 0 ? scalar_width(e.type)
                                                         : e.length;
    e.type = code;
    if (code == kNotSent) return;  // 0x80 carries nothing towards a client
    require_known(code);
    if (const int32_t width = scalar_width(code); width != 0) {
        if (e.data != nullptr && width > capacity) fail(RPC_TRUNC);
        if (code != RPC_V_PTR) e.length = width;
        pop_scalar_into(h, code, e.data, name);
        return;
    }
    if (!is_block(code)) return;
    const BlockHeader header = pop_block_header(h, code, true, name);
    if (header.length > capacity) fail(RPC_TRUNC);
    e.length = header.length;
    if (header.length != 0) pop_payload(h, e, header, name);
}

void pop_server(HRPC h, RPCVariant **elements, int32_t *count, uint32_t flags) {
    int32_t n = 0;
    RPCPopInt32(h, &n, "wvarray_elems");
    if (count != nullptr) *count = n;
    // A client sends only the count for an array that is neither in nor out;
    // its elements then stay empty records for the function to look at.
    const bool elements_follow = (flags & (RPC_IN | RPC_OUT)) != 0;
    // Elements that follow are gathered as they arrive, so the records cost
    // what the peer really sent, not what it announced.
    std::vector<RPCVariant> arrived;
    try {
        for (int32_t i = 0; elements_follow && i < n; ++i) {
            arrived.push_back(RPCVariant{});
            pop_server_element(h, arrived.back(), (flags & RPC_IN) != 0, ElementName(i).text);
        }
    } catch (...) {
        for (RPCVariant &e : arrived) std::free(e.data);  // a failed call leaves nothing allocated
        throw;
    }
    // Non-null even for 0 elements: the reply pushes the records back.
    auto *records = static_cast<RPCVariant *>(
        std::calloc(static_cast<std::size_t>(std::max(n, 1)), sizeof(RPCVariant)));
    if (records == nullptr) {
        for (RPCVariant &e : arrived) std::free(e.data);
        fail(RPC_NOMEM);
    }
    if (!arrived.empty()) std::memcpy(records, arrived.data(), arrived.size() * sizeof(RPCVariant));
    if (elements != nullptr) *elements = records;
    else free_wvarray(records, n);
}

void pop_client(HRPC h, RPCVariant **elements, const int32_t *count) {
    int32_t n = 0;
    RPCPopInt32(h, &n, "wvarray_elems");
    if (count == nullptr || n != *count) prescribed_abort("reply count differs from the array");
    if (n < 1) return;
    RPCVariant *records = elements != nullptr ? *elements : nullptr;
    if (records == nullptr) prescribed_abort("no records for the reply");
    for (int32_t i = 0; i < n; ++i) pop_client_element(h, records[i], ElementName(i).text);
}

}  // namespace

uint8_t bitno(uint32_t code) { return static_cast<uint8_t>(std::bit_width(code)); }

void RPCPushWVArray(HRPC h, uint32_t type_flags, const char *, RPCMemDesc desc) {
    const auto *records = static_cast<const RPCVariant *>(desc.value);
    if (records == nullptr) prescribed_abort("no variant records to send");
    const int32_t n = desc.length;
    RPCPushInt32(h, n, "wvarray_elems");
    const Form form = form_for(h, type_flags);
    if (n < 1 || form == Form::kCountOnly) return;
    for (int32_t i = 0; i < n; ++i) push_element(h, records[i], form, ElementName(i).text);
}

void RPCPopWVArray(HRPC h, RPCVariant **elements, int32_t *count, uint32_t type_flags,
                   const char *) {
    if (h->mode == kServer) {
        pop_server(h, elements, count, type_flags);
    } else if (h->mode == kClient && (type_flags & RPC_OUT) != 0) {
        pop_client(h, elements, count);
    }
}

void free_wvarray(RPCVariant *elements, int32_t count) {
    if (elements == nullptr) return;
    for (int32_t i = 0; i < count; ++i) std::free(elements[i].data);
    std::free(elements);
}

}  // namespace zrpc
