// Pointers as table indices: server indices, client proxies, table growth and
// errors. Raw 8-byte pointers are among the byte order checks of the frames.
#include <gtest/gtest.h>

#include "helpers/log_file.h"
#include "helpers/wire_pair.h"
#include "marshal/pointer.h"

using namespace zrpc;
using namespace zrpc::test;

static int a, b, objects[10];  // objects of the server's

static void *pop_ptr(HRPC h) {
    void *p = &a;
    RPCPopPtr(h, &p, RPC_PTR, "p");
    return p;
}

// The server sends indices (null is 0, registered at negotiation); the client
// turns them into proxies and hands them back: only RPC_IN parameters travel,
// as the first peer-pointer-size bytes of the index.
TEST(Pointer, ServerIndicesBecomeClientProxiesAndComeBack) {
    WirePair w(0, kPeerPtrIndex, 4);
    add_ptr_to_list_l(w.tx, nullptr);
    w.send([](HRPC h) {
        for (int *p : std::initializer_list<int *>{&a, &a, nullptr, &b}) RPCPushPtr(h, p, 0, "p");
    });
    EXPECT_EQ(w.bytes(), (Bytes{'D', 1, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0}));
    void *first = pop_ptr(w.rx);
    EXPECT_EQ(pop_ptr(w.rx), first);
    EXPECT_EQ(pop_ptr(w.rx), nullptr);
    void *second = pop_ptr(w.rx);
    EXPECT_EQ(w.rx->ptr_count, 2);  // index 0 made no node

    w.turn();
    w.tx->peer_ptr_size = 2;
    w.rx->peer_ptr_size = 2;
    w.send([&](HRPC h) {
        RPCPushPtr(h, second, RPC_PTR | RPC_IN, "p");
        RPCPushPtr(h, first, RPC_PTR | RPC_OUT, "o");
        RPCPushPtr(h, first, RPC_PTR | RPC_IN, "p");
    });
    EXPECT_EQ(w.bytes(), (Bytes{'D', 2, 0, 1, 0}));
    EXPECT_EQ(pop_ptr(w.rx), &b);
    EXPECT_EQ(pop_ptr(w.rx), &a);
}

// Both tables grow by ten: the server's array at its 11th entry (null
// included), the client's nodes by a new chunk linked from the 10th node.
TEST(Pointer, TablesGrowByTen) {
    auto server = make_handle(0, kPeerPtrIndex, 4);
    add_ptr_to_list_l(server.get(), nullptr);
    for (int i = 0; i < 9; ++i) EXPECT_EQ(add_ptr_to_list_l(server.get(), &objects[i]), i + 1);
    EXPECT_EQ(server->ptr_capacity, 10);
    EXPECT_EQ(add_ptr_to_list_l(server.get(), &objects[9]), 10);
    EXPECT_EQ(server->ptr_capacity, 20);
    EXPECT_EQ(add_ptr_to_list_l(server.get(), &objects[4]), 5);

    auto client = make_handle(1, kPeerPtrIndex, 4);
    std::vector<PtrNode *> nodes;
    for (uint32_t index : {5u, 7u}) nodes.push_back(add_ptr_to_list_s(client.get(), index));
    while (nodes.size() < 25) nodes.push_back(add_ptr_to_list_s(client.get(), 98 + nodes.size()));
    EXPECT_EQ(add_ptr_to_list_s(client.get(), 5), nodes[0]);
    EXPECT_EQ(add_ptr_to_list_s(client.get(), 122), nodes[24]);  // found across the links
    EXPECT_EQ(client->ptr_count, 25);
    EXPECT_EQ(nodes[9]->link, nodes[10]);
}

TEST(Pointer, UnknownIndicesAndBadWidthsFailWith26) {
    reset_logs();
    WirePair w(1, kPeerPtrIndex, 4);
    for (int *p : std::initializer_list<int *>{nullptr, &a, &b}) add_ptr_to_list_l(w.rx, p);
    for (const Bytes &frame : {Bytes{'D', 9, 0, 0, 0}, Bytes{'D', 0xFF, 0xFF, 0xFF, 0xFF}}) {
        w.receive({frame});
        EXPECT_EQ(error_of([&] { pop_ptr(w.rx); }), RPC_HMARSHAL);
    }
    EXPECT_EQ(read_trace_log(), "Pointer marshalling error...lookup with index 9, failed"
                                "Pointer marshalling error...lookup with index -1, failed");
    w.tx->peer_ptr_size = 5;  // more than an index can fill
    EXPECT_EQ(error_of([&] { w.send([](HRPC h) { RPCPushPtr(h, &b, 0, "p"); }); }), RPC_HMARSHAL);
}
