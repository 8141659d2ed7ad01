#include "FeedControls.h"

#include <charconv>
#include <limits>

#include <fmt/format.h>

namespace veltra {
namespace {

constexpr std::pair<char, std::int64_t> units[] = {
    {'w', 604800}, {'d', 86400}, {'h', 3600}, {'m', 60}, {'s', 1}};

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

} // namespace

std::string FeedControls::summary() const {
    std::string text;
    const auto add = [&text](const std::string& part) {
        text += (text.empty() ? "" : ", ") + part;
    };
    if (!channel.empty()) {
        add("channel " + channel);
    }
    if (critical) {
        add(criticalBelow.empty() ? std::string("critical") : "critical below " + criticalBelow);
    }
    if (phasedRolloutSeconds) {
        add("phased rollout " + feedControls::durationText(*phasedRolloutSeconds));
    }
    if (!minimumAutoupdateVersion.empty()) {
        add("automatic from " + minimumAutoupdateVersion);
    }
    return text;
}

Json FeedControls::toJson() const {
    Json json = Json::object();
    if (!channel.empty()) {
        json["channel"] = channel;
    }
    if (critical) {
        json["critical"] = true;
    }
    if (!criticalBelow.empty()) {
        json["criticalBelow"] = criticalBelow;
    }
    if (phasedRolloutSeconds) {
        json["phasedRolloutSeconds"] = *phasedRolloutSeconds;
    }
    if (!minimumAutoupdateVersion.empty()) {
        json["minimumAutoupdateVersion"] = minimumAutoupdateVersion;
    }
    return json;
}

FeedControls FeedControls::fromJson(const Json& json, const std::string& path) {
    const JsonReader reader(json, path);
    FeedControls controls;
    controls.channel = reader.optionalString("channel").value_or("");
    controls.critical = reader.optionalBoolean("critical").value_or(false);
    controls.criticalBelow = reader.optionalString("criticalBelow").value_or("");
    if (reader.find("phasedRolloutSeconds") != nullptr) {
        controls.phasedRolloutSeconds = reader.integer("phasedRolloutSeconds");
    }
    controls.minimumAutoupdateVersion =
        reader.optionalString("minimumAutoupdateVersion").value_or("");
    return controls;
}

namespace feedControls {

std::expected<FeedControls, std::string> fromTyped(const Typed& typed) {
    const auto refused = [](std::string_view option, const std::string& value,
                            const std::string& why) {
        return std::unexpected(fmt::format("--{} '{}' cannot be used: {}.", option, value, why));
    };
    FeedControls controls;
    if (!typed.channel.empty()) {
        if (const auto problem = channelProblem(typed.channel)) {
            return refused("channel", typed.channel, *problem);
        }
        controls.channel = typed.channel;
    }
    for (const auto& [option, value] :
         {std::pair{"critical-below", &typed.criticalBelow},
          std::pair{"minimum-autoupdate", &typed.minimumAutoupdate}}) {
        if (!value->empty()) {
            if (const auto problem = buildProblem(*value)) {
                return refused(option, *value, *problem);
            }
        }
    }
    controls.critical = typed.critical || !typed.criticalBelow.empty();
    controls.criticalBelow = typed.criticalBelow;
    controls.minimumAutoupdateVersion = typed.minimumAutoupdate;
    if (!typed.phasedRollout.empty()) {
        controls.phasedRolloutSeconds = parseDuration(typed.phasedRollout);
        if (!controls.phasedRolloutSeconds) {
            return refused("phased-rollout", typed.phasedRollout,
                           "it is not a duration such as 1d, 36h, 90m or 3600 (seconds)");
        }
    }
    return controls;
}

std::optional<std::string> channelProblem(std::string_view name) {
    if (name.empty() || name.size() > 64) {
        return "a channel name has 1 to 64 characters";
    }
    for (const char c : name) {
        if (!(isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '.' ||
              c == '_' || c == '-')) {
            return "a channel name holds only letters, digits, '.', '_' and '-'";
        }
    }
    return std::nullopt;
}

std::optional<std::string> buildProblem(std::string_view build) {
    if (build.empty() || build.size() > 32 || !isDigit(build.front()) || !isDigit(build.back())) {
        return "a build is digits, with dots between groups (120 or 1.2.0)";
    }
    for (std::size_t at = 0; at < build.size(); ++at) {
        if (!isDigit(build[at]) && (build[at] != '.' || build[at + 1] == '.')) {
            return "a build is digits, with dots between groups (120 or 1.2.0)";
        }
    }
    return std::nullopt;
}

std::optional<std::int64_t> parseDuration(std::string_view text) {
    std::int64_t scale = 1;
    if (!text.empty() && !isDigit(text.back())) {
        scale = 0;
        for (const auto& [suffix, seconds] : units) {
            if (text.back() == suffix) {
                scale = seconds;
            }
        }
        text.remove_suffix(1);
    }
    std::int64_t count = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
    if (scale == 0 || text.empty() || error != std::errc() || end != text.data() + text.size() ||
        count <= 0 || count > std::numeric_limits<std::int64_t>::max() / scale) {
        return std::nullopt;
    }
    return count * scale;
}

std::string durationText(std::int64_t seconds) {
    for (const auto& [suffix, size] : units) {
        if (seconds > 0 && seconds % size == 0) {
            return fmt::format("{}{}", seconds / size, suffix);
        }
    }
    return fmt::format("{}s", seconds);
}

} // namespace feedControls

} // namespace veltra
