// LZO1X-1 compression of bulk payloads, using the handle's fixed areas.

#include <cstdlib>

#include <lzo/lzo1x.h>

#include "marshal/block.h"

namespace zrpc {

namespace {

// LZO is initialised once per process; the result is checked before use.
bool lzo_ready() {
    static const bool ready = lzo_init() == LZO_E_OK;
    return ready;
}

}  // namespace

bool compresses(HRPC h, int64_t length) {
    return has_flag(h, kCompress) && length >= static_cast<int64_t>(kCompressMin) &&
           length <= static_cast<int64_t>(kCompressMax);
}

// REQUIRES: output holds kCompressOutSize bytes. Longer inputs than the
// compression range are refused (0) because the output area is sized for it.
uint32_t compress_buffer(HRPC h, const void *bytes, uint32_t length, void *output) {
    if (!lzo_ready() || length > kCompressMax) return 0;
    lzo_uint out_len = 0;
    const int rc = lzo1x_1_compress(static_cast<const lzo_bytep>(bytes), length,
                                    static_cast<lzo_bytep>(output), &out_len, h->lzo_work);
    if (rc != LZO_E_OK) prescribed_abort("LZO compressor error");  // cannot fail on valid input
    return static_cast<uint32_t>(out_len);
}

uint32_t decompress_buffer(HRPC h, uint32_t length, void *dest, uint32_t dest_len) {
    if (!lzo_ready()) fail(RPC_DECOMP);
    lzo_uint out_len = dest_len;
    const int rc = lzo1x_decompress_safe(h->decompress_in, length, static_cast<lzo_bytep>(dest),
                                         &out_len, nullptr);
    if (rc == LZO_E_OUTPUT_OVERRUN) fail(RPC_TRUNC);
    if (rc != LZO_E_OK || out_len == 0) fail(RPC_DECOMP);
    return static_cast<uint32_t>(out_len);
}

}  // namespace zrpc
