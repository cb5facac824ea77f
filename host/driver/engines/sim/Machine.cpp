// Computes load and traffic of the simulated machine.
#include "engines/sim/Machine.h"

#include <algorithm>
#include <cmath>

#include "engines/sim/Random.h"

namespace vxi::sim {

namespace {

// Per CPU. Overloaded crosses every usual threshold, busy none.
constexpr Load kIdle{0.05, 0.5, 0.0, 20e3, 0.80};
constexpr Load kBusy{0.70, 40.0, 0.01, 5e6, 0.45};
constexpr Load kOverloaded{5.0, 300.0, 0.35, 120e6, 0.04};

// Independent draws of one tick.
enum Stream : std::uint64_t {
    kRunQueueStream,
    kMemoryStream,
    kOpenedStream,
    kOpenedRoundingStream,
    kRefusedStream,
    kBytesStream,
};

constexpr double kHeaderBytes = 52.0;  // IPv4 and TCP with timestamps
constexpr double kSegmentBytes = 1448.0;
constexpr double kForwardShare = 0.1;  // requests are small, answers are large

// Interpolates by equal factors, as the load of a draining queue falls.
double Interpolate(double from, double to, double way)
{
    return from * std::pow(to / from, way);
}

Load Recovering(const Moment& moment)
{
    const double way =
        std::min(1.0, static_cast<double>(moment.tick) / static_cast<double>(moment.phase.ticks));
    return {Interpolate(kOverloaded.run_queue, kIdle.run_queue, way),
            Interpolate(kOverloaded.new_per_s, kIdle.new_per_s, way),
            kOverloaded.refused_fraction * (1.0 - way),
            Interpolate(kOverloaded.bytes_per_s, kIdle.bytes_per_s, way),
            Interpolate(kOverloaded.free_memory_fraction, kIdle.free_memory_fraction, way)};
}

Load LoadAt(const Moment& moment)
{
    switch (moment.phase.scenario) {
        case Scenario::kIdle:
            return kIdle;
        case Scenario::kOverloaded:
            return kOverloaded;
        case Scenario::kRecovering:
            return Recovering(moment);
        case Scenario::kBusy:
        case Scenario::kClosing:
        case Scenario::kRestarting:
            break;
    }
    return kBusy;
}

// Returns a factor from 0.9 to 1.1.
double Jitter(const Settings& settings, Stream stream, std::uint64_t tick)
{
    return 0.9 + 0.2 * Fraction(Draw(settings.seed, stream, tick));
}

// Rounds so that the average is right, for rates below one per tick, too.
std::uint64_t RoundRandomly(const Settings& settings, Stream stream, std::uint64_t tick,
                            double amount)
{
    return static_cast<std::uint64_t>(amount + Fraction(Draw(settings.seed, stream, tick)));
}

// One tick's connections and their payload, on all CPUs.
struct Traffic {
    std::uint64_t opened;
    std::uint64_t refused;
    double payload_bytes;

    std::uint64_t Established() const { return opened - refused; }
};

Traffic TrafficAt(const Settings& settings, std::uint64_t tick)
{
    const Moment moment = MomentAt(settings, tick);
    const Load load = LoadAt(moment);
    const double cpu_seconds = static_cast<double>(settings.cpus * settings.interval_s);
    const double connections = load.new_per_s * cpu_seconds * Jitter(settings, kOpenedStream, tick);

    Traffic traffic{};
    traffic.opened = RoundRandomly(settings, kOpenedRoundingStream, tick, connections);
    const double refused = static_cast<double>(traffic.opened) * load.refused_fraction;
    traffic.refused =
        PortClosed(moment)
            ? traffic.opened
            : std::min(traffic.opened, RoundRandomly(settings, kRefusedStream, tick, refused));
    if (traffic.Established() > 0) {
        traffic.payload_bytes =
            load.bytes_per_s * cpu_seconds * Jitter(settings, kBytesStream, tick);
    }
    return traffic;
}

// Adds the packets of one direction: those without payload, and full segments for the payload.
void AddPackets(Counters& counters, unsigned packet_counter, unsigned byte_counter,
                std::uint64_t bare, double payload_bytes)
{
    const double packets = static_cast<double>(bare) + payload_bytes / kSegmentBytes;
    counters[packet_counter] += static_cast<std::uint64_t>(packets);
    counters[byte_counter] += static_cast<std::uint64_t>(payload_bytes + packets * kHeaderBytes);
}

}  // namespace

Moment MomentAt(const Settings& settings, std::uint64_t tick)
{
    const Phase* phase = settings.timeline.data();
    const Phase* const last = phase + settings.timeline.size() - 1;
    for (; phase != last && tick >= phase->ticks; ++phase) {
        tick -= phase->ticks;
    }
    return {*phase, tick};
}

bool PortClosed(const Moment& moment)
{
    return moment.phase.scenario == Scenario::kClosing;
}

bool CountersRestart(const Settings& settings, const Moment& moment)
{
    return moment.phase.scenario == Scenario::kRestarting && moment.tick > 0 &&
           moment.tick % settings.restart_ticks == 0;
}

void AddTraffic(const Settings& settings, std::uint64_t tick, Counters& counters)
{
    const Traffic traffic = TrafficAt(settings, tick);
    const std::uint64_t established = traffic.Established();
    counters[VXI_SCAN_NEW] += traffic.opened;
    counters[VXI_SCAN_CLOSED] += 2 * established + traffic.refused;
    counters[VXI_SCAN_ESTABLISHED] += established;
    counters[VXI_SCAN_HALF_OPEN_CLOSED] += traffic.refused;
    counters[VXI_SCAN_RESET] += established / 50;
    counters[VXI_SCAN_SYN_RETRANSMITTED] += traffic.refused / 10;
    // The client sends SYN, ACK, FIN and ACK; of a refused connection there is only the SYN.
    AddPackets(counters, VXI_SCAN_PACKETS_FORWARD, VXI_SCAN_BYTES_FORWARD,
               traffic.opened + 3 * established, traffic.payload_bytes * kForwardShare);
    AddPackets(counters, VXI_SCAN_PACKETS_BACKWARD, VXI_SCAN_BYTES_BACKWARD,
               traffic.opened + 2 * established, traffic.payload_bytes * (1.0 - kForwardShare));
}

vxi_sim_machine_s MachineAt(const Settings& settings, std::uint64_t tick)
{
    const Load load = LoadAt(MomentAt(settings, tick));
    const double queue = load.run_queue * static_cast<double>(settings.cpus) *
                         Jitter(settings, kRunQueueStream, tick);
    const std::uint64_t total_kb = settings.memory_mb * 1024;
    const double free_kb = static_cast<double>(total_kb) * load.free_memory_fraction *
                           Jitter(settings, kMemoryStream, tick);
    vxi_sim_machine_s machine{};
    machine.tick = tick;
    machine.run_queue_length = std::round(queue * 100.0) / 100.0;  // as uptime prints it
    machine.cpu_count = static_cast<unsigned int>(settings.cpus);
    machine.memory_total_kb = total_kb;
    machine.memory_free_kb = std::min(total_kb, static_cast<std::uint64_t>(free_kb));
    return machine;
}

}  // namespace vxi::sim
