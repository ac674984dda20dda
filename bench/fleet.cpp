// Fleet simulation: many devices enrolling through an outage, timed with the daemon's own
// retry arithmetic (RetryPolicy), to size the enrollment server for the recovery.
//
// Each device runs the daemon's retry timer: at each firing it arms the next one
// (base + jitter growing with the doubling multiplier, capped at one day, spaced from the
// previous request) and then sends "/initiate". An attempt succeeds when the network is up,
// the server is up and, with a capacity, the server still has room in that second;
// success ends the device's timer. Time advances in whole seconds, like the daemon's timers.

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "RetryPolicy.h"

namespace {

struct Config {
    unsigned long devices = 1000000;
    unsigned long base = 60;           // the daemon's default base retry interval
    unsigned long boot_spread = 3600;  // first attempts spread over this many seconds
    unsigned long outage_hours = 6;    // the outage starts with the first attempts
    unsigned long capacity = 0;        // "/initiate" answered per second; 0: unlimited
    unsigned long seed = 1;
};

enum class Outage { Server, Network };

struct Result {
    unsigned peak = 0;          // "/initiate" per second at the server after recovery
    int64_t peak_at = 0;        // seconds after recovery
    uint64_t first_minute = 0;  // "/initiate" in the first minute after recovery
    int64_t p99 = -1;           // seconds from recovery to 99% enrolled; -1: not within
    uint64_t attempts = 0;      // attempts of all devices, failed ones included
};

class Fleet {
  public:
    Fleet(const Config& config, Outage outage)
        : cfg(config),
          kind(outage),
          recovery(int64_t(config.outage_hours) * 3600),
          horizon(recovery + 7 * 86400),
          rng(config.seed),
          multiplier(config.devices, 1.0),
          request_start(config.devices, INT64_MIN / 2),
          next_fire(config.devices, -1),
          buckets(horizon + 1),
          hits(horizon + 1, 0) {}

    Result run() {
        std::uniform_int_distribution<unsigned long> boot(1, cfg.boot_spread);
        for (unsigned d = 0; d < cfg.devices; ++d)
            arm(d, boot(rng));
        Result result;
        uint64_t enrolled = 0;
        const uint64_t target = (uint64_t(cfg.devices) * 99 + 99) / 100;
        for (now = 0; now <= horizon; ++now) {
            if (now == recovery && kind == Outage::Network)
                network_available();
            // Handlers may add to the current second (idle sources), so index, not iterate.
            for (size_t i = 0; i < buckets[now].size(); ++i) {
                const unsigned d = buckets[now][i];
                if (next_fire[d] != now)
                    continue;  // stale: re-armed since, or already fired
                next_fire[d] = -1;
                enrolled += handle_retry_timeout(d, result);
            }
            std::vector<unsigned>().swap(buckets[now]);
            if (now >= recovery) {
                if (hits[now] > result.peak) {
                    result.peak = hits[now];
                    result.peak_at = now - recovery;
                }
                if (now < recovery + 60)
                    result.first_minute += hits[now];
                if (result.p99 < 0 && enrolled >= target)
                    result.p99 = now - recovery;
            }
            if (enrolled == cfg.devices)
                break;
        }
        return result;
    }

  private:
    // Enroller::schedule_retry: the spaced delay, as a timeout or (0) an idle source.
    void schedule_retry(unsigned d, unsigned delay) {
        const gint64 elapsed_us = (now - request_start[d]) * G_USEC_PER_SEC;
        arm(d, now + RetryPolicy::spaced_delay(delay, static_cast<unsigned>(cfg.base), elapsed_us));
    }

    void arm(unsigned d, int64_t when) {
        next_fire[d] = when;
        if (when <= horizon)
            buckets[when].push_back(d);
    }

    // Enroller::handle_retry_timeout; returns 1 when the attempt enrolled the device.
    unsigned handle_retry_timeout(unsigned d, Result& result) {
        const unsigned next = RetryPolicy::backoff_step(
            static_cast<unsigned>(cfg.base), &multiplier[d], [this](double begin, double end) {
                return std::uniform_real_distribution<double>(begin, end)(rng);
            });
        schedule_retry(d, next);
        return initiate(d, result);
    }

    unsigned initiate(unsigned d, Result& result) {
        ++result.attempts;
        request_start[d] = now;
        if (kind == Outage::Network && now < recovery)
            return 0;  // never reaches the server
        ++hits[now];
        if (kind == Outage::Server && now < recovery)
            return 0;
        if (cfg.capacity && hits[now] > cfg.capacity)
            return 0;       // refused; the armed retry takes over
        next_fire[d] = -1;  // enrolled: the retry source is removed
        return 1;
    }

    // Enroller::network_available for every device at once: back-off reset and an attempt
    // as soon as the spacing allows.
    void network_available() {
        for (unsigned d = 0; d < cfg.devices; ++d) {
            if (next_fire[d] < 0)
                continue;  // enrolled
            multiplier[d] = 1.0;
            schedule_retry(d, 0);
        }
    }

    const Config& cfg;
    const Outage kind;
    const int64_t recovery;
    const int64_t horizon;
    std::mt19937_64 rng;
    int64_t now = 0;
    std::vector<double> multiplier;
    std::vector<int64_t> request_start;
    std::vector<int64_t> next_fire;  // -1: no retry armed (enrolled)
    std::vector<std::vector<unsigned>> buckets;
    std::vector<unsigned> hits;
};

std::string duration(int64_t secs) {
    if (secs < 0)
        return "not within a week";
    char text[64];
    if (secs < 120)
        std::snprintf(text, sizeof text, "%" PRId64 " s", secs);
    else if (secs < 7200)
        std::snprintf(text, sizeof text, "%.1f min", secs / 60.0);
    else
        std::snprintf(text, sizeof text, "%.1f h", secs / 3600.0);
    return text;
}

// Options of the form --name=N, N a decimal number.
bool parse(int argc, char** argv, Config& cfg) {
    const struct {
        const char* name;
        unsigned long* field;
    } options[] = {{"--devices=", &cfg.devices},         {"--base=", &cfg.base},
                   {"--boot-spread=", &cfg.boot_spread}, {"--outage-hours=", &cfg.outage_hours},
                   {"--capacity=", &cfg.capacity},       {"--seed=", &cfg.seed}};
    for (int i = 1; i < argc; ++i) {
        bool known = false;
        for (const auto& option : options) {
            const size_t length = std::strlen(option.name);
            if (std::strncmp(argv[i], option.name, length) != 0)
                continue;
            const char* text = argv[i] + length;
            char* end = nullptr;
            *option.field = std::strtoul(text, &end, 10);
            if (end == text || *end || *text == '-')
                return false;
            known = true;
        }
        if (!known)
            return false;
    }
    return cfg.devices > 0 && cfg.devices <= 10000000 && cfg.base > 0 && cfg.base <= 86400 &&
           cfg.boot_spread > 0 && cfg.boot_spread <= 86400 && cfg.outage_hours <= 240;
}

}  // namespace

int main(int argc, char** argv) {
    Config cfg;
    if (!parse(argc, argv, cfg)) {
        std::fprintf(stderr,
                     "usage: fleet [--devices=N] [--base=SECS] [--boot-spread=SECS] "
                     "[--outage-hours=H] [--capacity=PER_SEC] [--seed=N]\n");
        return 2;
    }
    std::printf(
        "%lu devices, base retry %lu s, first attempts over %lu s, outage %lu h from the "
        "start, capacity %s, seed %lu\n\n",
        cfg.devices, cfg.base, cfg.boot_spread, cfg.outage_hours,
        cfg.capacity ? (std::to_string(cfg.capacity) + " /initiate per s").c_str() : "unlimited",
        cfg.seed);
    std::printf("%-24s %12s %10s %14s %16s %12s\n", "after recovery from", "peak req/s", "peak at",
                "first minute", "99% enrolled in", "attempts");
    for (const Outage kind : {Outage::Server, Outage::Network}) {
        const Result r = Fleet(cfg, kind).run();
        std::printf("%-24s %12u %10s %14" PRIu64 " %16s %12" PRIu64 "\n",
                    kind == Outage::Server ? "server outage" : "regional network outage", r.peak,
                    duration(r.peak_at).c_str(), r.first_minute, duration(r.p99).c_str(),
                    r.attempts);
    }
    return 0;
}
