#pragma once

#include "service/RecordStore.h"

#include <chrono>
#include <mutex>
#include <string>
#include <unordered_map>

// Token buckets by key (an address or a token hash): each key may spend `perMinute` requests at
// once and earns them back evenly over a minute. The buckets live in this process's memory, or,
// for servers that share their records, in the records under the limit's name, where every
// server spends from the same bucket. Safe from any thread.
class RateLimiter
{
public:
    using Clock = std::chrono::steady_clock;

    explicit RateLimiter(int perMinute, std::string name = {},
                         SharedRateCounters *shared = nullptr);

    // True when the request may go ahead (and spends one); false when the key is over its rate.
    // (`now` counts for the buckets in memory; shared ones go by the wall clock.)
    bool allow(const std::string &key, Clock::time_point now = Clock::now());
    // Seconds until the key may send again, for a Retry-After header.
    int retryAfterSeconds() const;

private:
    struct Bucket
    {
        double tokens;
        Clock::time_point updated;
    };

    void forgetIdleLocked(Clock::time_point now);

    const double m_capacity;
    const double m_perSecond;
    const std::string m_name;
    SharedRateCounters *const m_shared;
    std::mutex m_mutex;
    std::unordered_map<std::string, Bucket> m_buckets; // guarded by m_mutex
    Clock::time_point m_lastSweep; // guarded by m_mutex
};
