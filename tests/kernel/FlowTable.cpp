#include "FlowTable.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nf_conntrack_common.h>
#include <linux/netfilter/nf_conntrack_tcp.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <sys/socket.h>

#include <cstdarg>
#include <regex>
#include <sstream>

#include "Network.h"

namespace flows {

namespace {

void Request(const driver::Handle& handle, std::vector<char>& block, size_t at, uint8_t protocol,
             uint16_t capacity, Section& section)
{
    auto* head = reinterpret_cast<vxa_dump_conntrack_s*>(block.data() + at);
    *head = {};
    head->request = VXA_CONNTRACK_REQUEST_TABLE;
    head->entry_ct = capacity;
    head->protocol = protocol;
    const unsigned size = static_cast<unsigned>(sizeof *head + 72u * capacity);
    ASSERT_EQ(vxi_get_conntrack(handle.get(), head, size, nullptr), 0) << driver::Error(handle);
    ASSERT_LE(head->entry_ct, capacity);
    const auto* entries = reinterpret_cast<const vxa_conntrack_entry_s*>(head + 1);
    section.entries.assign(entries, entries + head->entry_ct);
    section.total = head->total;
}

void Print(tb_dump_s* sink, const char* format, ...)
{
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    *static_cast<std::string*>(sink->context) += text;
}

std::string AddressText(const uint8_t (&address)[16], uint8_t family)
{
    char text[INET6_ADDRSTRLEN] = "?";
    inet_ntop(family == 4 ? AF_INET : AF_INET6, address, text, sizeof text);
    return text;
}

std::string PortText(const uint8_t (&port)[2])
{
    return std::to_string(port[0] << 8 | port[1]);
}

const char* StateName(uint8_t state)
{
    static const char* const names[] = {"NONE",     "SYN_SENT",   "SYN_RECV", "ESTABLISHED",
                                        "FIN_WAIT", "CLOSE_WAIT", "LAST_ACK", "TIME_WAIT",
                                        "CLOSE",    "SYN_SENT2"};
    return state < std::size(names) ? names[state] : "?";
}

std::string Line(const char* protocol, const vxa_conntrack_entry_s& entry)
{
    std::ostringstream line;
    line << protocol << ' ' << AddressText(entry.source, entry.family) << ' '
         << PortText(entry.source_port) << ' ' << AddressText(entry.destination, entry.family)
         << ' ' << PortText(entry.destination_port);
    if (*protocol == 't') {
        line << ' ' << StateName(entry.tcp_state);
    }
    line << (entry.flags & VXA_FLOW_SEEN_REPLY ? "" : " unreplied")
         << (entry.flags & VXA_FLOW_ASSURED ? " assured" : "");
    if (entry.flags & VXA_FLOW_COUNTERS_VALID) {
        line << ' ' << entry.packets_forward << '/' << entry.bytes_forward << ' '
             << entry.packets_backward << '/' << entry.bytes_backward;
    }
    return line.str();
}

// "tcp 6 431999 ESTABLISHED src=A dst=B sport=1 dport=2 packets=3 bytes=4 [UNREPLIED] src=..":
// the first of each name belongs to the forward direction.
std::string ListedLine(const std::string& listed)
{
    static const std::regex field("(src|dst|sport|dport|packets|bytes)=(\\S+)");
    static const std::regex state(" ([A-Z][A-Z0-9_]+) src=");
    std::map<std::string, std::vector<std::string>> fields;
    for (std::sregex_iterator at(listed.begin(), listed.end(), field), end; at != end; ++at) {
        fields[(*at)[1]].push_back((*at)[2]);
    }
    std::ostringstream line;
    line << listed.substr(0, 3) << ' ' << fields["src"].at(0) << ' ' << fields["sport"].at(0) << ' '
         << fields["dst"].at(0) << ' ' << fields["dport"].at(0);
    std::smatch match;
    if (std::regex_search(listed, match, state)) {
        line << ' ' << match[1];
    }
    line << (listed.find("[UNREPLIED]") != std::string::npos ? " unreplied" : "")
         << (listed.find("[ASSURED]") != std::string::npos ? " assured" : "");
    if (fields.count("packets")) {
        line << ' ' << fields["packets"].at(0) << '/' << fields["bytes"].at(0) << ' '
             << fields["packets"].at(1) << '/' << fields["bytes"].at(1);
    }
    return line.str();
}

// Puts one end of a flow: addresses 10.p.x.y > 10.255.0.1, told apart by number.
void PutTuple(nlmsghdr* message, uint16_t type, uint8_t protocol, uint32_t number, bool reply)
{
    const uint32_t near = htonl(0x0a000000u | number / 60000 << 16 | 1);
    const uint32_t far = htonl(0x0aff0001);
    const uint16_t near_port = htons(static_cast<uint16_t>(1024 + number % 60000));
    const uint16_t far_port = htons(443);
    nlattr* tuple = mnl_attr_nest_start(message, type);
    nlattr* ip = mnl_attr_nest_start(message, CTA_TUPLE_IP);
    mnl_attr_put_u32(message, CTA_IP_V4_SRC, reply ? far : near);
    mnl_attr_put_u32(message, CTA_IP_V4_DST, reply ? near : far);
    mnl_attr_nest_end(message, ip);
    nlattr* ends = mnl_attr_nest_start(message, CTA_TUPLE_PROTO);
    mnl_attr_put_u8(message, CTA_PROTO_NUM, protocol);
    mnl_attr_put_u16(message, CTA_PROTO_SRC_PORT, reply ? far_port : near_port);
    mnl_attr_put_u16(message, CTA_PROTO_DST_PORT, reply ? near_port : far_port);
    mnl_attr_nest_end(message, ends);
    mnl_attr_nest_end(message, tuple);
}

void PutFlow(char* buffer, uint8_t protocol, uint32_t number)
{
    nlmsghdr* message = mnl_nlmsg_put_header(buffer);
    message->nlmsg_type = NFNL_SUBSYS_CTNETLINK << 8 | IPCTNL_MSG_CT_NEW;
    message->nlmsg_flags = NLM_F_REQUEST | NLM_F_CREATE | NLM_F_EXCL;
    auto* family = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(message, sizeof(nfgenmsg)));
    family->nfgen_family = AF_INET;
    PutTuple(message, CTA_TUPLE_ORIG, protocol, number, false);
    PutTuple(message, CTA_TUPLE_REPLY, protocol, number, true);
    mnl_attr_put_u32(message, CTA_TIMEOUT, htonl(3600));
    mnl_attr_put_u32(message, CTA_STATUS, htonl(IPS_SEEN_REPLY | IPS_ASSURED | IPS_CONFIRMED));
    if (protocol == IPPROTO_TCP) {
        nlattr* info = mnl_attr_nest_start(message, CTA_PROTOINFO);
        nlattr* tcp = mnl_attr_nest_start(message, CTA_PROTOINFO_TCP);
        mnl_attr_put_u8(message, CTA_PROTOINFO_TCP_STATE, TCP_CONNTRACK_ESTABLISHED);
        mnl_attr_nest_end(message, tcp);
        mnl_attr_nest_end(message, info);
    }
}

}  // namespace

Table Fetch(const driver::Handle& handle)
{
    Table table;
    vxa_dump_conntrack_s count = {};
    count.request = VXA_CONNTRACK_REQUEST_TABLE;
    EXPECT_EQ(vxi_get_conntrack(handle.get(), &count, sizeof count, nullptr), 0)
        << driver::Error(handle);
    table.count = count.entry_ct;
    std::vector<char> block(2 * sizeof count + 72u * count.entry_ct);
    Request(handle, block, 0, IPPROTO_UDP, count.entry_ct, table.udp);
    const auto taken = static_cast<uint16_t>(table.udp.entries.size());
    Request(handle, block, sizeof count + 72u * taken, IPPROTO_TCP,
            static_cast<uint16_t>(count.entry_ct - taken), table.tcp);
    tb_dump_s sink = {Print, &table.text};
    tb_dump_all_conn_track(&sink, reinterpret_cast<vxa_dump_conntrack_s*>(block.data()));
    return table;
}

Table Fetch()
{
    return Fetch(driver::Open());
}

Lines LinesOf(const Table& table)
{
    Lines lines;
    for (const auto& entry : table.udp.entries) {
        lines.insert(Line("udp", entry));
    }
    for (const auto& entry : table.tcp.entries) {
        lines.insert(Line("tcp", entry));
    }
    return lines;
}

Lines Listed()
{
    Lines lines;
    std::istringstream listed(
        network::Run("conntrack -L -f ipv4 2>/dev/null && conntrack -L -f ipv6 2>/dev/null"));
    for (std::string line; std::getline(listed, line);) {
        if (line.rfind("udp ", 0) == 0 || line.rfind("tcp ", 0) == 0) {
            lines.insert(ListedLine(line));
        }
    }
    return lines;
}

void Track()
{
    network::Run(
        "nft 'table inet tracking { chain c { type filter hook input priority 0; "
        "ct state invalid counter; }; }'");
}

void Make(uint8_t protocol, uint32_t count)
{
    const std::unique_ptr<mnl_socket, int (*)(mnl_socket*)> socket(
        mnl_socket_open(NETLINK_NETFILTER), mnl_socket_close);
    ASSERT_TRUE(socket);
    // Many messages at a time; none asks for an answer, so that none must be read.
    std::vector<char> batch(64 * 1024);
    constexpr size_t longest = 512;
    size_t used = 0;
    for (uint32_t number = 0; number < count; ++number) {
        PutFlow(batch.data() + used, protocol, number);
        used += reinterpret_cast<nlmsghdr*>(batch.data() + used)->nlmsg_len;
        if (batch.size() - used < longest || number + 1 == count) {
            ASSERT_EQ(mnl_socket_sendto(socket.get(), batch.data(), used),
                      static_cast<ssize_t>(used));
            used = 0;
        }
    }
}

}  // namespace flows
