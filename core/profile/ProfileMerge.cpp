#include "ProfileMerge.h"

#include <map>
#include <optional>
#include <string>

namespace veltra {
namespace {

using KeyOf = std::optional<std::string> (*)(const Json&);

// How the items of an array are told apart, and where new ones go.
struct Identity {
    KeyOf keyOf = nullptr;
    bool newestFirst = false;
};

std::optional<std::string> profileKey(const Json& item) {
    const auto found = item.is_object() ? item.find("id") : item.end();
    if (!item.is_object() || found == item.end() || !found->is_string()) {
        return std::nullopt;
    }
    return found->get<std::string>();
}

std::optional<std::string> releaseKey(const Json& item) {
    if (!item.is_object()) {
        return std::nullopt;
    }
    std::string key;
    for (const char* field : {"appName", "version", "buildNumber"}) {
        const auto found = item.find(field);
        if (found == item.end() || !found->is_string()) {
            return std::nullopt;
        }
        key += found->get<std::string>();
        key += '\0';
    }
    return key;
}

// Arrays whose items have an identity are merged item by item; any other array is one value.
Identity identityOfField(const std::string& field) {
    return field == "recentReleases" ? Identity{releaseKey, true} : Identity{};
}

Json emptyLike(const Json& value) {
    return value.is_array() ? Json::array() : value.is_object() ? Json::object() : Json();
}

// Position of each item by its key; nothing when an item has no key or shares one.
std::optional<std::map<std::string, std::size_t>> indexOf(const Json& array, KeyOf keyOf) {
    if (!array.is_array()) {
        return std::nullopt;
    }
    std::map<std::string, std::size_t> index;
    for (std::size_t i = 0; i < array.size(); ++i) {
        const auto key = keyOf(array[i]);
        if (!key || !index.emplace(*key, i).second) {
            return std::nullopt;
        }
    }
    return index;
}

void mergeInto(Json& disk, const Json& base, const Json& mine, Identity identity);

void mergeObjects(Json& disk, const Json& base, const Json& mine) {
    for (const auto& [key, value] : mine.items()) {
        const auto before = base.find(key);
        if (before != base.end() && *before == value) {
            continue;
        }
        const auto current = disk.find(key);
        if (current == disk.end()) {
            disk[key] = value;
        } else {
            // Added on both sides: a list added to elsewhere too keeps both sides' items.
            mergeInto(*current, before == base.end() ? emptyLike(value) : *before, value,
                      identityOfField(key));
        }
    }
    for (const auto& [key, value] : base.items()) {
        if (!mine.contains(key)) {
            disk.erase(key);
        }
    }
}

bool mergeKeyedArrays(Json& disk, const Json& base, const Json& mine, Identity identity) {
    const auto keyOf = identity.keyOf;
    const auto baseIndex = indexOf(base, keyOf);
    const auto mineIndex = indexOf(mine, keyOf);
    const auto diskIndex = indexOf(disk, keyOf);
    if (!baseIndex || !mineIndex || !diskIndex) {
        return false;
    }
    Json kept = Json::array();
    for (const auto& item : disk) {
        const auto key = *keyOf(item);
        const auto before = baseIndex->find(key);
        const auto now = mineIndex->find(key);
        if (now != mineIndex->end() && before == baseIndex->end()) {
            kept.push_back(mine[now->second]); // added on both sides
        } else if (before == baseIndex->end()) {
            kept.push_back(item);
        } else if (now != mineIndex->end()) {
            Json merged = item;
            mergeInto(merged, base[before->second], mine[now->second], {});
            kept.push_back(std::move(merged));
        } // else removed here
    }
    // Items added here, in their order, go on top of a newest-first list, else at the end. One
    // removed elsewhere since it was read is not brought back.
    Json added = Json::array();
    for (const auto& item : mine) {
        const auto key = *keyOf(item);
        if (!baseIndex->contains(key) && !diskIndex->contains(key)) {
            added.push_back(item);
        }
    }
    disk = identity.newestFirst ? std::move(added) : std::move(kept);
    for (auto& item : identity.newestFirst ? kept : added) {
        disk.push_back(std::move(item));
    }
    return true;
}

void mergeInto(Json& disk, const Json& base, const Json& mine, Identity identity) {
    if (base == mine) {
        return;
    }
    if (base.is_object() && mine.is_object() && disk.is_object()) {
        mergeObjects(disk, base, mine);
        return;
    }
    if (identity.keyOf != nullptr && mergeKeyedArrays(disk, base, mine, identity)) {
        return;
    }
    disk = mine;
}

} // namespace

Json mergeProfileChanges(const Json& base, const Json& mine, Json disk) {
    mergeInto(disk, base, mine, Identity{profileKey, false});
    return disk;
}

} // namespace veltra
