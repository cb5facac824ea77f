#include "engines/sim/Machine.h"

#include <algorithm>
#include <cmath>

#include "engines/sim/Random.h"

namespace vxi::sim {

namespace {

// By CPU. Overloaded crosses every usual threshold, busy none.
constexpr Load idle{0.05, 0.5, 0.0, 20e3, 0.80};
constexpr Load busy{0.70, 40.0, 0.01, 5e6, 0.45};
constexpr Load overloaded{5.0, 300.0, 0.35, 120e6, 0.04};

// Independent draws of one tick.
enum Stream : std::uint64_t {
    run_queue_stream,
    memory_stream,
    opened_stream,
    opened_rounding_stream,
    refused_stream,
    bytes_stream,
};

constexpr double header_bytes = 52.0;  // IPv4 and TCP with timestamps
constexpr double segment_bytes = 1448.0;
constexpr double forward_share = 0.1;  // requests are small, answers are large

// Load falls by equal factors, as a queue that drains does.
double between(double from, double to, double way)
{
    return from * std::pow(to / from, way);
}

Load recovering(const Moment& moment)
{
    const double way =
        std::min(1.0, static_cast<double>(moment.tick) / static_cast<double>(moment.phase.ticks));
    return {between(overloaded.run_queue, idle.run_queue, way),
            between(overloaded.new_per_s, idle.new_per_s, way),
            overloaded.refused_fraction * (1.0 - way),
            between(overloaded.bytes_per_s, idle.bytes_per_s, way),
            between(overloaded.free_memory_fraction, idle.free_memory_fraction, way)};
}

Load load_at(const Moment& moment)
{
    switch (moment.phase.scenario) {
        case Scenario::idle:
            return idle;
        case Scenario::overloaded:
            return overloaded;
        case Scenario::recovering:
            return recovering(moment);
        case Scenario::busy:
        case Scenario::closing:
        case Scenario::restarting:
            break;
    }
    return busy;
}

// A tenth up or down.
double jitter(const Settings& settings, Stream stream, std::uint64_t tick)
{
    return 0.9 + 0.2 * fraction(draw(settings.seed, stream, tick));
}

// Whole, and right on average for rates below one a tick too.
std::uint64_t whole(const Settings& settings, Stream stream, std::uint64_t tick, double amount)
{
    return static_cast<std::uint64_t>(amount + fraction(draw(settings.seed, stream, tick)));
}

// One tick's connections and what they carry, on all CPUs.
struct Traffic {
    std::uint64_t opened;
    std::uint64_t refused;
    double payload_bytes;

    std::uint64_t established() const { return opened - refused; }
};

Traffic traffic_at(const Settings& settings, std::uint64_t tick)
{
    const Moment moment = moment_at(settings, tick);
    const Load load = load_at(moment);
    const double cpu_seconds = static_cast<double>(settings.cpus * settings.interval_s);
    const double connections = load.new_per_s * cpu_seconds * jitter(settings, opened_stream, tick);

    Traffic traffic{};
    traffic.opened = whole(settings, opened_rounding_stream, tick, connections);
    const double refused = static_cast<double>(traffic.opened) * load.refused_fraction;
    traffic.refused =
        port_closed(moment)
            ? traffic.opened
            : std::min(traffic.opened, whole(settings, refused_stream, tick, refused));
    if (traffic.established() > 0) {
        traffic.payload_bytes =
            load.bytes_per_s * cpu_seconds * jitter(settings, bytes_stream, tick);
    }
    return traffic;
}

// Packets of one direction: those without payload, and full segments for the payload.
void add_packets(Counters& counters, unsigned packet_counter, unsigned byte_counter,
                 std::uint64_t bare, double payload_bytes)
{
    const double packets = static_cast<double>(bare) + payload_bytes / segment_bytes;
    counters[packet_counter] += static_cast<std::uint64_t>(packets);
    counters[byte_counter] += static_cast<std::uint64_t>(payload_bytes + packets * header_bytes);
}

}  // namespace

Moment moment_at(const Settings& settings, std::uint64_t tick)
{
    const Phase* phase = settings.timeline.data();
    const Phase* const last = phase + settings.timeline.size() - 1;
    for (; phase != last && tick >= phase->ticks; ++phase) {
        tick -= phase->ticks;
    }
    return {*phase, tick};
}

bool port_closed(const Moment& moment)
{
    return moment.phase.scenario == Scenario::closing;
}

bool counters_restart(const Settings& settings, const Moment& moment)
{
    return moment.phase.scenario == Scenario::restarting && moment.tick > 0 &&
           moment.tick % settings.restart_ticks == 0;
}

void add_traffic(const Settings& settings, std::uint64_t tick, Counters& counters)
{
    const Traffic traffic = traffic_at(settings, tick);
    const std::uint64_t established = traffic.established();
    counters[VXI_SCAN_NEW] += traffic.opened;
    counters[VXI_SCAN_CLOSED] += 2 * established + traffic.refused;
    counters[VXI_SCAN_ESTABLISHED] += established;
    counters[VXI_SCAN_HALF_OPEN_CLOSED] += traffic.refused;
    counters[VXI_SCAN_RESET] += established / 50;
    counters[VXI_SCAN_SYN_RETRANSMITTED] += traffic.refused / 10;
    // The opener sends SYN, ACK and FIN with its ACK; a SYN that is refused is all there is.
    add_packets(counters, VXI_SCAN_PACKETS_FORWARD, VXI_SCAN_BYTES_FORWARD,
                traffic.opened + 3 * established, traffic.payload_bytes * forward_share);
    add_packets(counters, VXI_SCAN_PACKETS_BACKWARD, VXI_SCAN_BYTES_BACKWARD,
                traffic.opened + 2 * established, traffic.payload_bytes * (1.0 - forward_share));
}

vxi_sim_machine_s machine_at(const Settings& settings, std::uint64_t tick)
{
    const Load load = load_at(moment_at(settings, tick));
    const double queue = load.run_queue * static_cast<double>(settings.cpus) *
                         jitter(settings, run_queue_stream, tick);
    const std::uint64_t total_kb = settings.memory_mb * 1024;
    const double free_kb = static_cast<double>(total_kb) * load.free_memory_fraction *
                           jitter(settings, memory_stream, tick);
    vxi_sim_machine_s machine{};
    machine.tick = tick;
    machine.run_queue_length = std::round(queue * 100.0) / 100.0;  // as uptime prints it
    machine.cpu_count = static_cast<unsigned int>(settings.cpus);
    machine.memory_total_kb = total_kb;
    machine.memory_free_kb = std::min(total_kb, static_cast<std::uint64_t>(free_kb));
    return machine;
}

}  // namespace vxi::sim
