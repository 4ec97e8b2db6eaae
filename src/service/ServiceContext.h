#pragma once

#include "service/FileStore.h"
#include "service/RateLimiter.h"
#include "service/RecordStore.h"
#include "service/ServiceLimits.h"

#include <semaphore>

class PosterMaker;
#include <string>

// What every route of a running service shares: the stores, the limits and their counters, and
// the address people reach it at.
struct ServiceContext
{
    ServiceContext(RecordStore &records, FileStore &files, const ServiceLimits &limits,
                   std::string publicUrl)
        : records(records)
        , files(files)
        , limits(limits)
        , publicUrl(std::move(publicUrl))
        , devicePolls(limits.devicePollsPerMinute, "device-polls", records.sharedRateCounters())
        , deviceStarts(limits.deviceStartsPerMinute, "device-starts", records.sharedRateCounters())
        , tokenRequests(limits.tokenRequestsPerMinute, "token-requests",
                        records.sharedRateCounters())
        , passwordAttempts(limits.passwordAttemptsPerMinute, "password-attempts",
                           records.sharedRateCounters())
        , accountPasswordAttempts(limits.passwordAttemptsPerAccountPerMinute,
                                  "account-password-attempts", records.sharedRateCounters())
        , devicePages(limits.devicePollsPerMinute, "device-pages", records.sharedRateCounters())
    {
    }

    RecordStore &records;
    FileStore &files;
    const ServiceLimits limits;
    // The public base URL without a trailing slash: "https://clips.example.org".
    const std::string publicUrl;

    RateLimiter devicePolls;
    RateLimiter deviceStarts;
    RateLimiter tokenRequests;
    RateLimiter passwordAttempts; // by client
    RateLimiter accountPasswordAttempts; // by email, in lower case
    // The device page tells a pending code from an unknown one, so guessing there is held to
    // the poll's rate.
    RateLimiter devicePages;
    // Each password check takes 64 MiB for a moment; two at a time keeps a burst of sign-ins
    // from taking the machine's memory.
    std::counting_semaphore<2> passwordChecks {2};
    // Makes new clips' posters after their uploads are answered; none: clips get no poster.
    PosterMaker *posters = nullptr;

    std::string link(const std::string &path) const { return publicUrl + path; }
};

// Unix time in seconds.
int64_t unixNow();
