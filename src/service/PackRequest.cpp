#include "service/PackRequest.h"

#include "service/TextRules.h"

#include <nlohmann/json.hpp>

using nlohmann::json;

std::optional<PackRequest> PackRequest::parse(const std::string &body, const ServiceLimits &limits,
                                              std::string &problem)
{
    const json value = json::parse(body, nullptr, false);
    if (value.is_discarded()) {
        problem = "The request body is not valid JSON.";
        return std::nullopt;
    }
    if (!value.is_object()) {
        problem = "The request body must be a JSON object.";
        return std::nullopt;
    }
    for (const auto &[key, field] : value.items()) {
        if (key != "title" && key != "clip_ids") {
            problem = "Unknown field \"" + key + "\".";
            return std::nullopt;
        }
    }
    const auto title = value.find("title");
    if (title == value.end() || !title->is_string()) {
        problem = "\"title\" must be a string.";
        return std::nullopt;
    }
    PackRequest request;
    const std::optional<std::string> cleanTitle = TextRules::cleanLine(title->get<std::string>());
    if (!cleanTitle) {
        problem = "\"title\" is not valid text.";
        return std::nullopt;
    }
    if (TextRules::characterCount(*cleanTitle) > size_t(limits.maxNameCharacters)) {
        problem =
            "The title is longer than " + std::to_string(limits.maxNameCharacters) + " characters.";
        return std::nullopt;
    }
    request.title = *cleanTitle;
    const auto ids = value.find("clip_ids");
    if (ids == value.end() || !ids->is_array()) {
        problem = "\"clip_ids\" must be a list of clip ids.";
        return std::nullopt;
    }
    if (ids->size() > size_t(limits.maxPackClips)) {
        problem = "A folder holds at most " + std::to_string(limits.maxPackClips) + " clips.";
        return std::nullopt;
    }
    for (const json &id : *ids) {
        if (!id.is_string()) {
            problem = "\"clip_ids\" must be a list of clip ids.";
            return std::nullopt;
        }
        request.clipIds.push_back(id.get<std::string>());
    }
    return request;
}
