#include "PropertyList.h"

#include "Base64.h"
#include "FileUtilities.h"
#include "VeltraError.h"

#include <cstdint>
#include <ctime>
#include <memory>
#include <plist/plist.h>
#include <span>

namespace veltra {

namespace {

struct PlistFree {
    void operator()(plist_t node) const { plist_free(node); }
};
using PlistPointer = std::unique_ptr<std::remove_pointer_t<plist_t>, PlistFree>;

struct CharFree {
    void operator()(char* text) const { std::free(text); }
};

// Nesting deeper than this is refused rather than recursed into.
constexpr int maxDepth = 256;

nlohmann::json toJson(plist_t node, int depth) {
    if (depth > maxDepth) {
        throw VeltraError("Veltra", errorCode::invalidSetup, "The property list nests too deeply.");
    }
    switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
        std::uint8_t value = 0;
        plist_get_bool_val(node, &value);
        return value != 0;
    }
    case PLIST_UINT: {
        std::uint64_t value = 0;
        plist_get_uint_val(node, &value);
        return value;
    }
    case PLIST_REAL: {
        double value = 0;
        plist_get_real_val(node, &value);
        return value;
    }
    case PLIST_STRING: {
        // By pointer and length: a string may hold a NUL, which the copying getter asserts on.
        std::uint64_t length = 0;
        const char* text = plist_get_string_ptr(node, &length);
        return text != nullptr ? std::string(text, static_cast<std::size_t>(length))
                               : std::string();
    }
    case PLIST_KEY: {
        // A <key> out of place in XML becomes a key node, which has its own getter.
        char* raw = nullptr;
        plist_get_key_val(node, &raw);
        const std::unique_ptr<char, CharFree> text(raw);
        return text ? std::string(text.get()) : std::string();
    }
    case PLIST_DATA: {
        char* raw = nullptr;
        std::uint64_t length = 0;
        plist_get_data_val(node, &raw, &length);
        const std::unique_ptr<char, CharFree> bytes(raw);
        return base64::encode(std::span(reinterpret_cast<const std::uint8_t*>(bytes.get()),
                                        static_cast<std::size_t>(length)));
    }
    case PLIST_DATE: {
        std::int32_t seconds = 0;
        std::int32_t microseconds = 0;
        plist_get_date_val(node, &seconds, &microseconds);
        // Property-list dates count from 2001-01-01.
        const std::time_t when = static_cast<std::time_t>(seconds) + 978307200;
        std::tm parts{};
        gmtime_r(&when, &parts);
        char text[32];
        std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
        return std::string(text);
    }
    case PLIST_ARRAY: {
        auto array = nlohmann::json::array();
        const auto size = plist_array_get_size(node);
        for (std::uint32_t index = 0; index < size; ++index) {
            array.push_back(toJson(plist_array_get_item(node, index), depth + 1));
        }
        return array;
    }
    case PLIST_DICT: {
        auto object = nlohmann::json::object();
        plist_dict_iter iterator = nullptr;
        plist_dict_new_iter(node, &iterator);
        for (;;) {
            char* rawKey = nullptr;
            plist_t value = nullptr;
            plist_dict_next_item(node, iterator, &rawKey, &value);
            if (value == nullptr) {
                std::free(rawKey);
                break;
            }
            const std::unique_ptr<char, CharFree> key(rawKey);
            object[key ? key.get() : ""] = toJson(value, depth + 1);
        }
        std::free(iterator);
        return object;
    }
    default:
        return nullptr;
    }
}

bool trimmedEmpty(std::string_view bytes) {
    return bytes.find_first_not_of(" \t\r\n") == std::string_view::npos;
}

} // namespace

nlohmann::json parsePropertyList(std::string_view bytes) {
    if (bytes.size() > UINT32_MAX) {
        throw VeltraError("Veltra", errorCode::invalidSetup, "The property list is too large.");
    }
    plist_t raw = nullptr;
    const bool binary = bytes.starts_with("bplist00");
    const bool xml = !binary && bytes.find("<plist") != std::string_view::npos;
    if (binary) {
        plist_from_bin(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &raw);
    } else if (xml) {
        plist_from_xml(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &raw);
    }
    const PlistPointer root(raw);
    if (!root) {
        throw VeltraError("Veltra", errorCode::invalidSetup,
                          "The data couldn't be read because it isn't in the correct format.");
    }
    return toJson(root.get(), 0);
}

nlohmann::json readPropertyListDictionary(const std::filesystem::path& path) {
    auto value = parsePropertyList(readFile(path));
    if (!value.is_object()) {
        throw VeltraError("Veltra", errorCode::invalidSetup,
                          "The plist must contain a dictionary.");
    }
    return value;
}

std::string editPropertyList(std::string_view bytes, const PropertyListEdit& edit) {
    if (bytes.size() > UINT32_MAX) {
        throw VeltraError("Veltra", errorCode::invalidSetup, "The property list is too large.");
    }
    plist_t raw = nullptr;
    if (trimmedEmpty(bytes)) {
        raw = plist_new_dict();
    } else if (bytes.starts_with("bplist00")) {
        plist_from_bin(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &raw);
    } else {
        plist_from_xml(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &raw);
    }
    const PlistPointer root(raw);
    if (!root) {
        throw VeltraError("Veltra", errorCode::invalidSetup,
                          "The data couldn't be read because it isn't in the correct format.");
    }
    if (plist_get_node_type(root.get()) != PLIST_DICT) {
        throw VeltraError("Veltra", errorCode::invalidSetup,
                          "The plist must contain a dictionary.");
    }
    for (const auto& key : edit.remove) {
        if (plist_dict_get_item(root.get(), key.c_str()) != nullptr) {
            plist_dict_remove_item(root.get(), key.c_str());
        }
    }
    for (const auto& [key, value] : edit.booleans) {
        plist_dict_set_item(root.get(), key.c_str(), plist_new_bool(value ? 1 : 0));
    }
    for (const auto& [key, value] : edit.strings) {
        plist_dict_set_item(root.get(), key.c_str(), plist_new_string(value.c_str()));
    }
    for (const auto& [key, values] : edit.arrayAdditions) {
        plist_t array = plist_dict_get_item(root.get(), key.c_str());
        if (array == nullptr) {
            array = plist_new_array();
            plist_dict_set_item(root.get(), key.c_str(), array);
        } else if (plist_get_node_type(array) != PLIST_ARRAY) {
            throw VeltraError("Veltra", errorCode::invalidSetup,
                              "The plist's " + key + " is not an array.");
        }
        for (const auto& value : values) {
            bool present = false;
            for (std::uint32_t index = 0; index < plist_array_get_size(array); ++index) {
                const plist_t item = plist_array_get_item(array, index);
                std::uint64_t length = 0;
                const char* text = plist_get_node_type(item) == PLIST_STRING
                                       ? plist_get_string_ptr(item, &length)
                                       : nullptr;
                present = present || (text != nullptr && std::string_view(text, length) == value);
            }
            if (!present) {
                plist_array_append_item(array, plist_new_string(value.c_str()));
            }
        }
    }
    char* xml = nullptr;
    std::uint32_t length = 0;
    plist_to_xml(root.get(), &xml, &length);
    if (xml == nullptr) {
        throw VeltraError("Veltra", errorCode::invalidSetup,
                          "The property list could not be written.");
    }
    const std::unique_ptr<char, CharFree> text(xml);
    return std::string(text.get(), length);
}

void setPropertyListStrings(const std::filesystem::path& path,
                            const std::map<std::string, std::string>& values) {
    std::string bytes;
    if (std::filesystem::exists(path)) {
        bytes = readFile(path);
    }
    writeFileAtomically(path, editPropertyList(bytes, {.strings = values}));
}

} // namespace veltra
