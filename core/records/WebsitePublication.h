#pragma once

#include "core/support/Date.h"
#include "core/support/JsonReader.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace veltra {

enum class WebsitePublicationState { pending, live, needsAttention };

std::string_view rawValue(WebsitePublicationState state);
std::optional<WebsitePublicationState> websitePublicationState(std::string_view raw);

// Follows one release from pushed to the website until the live site serves it.
struct WebsitePublication {
    WebsitePublicationState state = WebsitePublicationState::pending;
    std::string feedURL;
    std::string downloadURL;
    std::string expectedSignature;
    std::int64_t expectedSize = 0;
    Date pushedAt;
    std::optional<Date> lastCheckedAt;

    bool operator==(const WebsitePublication&) const = default;

    Json toJson() const;
    static WebsitePublication fromJson(const Json& json, const std::string& path);
};

// The release summary's wording for a publication, or for none (website not used or not pushed).
std::string_view websiteStatusText(const std::optional<WebsitePublication>& publication);

} // namespace veltra
