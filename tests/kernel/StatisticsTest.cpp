// Statistics and variables against the kernel's own files, taken apart by other means.
#include <linux/capability.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <sstream>

#include "Driver.h"
#include "Network.h"
#include "Traffic.h"
#include "Variables.h"

namespace {

using Figures = std::map<std::string, std::string>;

std::string StatisticsText(const driver::Handle& handle)
{
    Statistics stats;
    EXPECT_EQ(vxi_get_stats(handle.get(), &stats, sizeof stats), 0) << driver::Error(handle);
    return text_of<vxa_stats_v2_s>(tb_dump_stats, &stats);
}

// "NAME VALUE" lines; the heading is left out, a name that occurs twice fails the test.
Figures FiguresOf(const std::string& text)
{
    Figures figures;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const size_t blank = line.find(' ');
        if (line[0] != '#') {
            EXPECT_TRUE(figures.emplace(line.substr(0, blank), line.substr(blank + 1)).second)
                << line;
        }
    }
    return figures;
}

Figures FromProc()
{
    return FiguresOf(network::Run(
        R"(cd /proc/thread-self/net
paired='{ k = substr($1, 1, length($1) - 1)
  if (k == last) { for (i = 2; i <= NF; i++) print k "." name[i], $i; last = "" }
  else { for (i = 2; i <= NF; i++) name[i] = $i; last = k } }'
grep -v ^IcmpMsg: snmp | awk "$paired"
awk "$paired" netstat
grep -Ev 'Icmp6(In|Out)Type[0-9]' snmp6 | awk '{ print $1, $2 }'
cat sockstat sockstat6 | awk '{ for (i = 2; i < NF; i += 2)
  print substr($1, 1, length($1) - 1) "." $i, $(i + 1) }'
awk 'NR == 2 { gsub(/\|/, " | "); side = ""; n = 0
    for (i = 1; i <= NF; i++) if ($i == "|") side = side == "" ? "rx" : "tx"
      else if (side != "") name[++n] = side "_" $i }
  NR > 2 { sub(":", " "); for (i = 2; i <= NF; i++) print $1 "." name[i - 1], $i }' dev)"));
}

bool EndsWith(const std::string& name, const std::string& end)
{
    return name.size() > end.size() && name.substr(name.size() - end.size()) == end;
}

bool FromElsewhere(const std::string& name)
{
    const std::string group = name.substr(0, name.find('.'));
    return group == "conntrack" || group == "rules" || group == "scan" || group == "softnet" ||
           EndsWith(name, ".ifindex");
}

NETWORK_TEST(Statistics, AreTheKernelsTables)
{
    traffic::Exchange(traffic::Local(4, 9000), 7);
    const driver::Handle handle = driver::Open();
    const Figures before = FromProc();
    const Figures ours = FiguresOf(StatisticsText(handle));
    const Figures after = FromProc();
    ASSERT_GT(before.size(), 200u);
    EXPECT_EQ(before.at("Udp.InDatagrams"), "7");
    EXPECT_EQ(before.at("lo.rx_packets"), "7");
    for (const auto& [name, value] : before) {
        const auto found = ours.find(name);
        ASSERT_NE(found, ours.end()) << name;
        // Memory in use is counted for the whole machine, not for the namespace.
        if (after.at(name) == value) {
            EXPECT_EQ(found->second, value) << name;
        }
    }
    for (const auto& [name, value] : ours) {
        EXPECT_TRUE(before.count(name) || FromElsewhere(name)) << name << ' ' << value;
    }
}

NETWORK_TEST(Statistics, CountTheRules)
{
    network::Run(
        "nft 'table ip a { chain c { accept; drop; }; }; table inet b { chain d { ip saddr "
        "{ 1.1.1.1, 1.1.1.2 } accept; }; chain e { }; set s { type ipv4_addr; }; }'");
    const driver::Handle handle = driver::Open();
    const Figures figures = FiguresOf(StatisticsText(handle));
    EXPECT_EQ(figures.at("rules.tables"), "2");
    EXPECT_EQ(figures.at("rules.chains"), "3");
    EXPECT_EQ(figures.at("rules.rules"), "3");
    EXPECT_EQ(figures.at("rules.sets"), "2");  // one without a name
    EXPECT_EQ(figures.at("scan.on"), "0");
    ASSERT_EQ(driver::Monitor(handle, VXI_SCAN_INBOUND, 8443), 0);
    const Figures monitored = FiguresOf(StatisticsText(handle));
    EXPECT_EQ(monitored.at("scan.on"), "1");
    EXPECT_EQ(monitored.at("scan.port"), "8443");
    EXPECT_EQ(monitored.at("rules.tables"), "3");
}

NETWORK_TEST(Statistics, TellHowManyInterfacesFindNoSlot)
{
    network::Run("for i in 1 2 3 4 5 6 7 8 9; do ip link add a$i type veth peer name b$i; done");
    const unsigned all = std::stoul(network::Run("tail -n +3 /proc/thread-self/net/dev | wc -l"));
    ASSERT_GT(all, 16u);
    const std::string text = StatisticsText(driver::Open());
    const Figures figures = FiguresOf(text);
    const auto has_slots = [](const auto& figure) { return EndsWith(figure.first, ".ifindex"); };
    EXPECT_EQ(std::count_if(figures.begin(), figures.end(), has_slots), 16);
    const std::string told = "; " + std::to_string((all - 16) * 16) + " items found no slot\n";
    EXPECT_NE(text.find(told), text.npos) << text.substr(0, text.find('\n'));
}

uint32_t Value(const driver::Handle& handle, unsigned number)
{
    vxa_filter_variable_s variable = {};
    EXPECT_EQ(vxi_get_var(handle.get(), number, &variable), 0) << driver::Error(handle);
    EXPECT_EQ(variable.number, number);
    return variable.value;
}

// A setting as its file shows it.
uint32_t FromFile(std::string name)
{
    std::replace(name.begin(), name.end(), '.', '/');
    std::ifstream file("/proc/sys/" + name);
    long long value = 0;
    if (!(file >> value)) {
        return VXA_FILTER_VARIABLE_ABSENT;
    }
    return value > 0xfffffffeLL ? 0xfffffffe : static_cast<uint32_t>(value);
}

NETWORK_TEST(Variables, AllAnswerWithTheKernelsSettings)
{
    network::Run("echo 11 > /proc/sys/net/ipv4/tcp_retries2");
    const driver::Handle handle = driver::Open();
    unsigned settings = 0;
    unsigned present = 0;
    for (unsigned number = 0; number < VXA_FILTER_VARIABLE_COUNT; ++number) {
        const std::string name = vxi::variable_name(number);
        const uint32_t value = Value(handle, number);
        if (name.compare(0, 4, "net.") == 0 && number != vxi::variable_conntrack_count) {
            EXPECT_EQ(value, FromFile(name)) << name;
            ++settings;
            present += value != VXA_FILTER_VARIABLE_ABSENT;
        }
    }
    EXPECT_EQ(settings, 151u);
    EXPECT_GT(present, 100u);
    EXPECT_EQ(Value(handle, 106), 11u);  // net.ipv4.tcp_retries2
    // A setting of the whole machine has no file in another namespace than the first.
    EXPECT_EQ(Value(handle, 166), VXA_FILTER_VARIABLE_ABSENT);
    vxa_filter_variable_s unknown = {173, 5};
    EXPECT_EQ(vxi_get_varv(handle.get(), &unknown), VXI_E_UNKNOWN_VARIABLE);
    EXPECT_EQ(unknown.value, 5u);
}

NETWORK_TEST(Variables, TellAboutTheEngine)
{
    const driver::Handle handle = driver::Open();
    struct stat own = {};
    ASSERT_EQ(stat("/proc/thread-self/ns/net", &own), 0);
    EXPECT_EQ(Value(handle, vxi::variable_scan_on), 0u);
    ASSERT_EQ(driver::Monitor(handle, VXI_SCAN_OUTBOUND, 443), 0);
    const struct {
        unsigned number;
        uint64_t value;
    } rows[] = {{vxi::variable_process_id, static_cast<uint64_t>(getpid())},
                {vxi::variable_network_namespace, own.st_ino},
                {vxi::variable_initial_namespace, 0},
                {vxi::variable_scan_on, 1},
                {vxi::variable_scan_port, 443},
                {vxi::variable_scan_direction, VXI_SCAN_OUTBOUND},
                {vxi::variable_nft_tables, 1}};
    for (const auto& row : rows) {
        EXPECT_EQ(Value(handle, row.number), row.value) << row.number;
    }
    EXPECT_GT(Value(handle, vxi::variable_scan_timeout_s), 60u);
    vxi_capability_s facilities[7];
    ASSERT_EQ(vxi_capabilities(handle.get(), facilities, 7), 7);
    for (unsigned i = 0; i < 7; ++i) {
        EXPECT_EQ(Value(handle, vxi::variable_facility_bits) >> i & 1,
                  static_cast<uint32_t>(facilities[i].available))
            << facilities[i].name;
    }
}

NETWORK_TEST(Variables, OnlyTwoAreWritable)
{
    const driver::Handle handle = driver::Open();
    for (unsigned number = 0; number < VXA_FILTER_VARIABLE_COUNT; ++number) {
        const bool writable =
            number == vxi::variable_trace_level || number == vxi::variable_rule_profiling;
        EXPECT_EQ(vxi_set_var(handle.get(), number, 1), writable ? 0 : -EROFS) << number;
    }
    EXPECT_EQ(driver::Error(handle),
              "engine linux: vxi_set_var: variable 172 (net.core.optmem_max) is not writable");
    EXPECT_EQ(Value(handle, vxi::variable_trace_level), 1u);
    EXPECT_EQ(Value(handle, vxi::variable_rule_profiling), 1u);
    EXPECT_EQ(vxi_set_var(handle.get(), vxi::variable_trace_level, 4), -EINVAL);
    EXPECT_EQ(vxi_set_var(handle.get(), 173, 0), VXI_E_UNKNOWN_VARIABLE);
}

void ExpectWhatAnybodyMayRead(const driver::Handle& handle)
{
    const std::string text = StatisticsText(handle);
    EXPECT_EQ(FiguresOf(text).at("Udp.InDatagrams"), "3");
    EXPECT_EQ(FiguresOf(text).count("rules.tables"), 0u);
    EXPECT_EQ(text.find("# statistics: /proc/net; nf_tables needs CAP_NET_ADMIN (engine linux)"),
              0u);
    for (unsigned number = 0; number < VXA_FILTER_VARIABLE_COUNT; ++number) {
        const bool rules =
            number >= vxi::variable_nft_tables && number <= vxi::variable_blacklist_elements;
        const uint32_t value = Value(handle, number);
        EXPECT_TRUE(!rules || value == VXA_FILTER_VARIABLE_ABSENT) << number;
    }
    EXPECT_EQ(Value(handle, vxi::variable_capability_bits) >> CAP_NET_ADMIN & 1, 0u);
    uint32_t profile_size = 0;
    testing::internal::CaptureStderr();
    EXPECT_EQ(vxi_get_profile_stats(handle.get(), &profile_size), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(profile_size, 0u);
}

void ExpectTheRestRefused(const driver::Handle& handle)
{
    const auto missing = [&](int status) {
        EXPECT_EQ(status, -EPERM);
        const std::string text = driver::Error(handle);
        EXPECT_NE(text.find(": nf_tables needs CAP_NET_ADMIN"), text.npos) << text;
    };
    vxa_blacklist_get_addrs_s list = {};
    driver::Counters unused;
    missing(vxi_get_blacklist(handle.get(), &list));
    missing(driver::Monitor(handle, VXI_SCAN_INBOUND, 443));
    missing(driver::Fetch(handle, VXI_SCAN_INBOUND, 443, unused));
    EXPECT_EQ(vxi_set_var(handle.get(), vxi::variable_rule_profiling, 1), -EPERM);
    EXPECT_EQ(Value(handle, vxi::variable_rule_profiling), 0u);
    vxi_capability_s row;
    EXPECT_EQ(vxi_driver_available(handle.get()), 1);
    EXPECT_EQ(vxi_capabilities(handle.get(), &row, 1), 7);
    EXPECT_STREQ(row.name, "scan-metrics");
    EXPECT_EQ(row.available, 0);
    EXPECT_STREQ(row.detail, "nf_tables needs CAP_NET_ADMIN");
}

TEST(Tables, WithoutPrivilege)
{
    REQUIRE_NETWORK("nft");
    for (const auto drop : {network::BecomeNobody, network::DropNetAdmin}) {
        network::InOwn([drop] {
            network::Run("nft 'table ip a { set blacklist { type ipv4_addr; }; }'");
            traffic::Exchange(traffic::Local(4, 9000), 3);
            drop();
            const driver::Handle handle = driver::Open();
            ExpectWhatAnybodyMayRead(handle);
            ExpectTheRestRefused(handle);
        });
    }
}

}  // namespace
