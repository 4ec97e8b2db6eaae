#pragma once

#include "service/ServiceLimits.h"

#include <optional>
#include <string>
#include <vector>

// The body of a request that makes a pack (a folder of clips): a JSON object holding a "title"
// and the "clip_ids" of the clips, and nothing else. Only its shape is checked here; whether the
// clips exist and whose they are is the route's to find out.
struct PackRequest
{
    std::string title; // cleaned up; empty when the sender left it blank
    std::vector<std::string> clipIds;

    // The request in `body`, or none with `problem` set to the sentence that tells the sender
    // what is wrong with it.
    static std::optional<PackRequest> parse(const std::string &body, const ServiceLimits &limits,
                                            std::string &problem);
};
