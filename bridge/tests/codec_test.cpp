// The bridge's compact encodings as a peer sees them: exact bytes, and
// blocks that end early or hold malformed forms rejected, never read past.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "protocol/codec.h"
#include "protocol/read_ahead.h"

namespace {

using Bytes = std::vector<uint8_t>;

TEST(Varint, SignedValuesHaveTheseBytes) {
    const struct {
        int64_t value;
        Bytes bytes;
    } cases[] = {
        {0, {0x00}},
        {-1, {0x01}},  // SQL_NULL_DATA
        {1, {0x02}},
        {-4, {0x07}},  // SQL_NO_TOTAL
        {63, {0x7e}},
        {64, {0x80, 0x01}},
        {300, {0xd8, 0x04}},
        {INT64_MAX, {0xfe, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01}},
        {INT64_MIN, {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01}},
    };
    for (const auto &c : cases) {
        zb::Writer w;
        w.svar(c.value);
        EXPECT_EQ(w.data(), c.bytes) << c.value;
        zb::Reader r(c.bytes.data(), c.bytes.size());
        EXPECT_EQ(r.svar(), c.value);
        EXPECT_TRUE(r.done());
    }
}

TEST(Varint, MalformedOrCutShortIsADecodeError) {
    const Bytes cases[] = {
        {},                                                              // nothing
        {0x80},                                                          // continues past the end
        {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x02},    // 65 bits
        {0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x00},  // 11 bytes
        {0x05, 'a', 'b'},  // as a length: more bytes than the block holds
    };
    for (const auto &bytes : cases) {
        zb::Reader r(bytes.data(), bytes.size());
        EXPECT_THROW(r.var_bytes(), zb::DecodeError) << bytes.size();
    }
}

TEST(Count, ACountTheRestOfTheBlockCannotHoldIsADecodeError) {
    constexpr int64_t kRefused = -1;
    const struct {
        Bytes bytes;
        size_t item_bytes;
        int64_t count;
    } cases[] = {
        {{2, 0, 0, 0, 'a', 'b', 'c', 'd'}, 4, kRefused},
        {{2, 0, 0, 0, 'a', 'b', 'c', 'd'}, 2, 2},
        {{0, 0, 0, 0}, 100, 0},
        {{0xff, 0xff, 0xff, 0xff, 'a'}, 1, kRefused},
        {{0xff, 0xff, 0xff, 0xff}, 0, UINT32_MAX},  // items that may be empty: the reads that follow decide
    };
    for (const auto &c : cases) {
        zb::Reader r(c.bytes.data(), c.bytes.size());
        if (c.count == kRefused)
            EXPECT_THROW(r.count(c.item_bytes), zb::DecodeError) << c.item_bytes;
        else
            EXPECT_EQ(r.count(c.item_bytes), c.count);
    }
}

TEST(Outcome, PlainSuccessIsOneByteAndAnythingElseCarriesItsDiagnostics) {
    zb::Writer w;
    zb::put_outcome(w, 0, {});
    zb::put_outcome(w, 1, {{"01004", 0, "truncated", "ISO 9075", "ODBC 3.0"}});
    zb::put_outcome(w, 100, {});
    EXPECT_EQ(w.data()[0], 0);
    EXPECT_EQ(w.data()[1], 1);

    zb::Reader r(w.data().data(), w.size());
    std::vector<zb::DiagRecord> diags;
    EXPECT_EQ(zb::get_outcome(r, diags), 0);
    EXPECT_TRUE(diags.empty());
    EXPECT_EQ(zb::get_outcome(r, diags), 1);
    ASSERT_EQ(diags.size(), 1u);
    EXPECT_EQ(diags[0].sqlstate, "01004");
    EXPECT_EQ(diags[0].message, "truncated");
    diags.clear();
    EXPECT_EQ(zb::get_outcome(r, diags), 100);
    EXPECT_TRUE(diags.empty());
    EXPECT_TRUE(r.done());

    const Bytes unknown_form = {2, 0, 0};
    zb::Reader bad(unknown_form.data(), unknown_form.size());
    EXPECT_THROW(zb::get_outcome(bad, diags), zb::DecodeError);
}

}  // namespace
