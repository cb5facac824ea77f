/* Records exchanged with the driver through the driver-interface library.
 *
 * All integers are little-endian and naturally aligned; every layout is part of
 * the library's binary interface, so sizes and offsets are asserted below.
 * Addresses are in network byte order; an IPv4 address fills the first 4 bytes
 * of its field and the rest is zero.
 */
#ifndef VXI_RECORDS_H
#define VXI_RECORDS_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- text dumps -------------------------------------------------------- */

/* Where the tb_dump_* routines write. The caller fills it in; a routine calls
 * `print`, printf-style with the sink as first argument, any number of times.
 * Each call prints at most 1023 characters of pure ASCII. The routine keeps no
 * pointer to the sink. */
typedef struct tb_dump_s {
    void (*print)(struct tb_dump_s* sink, char const* format, ...);
    void* context; /* for the caller; the library does not use it */
} tb_dump_s;

/* ---- statistics -------------------------------------------------------- */

enum {
    VXA_STATS_AREA1_COUNT = 208, /* 64-bit slots of the first body area */
    VXA_STATS_AREA2_COUNT = 30,
    VXA_STATS_AREA3_COUNT = 555
};

/* Points into itself: the caller sets area1..area3 to the record's own bodies, so
 * a prepared record must not be moved. The library fills the areas through these
 * pointers and leaves the identification words as they are: a changed word means
 * that the driver uses another layout. */
typedef struct vxa_stats_v2_s {
    uint32_t request;           /* 12 */
    uint32_t revision;          /* 6 */
    uint32_t status;            /* 0 */
    uint32_t declared_size;     /* 6444: the driver's own size of the block, not sizeof */
    uint32_t block_count;       /* 1 */
    uint32_t header_size;       /* 64 */
    uint16_t identification[3]; /* 275, 30, 1 */
    uint16_t word_size;         /* 32 */
    uint64_t reserved;          /* 0 */
    uint64_t* area1;
    uint64_t* area2;
    uint64_t* area3;
    uint64_t body1[VXA_STATS_AREA1_COUNT];
    uint64_t body2[VXA_STATS_AREA2_COUNT];
    uint64_t body3[VXA_STATS_AREA3_COUNT];
} vxa_stats_v2_s;

static_assert(sizeof(vxa_stats_v2_s) == 6408, "statistics block");
static_assert(offsetof(vxa_stats_v2_s, identification) == 24, "statistics identification");
static_assert(offsetof(vxa_stats_v2_s, area1) == 40, "statistics area pointers");
static_assert(offsetof(vxa_stats_v2_s, body1) == 64, "statistics area 1");
static_assert(offsetof(vxa_stats_v2_s, body2) == 1728, "statistics area 2");
static_assert(offsetof(vxa_stats_v2_s, body3) == 1968, "statistics area 3");

/* ---- connection tracking ----------------------------------------------- */

enum { VXA_CONNTRACK_REQUEST_TABLE = 3 };

/* Flags of vxa_conntrack_entry_s.flags. */
enum {
    VXA_FLOW_SEEN_REPLY = 1,
    VXA_FLOW_ASSURED = 2,
    VXA_FLOW_SNAT = 4,
    VXA_FLOW_DNAT = 8,
    VXA_FLOW_OFFLOADED = 16,
    VXA_FLOW_COUNTERS_VALID = 32, /* packet and byte counts are kept for this flow */
    VXA_FLOW_FROM_SOCK_DIAG = 64  /* a socket of this host, not a conntrack entry: counts are
                                     TCP segments and payload bytes, timeout 0 means none */
};

typedef struct vxa_conntrack_entry_s {
    uint8_t source[16];
    uint8_t destination[16];
    uint8_t source_port[2]; /* network byte order */
    uint8_t destination_port[2];
    uint8_t family;    /* 4 or 6 */
    uint8_t tcp_state; /* TCP_CONNTRACK_* of <linux/netfilter/nf_conntrack_tcp.h>; 0 for UDP */
    uint8_t flags;     /* VXA_FLOW_* */
    uint8_t reserved;
    uint32_t timeout_s; /* until the kernel forgets the flow */
    uint32_t mark;
    uint32_t packets_forward; /* saturating */
    uint32_t packets_backward;
    uint64_t bytes_forward;
    uint64_t bytes_backward;
} vxa_conntrack_entry_s;

static_assert(sizeof(vxa_conntrack_entry_s) == 72, "conntrack entry");
static_assert(offsetof(vxa_conntrack_entry_s, family) == 36, "conntrack entry");
static_assert(offsetof(vxa_conntrack_entry_s, timeout_s) == 40, "conntrack entry");
static_assert(offsetof(vxa_conntrack_entry_s, bytes_forward) == 56, "conntrack entry");

/* Header of one section; its entries follow immediately. */
typedef struct vxa_dump_conntrack_s {
    uint32_t request;  /* VXA_CONNTRACK_REQUEST_TABLE */
    uint16_t entry_ct; /* count request: flows out. Fill request: capacity in, filled out */
    uint16_t reserved;
    uint32_t total;   /* fill request, out: flows of this protocol that exist */
    uint8_t protocol; /* 0: count request; 17 UDP, 6 TCP: fill request */
    uint8_t unused[3];
} vxa_dump_conntrack_s;

static_assert(sizeof(vxa_dump_conntrack_s) == 16, "conntrack section header");
static_assert(offsetof(vxa_dump_conntrack_s, total) == 8, "conntrack section header");

/* ---- blacklist --------------------------------------------------------- */

typedef struct vxa_blacklist_get_addrs_s {
    uint32_t reserved[8];
    uint32_t snapshot;     /* size request: 0 in; the fill request must pass what it returns,
                              which distinguishes filling an empty list from a size request */
    uint32_t entries_size; /* bytes after the header. Size request: out. Fill request: capacity
                              in, bytes used out */
    uint32_t set_count;    /* kernel sets that the entries come from, out */
} vxa_blacklist_get_addrs_s;

static_assert(sizeof(vxa_blacklist_get_addrs_s) == 44, "blacklist header");
static_assert(offsetof(vxa_blacklist_get_addrs_s, snapshot) == 32, "blacklist header");
static_assert(offsetof(vxa_blacklist_get_addrs_s, entries_size) == 36, "blacklist header");

enum {
    VXA_BLACKLIST_RANGE = 1,  /* `last` differs from `address` */
    VXA_BLACKLIST_TIMEOUT = 2 /* the entry expires */
};

typedef struct vxa_blacklist_entry_s {
    uint8_t address[16];
    uint8_t last[16]; /* last address of a range, inclusive; equals address otherwise */
    uint8_t family;   /* 4 or 6 */
    uint8_t flags;    /* VXA_BLACKLIST_* */
    uint16_t set_index;
    uint32_t timeout_s;
    uint32_t expires_s;
    uint32_t reserved;
} vxa_blacklist_entry_s;

static_assert(sizeof(vxa_blacklist_entry_s) == 48, "blacklist entry");

/* ---- connection states ------------------------------------------------- */

/* Socket counts by family and TCP state (TCP_ESTABLISHED.. of <netinet/tcp.h>;
 * index 0 is unused). A socket with IPv4-mapped addresses counts as IPv6. */
typedef struct vxa_get_conn_states_s {
    uint32_t version; /* 1 */
    uint32_t count;   /* all sockets */
    uint64_t tcp4[16];
    uint64_t tcp6[16];
    uint64_t udp4;
    uint64_t udp6;
} vxa_get_conn_states_s;

static_assert(sizeof(vxa_get_conn_states_s) == 280, "connection states");

/* ---- filter variables -------------------------------------------------- */

enum {
    VXA_FILTER_VARIABLE_COUNT = 173, /* numbers 0 to 172 */
    VXA_FILTER_VARIABLE_RULE_PROFILING = 62,
};
/* The value of a variable that this kernel does not have. Values as large as this
 * or larger, and negative ones, read as one less. */
#define VXA_FILTER_VARIABLE_ABSENT 0xffffffffu

typedef struct vxa_filter_variable_s {
    uint32_t number;
    uint32_t value;
} vxa_filter_variable_s;

static_assert(sizeof(vxa_filter_variable_s) == 8, "filter variable");

/* ---- scan monitoring --------------------------------------------------- */

enum { VXI_SCAN_INBOUND = 1, VXI_SCAN_OUTBOUND = 2 };

/* Which ports to count: port p is bit (p mod 32) of word (p / 32). */
typedef struct scan_monitor_config {
    uint32_t version; /* 1 */
    uint32_t reserved;
    uint32_t inbound[2048];
    uint32_t outbound[2048];
} scan_monitor_config;

static_assert(sizeof(scan_monitor_config) == 16392, "scan configuration");
static_assert(offsetof(scan_monitor_config, outbound) == 8200, "scan configuration");

/* Index of each counter in an entry of scan_metrics_request. All are totals
 * since the port was configured. They only grow, until they restart at 0: with
 * another configuration, or when another program removes or resets the counting
 * rules. */
enum {
    VXI_SCAN_NEW = 0,              /* connections opened (first SYN) */
    VXI_SCAN_CLOSED = 1,           /* approximate: FIN and RST segments */
    VXI_SCAN_ESTABLISHED = 2,      /* handshakes completed */
    VXI_SCAN_HALF_OPEN_CLOSED = 3, /* opened, but refused, reset or timed out */
    VXI_SCAN_RESET = 4,            /* RST segments outside a handshake */
    VXI_SCAN_SYN_RETRANSMITTED = 5,
    VXI_SCAN_BYTES_FORWARD = 6, /* towards the port's owner; layer-3 lengths */
    VXI_SCAN_BYTES_BACKWARD = 7,
    VXI_SCAN_PACKETS_FORWARD = 8,
    VXI_SCAN_PACKETS_BACKWARD = 9,
    VXI_SCAN_COUNTERS = 10,
    VXI_SCAN_ENTRY_SLOTS = 16 /* counters from one entry to the next: 128 bytes */
};

/* 192 bytes: room for the counters of one entry. */
typedef struct scan_metrics_request {
    uint32_t version;   /* 1 */
    uint32_t direction; /* VXI_SCAN_INBOUND or VXI_SCAN_OUTBOUND */
    uint16_t port;
    uint16_t reserved1;
    uint32_t counters; /* per entry: wanted in, delivered out */
    uint32_t reserved2;
    uint32_t entries; /* wanted in, delivered out */
    uint8_t reserved3[48];
    uint64_t counter[15]; /* entry 0; the first `counters` are meaningful */
} scan_metrics_request;

static_assert(sizeof(scan_metrics_request) == 192, "scan request");
static_assert(offsetof(scan_metrics_request, counters) == 12, "scan request");
static_assert(offsetof(scan_metrics_request, entries) == 20, "scan request");
static_assert(offsetof(scan_metrics_request, counter) == 72, "scan request");

#ifdef __cplusplus
}
#endif

#endif
