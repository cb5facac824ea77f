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
Table Fetch(const driver::Handle& handle = driver::Open());

// The text's lines of flows without their timeouts.
using Lines = std::multiset<std::string>;
Lines LinesOf(const Table& table);
// The same from what "conntrack -L" shows of UDP and TCP in this namespace.
Lines Listed();

// `count` flows with different ends, put into the kernel's table without any traffic.
void Make(const std::string& protocol, uint32_t count);

}  // namespace flows
