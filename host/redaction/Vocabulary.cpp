// The lists of public words.
#include "redaction/Vocabulary.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <vector>

namespace vxa::redaction {

namespace {

// From the sources, by extract_words.cmake.
constexpr const char* kSourceWords =
#include "source_words.inc"
    ;

// libnftables-json(5) and the constants of nft(8).
constexpr const char* kNftWords = R"(
    nftables metainfo version release_name json_schema_version table chain rule set map flowtable
    counter quota limit helper timeout expectation synproxy secmark meter element elem family name
    handle comment type hook prio policy dev devices ingress egress input forward output
    prerouting postrouting ip ip6 inet arp bridge netdev filter nat route accept drop reject queue
    return continue jump goto target expr match op left right payload protocol field base ll nh th
    ih offset len prefix addr range concat key val data expires packets bytes used inv rate burst
    per second minute hour day week rate_unit burst_unit flags constant interval dynamic
    auto-merge gc-interval size policy performance memory performance l3proto
    meta ct rt fib socket osf numgen jhash symhash exthdr tcp udp udplite sctp dccp esp ah comp
    ether vlan icmp icmpv6 igmp saddr daddr sport dport th proto l4proto nfproto length mark
    priority iif iifname iiftype oif oifname oiftype skuid skgid nftrace rtclassid ibriport
    ibrname obriport obrname ibridgename obridgename pkttype cpu iifgroup oifgroup cgroup random
    ipsec iifkind oifkind sdif sdifname time state direction status expiration helper label
    original reply new established related invalid untracked expected seen-reply assured
    confirmed snat dnat dying masquerade redirect port fully-random persistent dup fwd tproxy
    log group snaplen queue-threshold level emerg alert crit err warn notice info debug audit
    mangle value vmap update add delete snat counter notrack flow offload ipv4_addr ipv6_addr
    ether_addr inet_proto inet_service verdict classid host unicast broadcast multicast anycast
    local blackhole unreachable prohibit echo-request echo-reply destination-unreachable
    source-quench time-exceeded parameter-problem timestamp-request timestamp-reply info-request
    info-reply address-mask-request address-mask-reply router-advertisement router-solicitation
    packet-too-big nd-router-solicit nd-router-advert nd-neighbor-solicit nd-neighbor-advert
    nd-redirect mld-listener-query mld-listener-report mld-listener-done mld2-listener-report
    port-unreachable host-unreachable net-unreachable prot-unreachable admin-prohibited
    host-prohibited net-prohibited no-route addr-unreachable reject-route tcp-reset icmpx
    fin syn rst psh ack urg ecn cwr sequence ackseq doff reserved window checksum urgptr
    hdrlength dscp frag-off ttl hoplimit nexthdr flowlabel id code mtu gateway maxseg sack
    sack-perm timestamp htype hlen plen operation request hash mod seed inc vmap missing exists
    prefixlen masq cgroupv2 wildcard transparent statistics in out not and or xor lshift rshift
    raw srcnat dstnat security first last bucket vid pcp dei cfi day_of_week loopback ipv4 ipv6
    ftp tftp sip irc pptp h323 ras q931 amanda snmp sane rtsp netbios-ns
    nf_proto bitmask integer string ll_addr ether_type arp_op icmp_type icmpv6_type tcp_flag
    dccp_pkttype mh_type iface_index iface_type realm uid gid ct_state ct_dir ct_status ct_label
    ct_event pkt_type icmp_code icmpv6_code icmpx_code devgroup fib_addrtype boolean ifname
    igmp_type cgroupsv2
    lo any all null true false)";

// /etc/os-release, uname(2), paths and the names of capabilities(7).
constexpr const char* kSystemWords = R"(
    linux gnu debian ubuntu fedora rhel red hat enterprise centos stream rocky almalinux alma
    opensuse suse leap tumbleweed sles arch alpine amazon oracle gentoo nixos lts bookworm
    bullseye trixie forky sid buster focal jammy noble bionic server linux-gnu smp preempt
    preempt_dynamic preempt_rt dynamic rt generic cloud lowlatency aws azure gcp kvm amd64 arm64
    x86_64 x86 i386 i686 aarch64 armv7l riscv64 ppc64le s390x el el7 el8 el9 el10 deb11 deb12 deb13
    utc gmt jan feb mar apr may jun jul aug sep oct nov dec mon tue wed thu fri sat sun
    etc var lib run opt usr bin sbin tmp home srv mnt proc sys dev conf csv json jsonl txt log zip
    gz tpf so prom www com org net local localhost localdomain root nobody
    cap_chown cap_dac_override cap_dac_read_search cap_fowner cap_fsetid cap_kill cap_setgid
    cap_setuid cap_setpcap cap_linux_immutable cap_net_bind_service cap_net_broadcast
    cap_net_admin cap_net_raw cap_ipc_lock cap_ipc_owner cap_sys_module cap_sys_rawio
    cap_sys_chroot cap_sys_ptrace cap_sys_pacct cap_sys_admin cap_sys_boot cap_sys_nice
    cap_sys_resource cap_sys_time cap_sys_tty_config cap_mknod cap_lease cap_audit_write
    cap_audit_control cap_setfcap cap_mac_override cap_mac_admin cap_syslog cap_wake_alarm
    cap_block_suspend cap_audit_read cap_perfmon cap_bpf cap_checkpoint_restore)";

constexpr std::string_view kConventional[] = {"filter",     "nat",         "mangle",  "raw",
                                              "security",   "input",       "output",  "forward",
                                              "prerouting", "postrouting", "ingress", "egress"};

char Lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c;
}

bool IsWordCharacter(char c)
{
    return (c >= '0' && c <= '9') || (Lower(c) >= 'a' && Lower(c) <= 'z') || c == '_' || c == '-';
}

bool IsEqual(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(),
                                              [](char c, char d) { return Lower(c) == Lower(d); });
}

// A hash table that is never changed: nearly every word of a package is looked up. Who chooses the
// words of a package does not choose those in the table, so a search ends soon.
class Words {
public:
    Words()
    {
        Add(kSourceWords);
        Add(kNftWords);
        Add(kSystemWords);
        constexpr int kMostErrors = 134;  // EHWPOISON is 133
        for (int error = 1; error < kMostErrors; ++error) Add(strerrordesc_np(error));
    }

    bool Has(std::string_view word) const { return !m_slots[Find(word)].empty(); }

private:
    static constexpr std::size_t kSlots = 32768;
    static constexpr std::size_t kMostWords = kSlots / 4;

    // Returns the word's slot, or the empty one where it would be.
    std::size_t Find(std::string_view word) const
    {
        std::uint32_t hash = 2166136261;  // FNV-1a
        for (const char c : word) hash = (hash ^ static_cast<unsigned char>(Lower(c))) * 16777619;
        std::size_t slot = (hash ^ hash >> 15) % kSlots;
        while (!m_slots[slot].empty() && !IsEqual(m_slots[slot], word)) slot = (slot + 1) % kSlots;
        return slot;
    }

    // The text must outlive the table.
    void Add(const char* text)
    {
        if (!text) return;
        const std::string_view rest = text;
        for (std::size_t at = 0; at < rest.size();) {
            std::size_t end = at;
            while (end < rest.size() && IsWordCharacter(rest[end])) ++end;
            if (end > at && m_count < kMostWords) {
                std::string_view& slot = m_slots[Find(rest.substr(at, end - at))];
                m_count += slot.empty();
                slot = rest.substr(at, end - at);
            }
            at = end + 1;
        }
    }

    std::vector<std::string_view> m_slots = std::vector<std::string_view>(kSlots);
    std::size_t m_count = 0;
};

}  // namespace

bool IsPublicWord(std::string_view word)
{
    static const Words kWords;
    return kWords.Has(word);
}

bool IsConventionalName(std::string_view name)
{
    return std::any_of(std::begin(kConventional), std::end(kConventional),
                       [&](std::string_view each) { return IsEqual(each, name); });
}

}  // namespace vxa::redaction
