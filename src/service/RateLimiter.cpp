#include "service/RateLimiter.h"

#include <algorithm>
#include <cmath>

RateLimiter::RateLimiter(int perMinute, std::string name, SharedRateCounters *shared)
    : m_capacity(std::max(1, perMinute))
    , m_perSecond(std::max(1, perMinute) / 60.0)
    , m_name(std::move(name))
    , m_shared(shared)
{
}

bool RateLimiter::allow(const std::string &key, Clock::time_point now)
{
    if (m_shared)
        return m_shared->take(m_name, key, m_capacity, m_perSecond);
    std::scoped_lock lock(m_mutex);
    forgetIdleLocked(now);
    auto [it, added] = m_buckets.try_emplace(key, Bucket {m_capacity, now});
    Bucket &bucket = it->second;
    if (!added) {
        const double seconds = std::chrono::duration<double>(now - bucket.updated).count();
        bucket.tokens = std::min(m_capacity, bucket.tokens + std::max(0.0, seconds) * m_perSecond);
        bucket.updated = now;
    }
    if (bucket.tokens < 1.0)
        return false;
    bucket.tokens -= 1.0;
    return true;
}

int RateLimiter::retryAfterSeconds() const
{
    return static_cast<int>(std::ceil(1.0 / m_perSecond));
}

void RateLimiter::forgetIdleLocked(Clock::time_point now)
{
    // A bucket untouched for a minute is full again, the same as no bucket: dropping those keeps
    // the map as small as the set of recent clients.
    if (now - m_lastSweep < std::chrono::minutes(1))
        return;
    m_lastSweep = now;
    std::erase_if(m_buckets, [&](const auto &entry) {
        return now - entry.second.updated >= std::chrono::minutes(1);
    });
}
