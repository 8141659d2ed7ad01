#include "WebsitePublication.h"

#include "core/support/EnumNames.h"

namespace veltra {

namespace {

constexpr EnumNames<WebsitePublicationState, 3> stateNames{{
    {WebsitePublicationState::pending, "pending"},
    {WebsitePublicationState::live, "live"},
    {WebsitePublicationState::needsAttention, "needsAttention"},
}};

} // namespace

std::string_view rawValue(WebsitePublicationState state) {
    return nameOf(stateNames, state);
}

std::optional<WebsitePublicationState> websitePublicationState(std::string_view raw) {
    return valueOf(stateNames, raw);
}

Json WebsitePublication::toJson() const {
    Json json = Json::object();
    json["state"] = rawValue(state);
    json["feedURL"] = feedURL;
    json["downloadURL"] = downloadURL;
    json["expectedSignature"] = expectedSignature;
    json["expectedSize"] = expectedSize;
    json["pushedAt"] = pushedAt.secondsSinceReferenceDate;
    if (lastCheckedAt) {
        json["lastCheckedAt"] = lastCheckedAt->secondsSinceReferenceDate;
    }
    return json;
}

WebsitePublication WebsitePublication::fromJson(const Json& json, const std::string& path) {
    const JsonReader reader(json, path);
    WebsitePublication publication;
    const auto state = reader.string("state");
    const auto parsed = websitePublicationState(state);
    if (!parsed) {
        throw JsonDecodingError(reader.pathOf("state"), "unknown value \"" + state + "\"");
    }
    publication.state = *parsed;
    publication.feedURL = reader.string("feedURL");
    publication.downloadURL = reader.string("downloadURL");
    publication.expectedSignature = reader.string("expectedSignature");
    publication.expectedSize = reader.integer("expectedSize");
    publication.pushedAt = reader.date("pushedAt");
    publication.lastCheckedAt = reader.optionalDate("lastCheckedAt");
    return publication;
}

std::string_view websiteStatusText(const std::optional<WebsitePublication>& publication) {
    if (!publication) {
        return "Website publication was not confirmed";
    }
    switch (publication->state) {
    case WebsitePublicationState::pending:
        return "Publishing; live files not confirmed";
    case WebsitePublicationState::live:
        return "Live appcast.xml and DMG verified";
    case WebsitePublicationState::needsAttention:
        return "Uploaded; live website needs checking";
    }
    return "Website publication was not confirmed";
}

} // namespace veltra
