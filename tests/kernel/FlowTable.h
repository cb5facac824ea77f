// The driver's flow table as its callers fetch it, and tracked flows made to order.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "Driver.h"

namespace flows {

struct Section {
    uint32_t total = 0;
    std::vector<vxa_conntrack_entry_s> entries;
};

struct Table {
    uint16_t count = 0;
    Section udp;
    Section tcp;
    std::string text;  // as tb_dump_all_conn_track renders it
};

// The three requests that belong together; a failing one fails the test.
Table Fetch(const driver::Handle& handle);
Table Fetch();

// One line a flow, the same for one flow whoever shows it: protocol, ends, TCP state,
// "unreplied" and "assured", and "packets/bytes" both ways where they are counted.
using Lines = std::multiset<std::string>;
Lines LinesOf(const Table& table);
// What "conntrack -L" shows of UDP and TCP in this namespace, of both families.
Lines Listed();

// Switches tracking on in this namespace.
void Track();

// `count` flows with different ends, put into the kernel's table without any traffic.
void Make(uint8_t protocol, uint32_t count);

}  // namespace flows

// For tests that compare with the conntrack command.
#define REQUIRE_CONNTRACK() \
    REQUIRE_NETWORK();      \
    if (system("command -v conntrack >/dev/null 2>&1") != 0) GTEST_SKIP() << "lacking conntrack"
