#include "FlowTable.h"

#include <netinet/in.h>

#include <regex>
#include <sstream>

#include "Network.h"

namespace flows {

namespace {

void Request(const driver::Handle& handle, std::vector<char>& block, size_t at, uint8_t protocol,
             uint16_t capacity, Section& section)
{
    auto* head = reinterpret_cast<vxa_dump_conntrack_s*>(block.data() + at);
    *head = conntrack_request(protocol);
    head->entry_ct = capacity;
    const unsigned size = static_cast<unsigned>(sizeof *head + 72u * capacity);
    ASSERT_EQ(vxi_get_conntrack(handle.get(), head, size, nullptr), 0) << driver::Error(handle);
    ASSERT_LE(head->entry_ct, capacity);
    const auto* entries = reinterpret_cast<const vxa_conntrack_entry_s*>(head + 1);
    section.entries.assign(entries, entries + head->entry_ct);
    section.total = head->total;
}

Lines LinesIn(const std::string& text)
{
    Lines lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        if (line[0] != '#') {
            lines.insert(line);
        }
    }
    return lines;
}

}  // namespace

Table Fetch(const driver::Handle& handle)
{
    Table table;
    vxa_dump_conntrack_s count = conntrack_request();
    EXPECT_EQ(vxi_get_conntrack(handle.get(), &count, sizeof count, nullptr), 0)
        << driver::Error(handle);
    table.count = count.entry_ct;
    std::vector<char> block(2 * sizeof count + 72u * count.entry_ct);
    Request(handle, block, 0, IPPROTO_UDP, count.entry_ct, table.udp);
    const auto taken = static_cast<uint16_t>(table.udp.entries.size());
    Request(handle, block, sizeof count + 72u * taken, IPPROTO_TCP,
            static_cast<uint16_t>(count.entry_ct - taken), table.tcp);
    table.text =
        text_of(tb_dump_all_conn_track, reinterpret_cast<vxa_dump_conntrack_s*>(block.data()));
    return table;
}

Lines LinesOf(const Table& table)
{
    return LinesIn(std::regex_replace(table.text, std::regex(" \\d+s "), " "));
}

// "tcp 6 431999 ESTABLISHED src=A dst=B sport=1 dport=2 packets=3 bytes=4 [UNREPLIED] src=..":
// the first of each name belongs to the forward direction.
Lines Listed()
{
    return LinesIn(network::Run(R"((conntrack -L -f ipv4; conntrack -L -f ipv6) 2>/dev/null | awk '
function end(host, port) { return (host ~ /:/ ? "[" host "]" : host) ":" port }
function counts(n) { return value["packets", n] "/" value["bytes", n] }
/^(udp|tcp) / {
    split("", seen); split("", value)
    for (i = 4; i <= NF; i++) {
        if (split($i, part, "=") == 2) value[part[1], ++seen[part[1]]] = part[2]
    }
    printf "%s %s > ", $1, end(value["src", 1], value["sport", 1])
    printf "%s %s", end(value["dst", 1], value["dport", 1]), $1 == "tcp" ? $4 : "-"
    if ("packets" in seen) printf " %s %s", counts(1), counts(2); else printf " - -"
    print (/\[ASSURED\]/ ? " assured" : "") (/\[UNREPLIED\]/ ? " unreplied" : "")
}')"));
}

void Make(const std::string& protocol, uint32_t count)
{
    network::Run("seq " + std::to_string(count) + " | awk '{ printf \"-I -p " + protocol +
                 " -s 10.%d.0.1 -d 10.255.0.1 --sport %d --dport 443 -t 3600 "
                 "-u SEEN_REPLY,ASSURED" +
                 (protocol == "tcp" ? " --state ESTABLISHED" : "") +
                 "\\n\", $1 / 60000, 1024 + $1 % 60000 }' | conntrack -R /dev/stdin");
}

}  // namespace flows
