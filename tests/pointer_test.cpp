// Pointers: raw values, server indices, client proxies, table growth, errors.
#include <gtest/gtest.h>

#include "helpers/log_file.h"
#include "helpers/wire_pair.h"
#include "marshal/pointer.h"

using namespace zrpc;
using namespace zrpc::test;
using Bytes = std::vector<uint8_t>;

namespace {

int a, b, c;  // addresses that stand for server-side objects

void *pop_ptr(HRPC h) {
    void *p = &a;
    RPCPopPtr(h, &p, RPC_PTR, "p");
    return p;
}

}  // namespace

TEST(Pointer, RawPointersTravelAsEightBytesWithoutTables) {
    WirePair w(0, kByteSwap, 1, 0);
    void *p = reinterpret_cast<void *>(uintptr_t{0x1122334455667788});
    w.send([&](HRPC h) { RPCPushPtr(h, p, RPC_PTR, "p"); });
    EXPECT_EQ(w.bytes(), (Bytes{'D', 0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11}));
    EXPECT_EQ(pop_ptr(w.rx.get()), p);
    EXPECT_EQ(w.tx->ptr_table, nullptr);
    EXPECT_EQ(w.rx->ptr_table, nullptr);
}

TEST(Pointer, ServerIndicesBecomeClientProxiesAndComeBack) {
    WirePair w(0, kPeerPtrIndex, 1, kPeerPtrIndex, 4);
    add_ptr_to_list_l(w.tx.get(), nullptr);  // as negotiation does: null is index 0
    w.send([](HRPC h) {
        for (void *p : {(void *)&a, (void *)&a, (void *)nullptr, (void *)&b}) RPCPushPtr(h, p, RPC_PTR, "p");
    });
    EXPECT_EQ(w.bytes(), (Bytes{'D', 1, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0}));
    void *first = pop_ptr(w.rx.get());
    EXPECT_EQ(pop_ptr(w.rx.get()), first);
    EXPECT_EQ(pop_ptr(w.rx.get()), nullptr);
    void *second = pop_ptr(w.rx.get());
    EXPECT_EQ(w.rx->ptr_count, 2);  // index 0 made no node
    EXPECT_EQ(find_ptr_in_list_l(w.rx.get(), second), 2u);

    // The client hands the proxies back; only RPC_IN parameters are sent.
    WirePair back(1, kPeerPtrIndex, 0, kPeerPtrIndex, 2);
    back.rx->ptr_table = w.tx->ptr_table;  // the server's table, borrowed
    back.rx->ptr_count = w.tx->ptr_count;
    back.send([&](HRPC h) {
        RPCPushPtr(h, second, RPC_PTR | RPC_IN, "p");
        RPCPushPtr(h, first, RPC_PTR | RPC_OUT, "out");
        RPCPushPtr(h, first, RPC_PTR | RPC_IN, "p");
    });
    EXPECT_EQ(back.bytes(), (Bytes{'D', 2, 0, 1, 0}));
    EXPECT_EQ(pop_ptr(back.rx.get()), &b);
    EXPECT_EQ(pop_ptr(back.rx.get()), &a);
    back.rx->ptr_table = nullptr;
}

TEST(Pointer, TablesGrowByTen) {
    auto server = make_handle(0, kPeerPtrIndex, 4);
    int objects[11];
    add_ptr_to_list_l(server.get(), nullptr);
    for (int i = 0; i < 10; ++i) EXPECT_EQ(add_ptr_to_list_l(server.get(), &objects[i]), i + 1);
    EXPECT_EQ(server->ptr_capacity, 20);  // the 11th entry grew it
    EXPECT_EQ(add_ptr_to_list_l(server.get(), &objects[4]), 5);

    auto client = make_handle(1, kPeerPtrIndex, 4);
    PtrNode *five = add_ptr_to_list_s(client.get(), 5);
    EXPECT_NE(add_ptr_to_list_s(client.get(), 7), five);
    EXPECT_EQ(add_ptr_to_list_s(client.get(), 5), five);
    EXPECT_EQ(client->ptr_count, 2);
    free_ptr_table(client.get());
    std::vector<PtrNode *> nodes;
    for (uint32_t index = 1; index <= 25; ++index) nodes.push_back(add_ptr_to_list_s(client.get(), index * 3));
    EXPECT_EQ(client->ptr_capacity, 30);
    EXPECT_EQ(nodes[9]->link, nodes[10]);  // the 10th node links the second chunk
    EXPECT_EQ(nodes[19]->link, nodes[20]);
    for (uint32_t index = 1; index <= 25; ++index) {
        EXPECT_EQ(add_ptr_to_list_s(client.get(), index * 3), nodes[index - 1]);
    }
    EXPECT_EQ(client->ptr_count, 25);
}

TEST(Pointer, UnknownIndicesAndBadWidthsFailWith26) {
    reset_logs();
    for (Bytes frame : {Bytes{'D', 9, 0, 0, 0}, Bytes{'D', 0xFF, 0xFF, 0xFF, 0xFF}}) {
        auto server = make_handle(0, kPeerPtrIndex, 4);
        CaptureLink link;
        link.attach(server.get());
        for (void *p : {(void *)nullptr, (void *)&a, (void *)&b}) add_ptr_to_list_l(server.get(), p);
        link.incoming = {frame};
        RPCStartIFrame(server.get());
        EXPECT_EQ(error_of([&] { pop_ptr(server.get()); }), RPC_HMARSHAL);
    }
    EXPECT_EQ(read_trace_log(),
              "Pointer marshalling error...lookup with index 9, failed"
              "Pointer marshalling error...lookup with index -1, failed");
    for (int32_t width : {0, 5}) {
        auto h = make_handle(0, kPeerPtrIndex, width);
        RPCStartOFrame(h.get());
        EXPECT_EQ(error_of([&] { RPCPushPtr(h.get(), &c, 0, "p"); }), RPC_HMARSHAL) << width;
    }
    reset_logs();
}

TEST(Pointer, TraceLinesKeepTheirExactFormat) {
    reset_logs();
    WirePair w(0, kPeerPtrIndex | kTraceValues, 1, kPeerPtrIndex | kTraceValues, 4);
    w.send([](HRPC h) { RPCPushPtr(h, nullptr, 0, "in"); });
    pop_ptr(w.rx.get());
    WirePair raw(0, kTraceValues, 1, kTraceValues);
    raw.send([](HRPC h) { RPCPushPtr(h, nullptr, 0, "raw"); });
    pop_ptr(raw.rx.get());
    EXPECT_EQ(read_trace_log(),
              "pushing pointer in : (nil)\npopped pointer p : (nil)\n"
              "pushing pointer raw : (nil)\npopped pointer p: (nil)\n");
    reset_logs();
}
