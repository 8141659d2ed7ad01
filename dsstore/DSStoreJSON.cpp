#include "DSStoreJSON.h"

#include "DecimalText.h"

#include <bit>
#include <charconv>
#include <chrono>
#include <cmath>
#include <limits>

#include <fmt/format.h>

namespace dsstore {

namespace {

using Json = nlohmann::ordered_json;

[[noreturn]] void invalid(const std::string& path, std::string_view problem) {
    throw DSStoreError(fmt::format("{}: {}", path, problem));
}

std::vector<std::uint8_t> bytesFromHex(const Json& json, const std::string& path) {
    if (!json.is_string()) {
        invalid(path, "expected a hex string");
    }
    const auto& text = json.get_ref<const std::string&>();
    if (text.size() % 2 != 0) {
        invalid(path, "expected an even number of hex digits");
    }
    std::vector<std::uint8_t> bytes(text.size() / 2);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const auto* begin = text.data() + 2 * i;
        const auto [end, error] = std::from_chars(begin, begin + 2, bytes[i], 16);
        if (error != std::errc() || end != begin + 2) {
            invalid(path, "expected hex digits");
        }
    }
    return bytes;
}

std::uint64_t unsignedInteger(const Json& json, const std::string& path, std::uint64_t maximum) {
    if (json.is_number_unsigned()) {
        const auto value = json.get<std::uint64_t>();
        if (value <= maximum) {
            return value;
        }
    } else if (json.is_number_integer() && json.get<std::int64_t>() >= 0) {
        return static_cast<std::uint64_t>(json.get<std::int64_t>());
    }
    invalid(path, fmt::format("expected an integer from 0 to {}", maximum));
}

const std::string& string(const Json& json, const std::string& path) {
    if (!json.is_string()) {
        invalid(path, "expected a string");
    }
    return json.get_ref<const std::string&>();
}

// Years 1 to 9999 in seconds from the reference date: what the four-digit calendar form can hold.
constexpr double earliestCalendarDate = -62'135'596'800.0 - PlistDate::referenceUnixTime;
constexpr double endOfCalendarDates = 253'402'300'800.0 - PlistDate::referenceUnixTime;

// YYYY-MM-DDTHH:MM:SS[.fraction]Z, any number of fraction digits; or 0x and the double's 16 hex
// digits, for values no calendar text holds exactly.
std::optional<PlistDate> parseDate(std::string_view text) {
    if (text.starts_with("0x")) {
        std::uint64_t bits = 0;
        const auto* end = text.data() + text.size();
        const auto [stop, error] = std::from_chars(text.data() + 2, end, bits, 16);
        if (text.size() != 18 || error != std::errc() || stop != end) {
            return std::nullopt;
        }
        return PlistDate{std::bit_cast<double>(bits)};
    }
    if (text.size() < 20 || text.back() != 'Z' || text[4] != '-' || text[7] != '-' ||
        text[10] != 'T' || text[13] != ':' || text[16] != ':') {
        return std::nullopt;
    }
    const auto number = [&text](std::size_t at, std::size_t length) -> std::optional<int> {
        int value = 0;
        const auto* begin = text.data() + at;
        const auto [end, error] = std::from_chars(begin, begin + length, value);
        if (error != std::errc() || end != begin + length) {
            return std::nullopt;
        }
        return value;
    };
    const auto year = number(0, 4), month = number(5, 2), day = number(8, 2);
    const auto hour = number(11, 2), minute = number(14, 2), second = number(17, 2);
    if (!year || !month || !day || !hour || !minute || !second || *hour > 23 || *minute > 59 ||
        *second > 59) {
        return std::nullopt;
    }
    const std::chrono::year_month_day date{std::chrono::year(*year),
                                           std::chrono::month(static_cast<unsigned>(*month)),
                                           std::chrono::day(static_cast<unsigned>(*day))};
    if (!date.ok()) {
        return std::nullopt;
    }
    double fraction = 0;
    if (const auto digits = text.substr(19, text.size() - 20); !digits.empty()) {
        if (digits[0] != '.' || digits.size() < 2 || digits.size() > 41 ||
            digits.find_first_not_of("0123456789", 1) != std::string_view::npos) {
            return std::nullopt;
        }
        const std::string decimal = "0" + std::string(digits);
        fraction = readDecimal(decimal).value_or(DecimalPrefix{}).value;
    }
    const auto seconds = std::chrono::sys_days(date).time_since_epoch() +
                         std::chrono::hours(*hour) + std::chrono::minutes(*minute) +
                         std::chrono::seconds(*second);
    // Whole seconds and the fraction are added once, here and nowhere else, so the text that
    // iso8601 checked against this function reads back to the same double.
    return PlistDate{
        static_cast<double>(std::chrono::duration_cast<std::chrono::seconds>(seconds).count() -
                            PlistDate::referenceUnixTime) +
        fraction};
}

PlistValue plistFromJson(const Json& json, const std::string& path, int depth) {
    if (depth > 256) {
        invalid(path, "nested too deeply");
    }
    switch (json.type()) {
    case Json::value_t::string:
        return PlistValue::string(json.get<std::string>());
    case Json::value_t::boolean:
        return PlistValue::boolean(json.get<bool>());
    case Json::value_t::number_integer:
        return PlistValue::integer(json.get<std::int64_t>());
    case Json::value_t::number_unsigned: {
        const auto value = json.get<std::uint64_t>();
        if (value > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
            invalid(path, "integer out of range");
        }
        return PlistValue::integer(static_cast<std::int64_t>(value));
    }
    case Json::value_t::number_float:
        return PlistValue::real(json.get<double>());
    case Json::value_t::array: {
        PlistArray items;
        items.reserve(json.size());
        for (std::size_t i = 0; i < json.size(); ++i) {
            items.push_back(plistFromJson(json[i], fmt::format("{}[{}]", path, i), depth + 1));
        }
        return PlistValue::array(std::move(items));
    }
    case Json::value_t::object: {
        if (json.size() == 1 && json.contains("$data")) {
            return PlistValue::data(bytesFromHex(json["$data"], path + ".$data"));
        }
        if (json.size() == 1 && json.contains("$date")) {
            const auto date = parseDate(string(json["$date"], path + ".$date"));
            if (!date) {
                invalid(path + ".$date", "expected an ISO 8601 UTC date or 0x and 16 hex digits");
            }
            return PlistValue::date(*date);
        }
        PlistDictionary entries;
        entries.reserve(json.size());
        for (const auto& [key, item] : json.items()) {
            entries.emplace_back(key, plistFromJson(item, path + "." + key, depth + 1));
        }
        return PlistValue::dictionary(std::move(entries));
    }
    default:
        invalid(path, "expected a property-list value");
    }
}

Value valueFromJson(std::string_view type, RecordType recordType, const Json& json,
                    const std::string& path) {
    if (type == "bool") {
        if (!json.is_boolean()) {
            invalid(path, "expected true or false");
        }
        return Value::boolean(json.get<bool>());
    }
    if (type == "long") {
        return Value::uint32(static_cast<std::uint32_t>(unsignedInteger(json, path, UINT32_MAX)));
    }
    if (type == "shor") {
        return Value::uint16(static_cast<std::uint16_t>(unsignedInteger(json, path, UINT16_MAX)));
    }
    if (type == "comp") {
        return Value::uint64(unsignedInteger(json, path, UINT64_MAX));
    }
    if (type == "dutc") {
        return Value::timestamp(unsignedInteger(json, path, UINT64_MAX));
    }
    if (type == "type") {
        FourCC code;
        if (!FourCC::parse(string(json, path), code)) {
            invalid(path, "expected a four-character code");
        }
        return Value::fourCC(code);
    }
    if (type == "ustr") {
        return Value::string(string(json, path));
    }
    if (type == "blob") {
        // Finder's readers take these records' blobs as property lists; raw bytes would make a
        // file no reader accepts.
        if (recordType.holdsPropertyList()) {
            invalid(path, fmt::format("a {} record holds a property list: give it as \"plist\"",
                                      recordType.code().text()));
        }
        return Value::data(bytesFromHex(json, path));
    }
    if (type == "book") {
        return Value::bookmark(bytesFromHex(json, path));
    }
    if (type == "plist") {
        if (!recordType.holdsPropertyList()) {
            invalid(path,
                    fmt::format("a {} record is not a property list", recordType.code().text()));
        }
        return Value::propertyList(plistFromJson(json, path, 0));
    }
    invalid(path, fmt::format("unknown type \"{}\"", type));
}

Json valueToJson(const Value& value) {
    switch (value.kind()) {
    case Value::Kind::null:
        return nullptr;
    case Value::Kind::boolean:
        return value.asBoolean();
    case Value::Kind::uint32:
    case Value::Kind::uint16:
    case Value::Kind::uint64:
    case Value::Kind::timestamp:
        return value.asInteger();
    case Value::Kind::fourCC:
        return value.asFourCC().text();
    case Value::Kind::string:
        return value.asString();
    case Value::Kind::data:
    case Value::Kind::bookmark:
        return hexString(value.asBytes());
    case Value::Kind::propertyList:
        return plistToJson(value.asPropertyList());
    }
    return nullptr;
}

} // namespace

std::string hexString(std::span<const std::uint8_t> bytes) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text(bytes.size() * 2, '0');
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        text[2 * i] = digits[bytes[i] >> 4];
        text[2 * i + 1] = digits[bytes[i] & 0xF];
    }
    return text;
}

std::string iso8601(PlistDate date) {
    const double value = date.sinceReferenceDate;
    const auto exact = [&date](const std::string& text) { return parseDate(text) == date; };
    if (value >= earliestCalendarDate && value < endOfCalendarDates) {
        const double whole = std::floor(value);
        const std::chrono::sys_seconds when(
            std::chrono::seconds(static_cast<std::int64_t>(whole) + PlistDate::referenceUnixTime));
        const auto days = std::chrono::floor<std::chrono::days>(when);
        const std::chrono::year_month_day ymd(days);
        const std::chrono::hh_mm_ss time(when - days);
        const auto text =
            fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}", static_cast<int>(ymd.year()),
                        static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()),
                        time.hours().count(), time.minutes().count(), time.seconds().count());
        if (value == whole && exact(text + "Z")) {
            return text + "Z";
        }
        // Microseconds as a person reads them, more digits only where the value needs them.
        for (int digits = 6; digits <= 17; ++digits) {
            const auto fraction = fmt::format("{:.{}f}", value - whole, digits);
            if (fraction.starts_with("0.") && exact(text + fraction.substr(1) + "Z")) {
                return text + fraction.substr(1) + "Z";
            }
        }
    }
    return fmt::format("0x{:016x}", std::bit_cast<std::uint64_t>(value));
}

nlohmann::ordered_json plistToJson(const PlistValue& plist) {
    switch (plist.kind()) {
    case PlistValue::Kind::string:
        return plist.asString();
    case PlistValue::Kind::integer:
        return plist.asInteger();
    case PlistValue::Kind::real:
        return plist.asReal();
    case PlistValue::Kind::boolean:
        return plist.asBoolean();
    case PlistValue::Kind::data:
        return Json{{"$data", hexString(plist.asData())}};
    case PlistValue::Kind::date:
        return Json{{"$date", iso8601(plist.asDate())}};
    case PlistValue::Kind::array: {
        auto items = Json::array();
        for (const auto& item : plist.asArray()) {
            items.push_back(plistToJson(item));
        }
        return items;
    }
    case PlistValue::Kind::dictionary: {
        auto entries = Json::object();
        for (const auto& [key, item] : plist.asDictionary()) {
            entries[key] = plistToJson(item);
        }
        return entries;
    }
    }
    return nullptr;
}

nlohmann::ordered_json storeToJson(const DSStore& store) {
    auto records = Json::array();
    for (const auto& record : store.records) {
        const bool plist = record.value.kind() == Value::Kind::propertyList;
        records.push_back(Json{{"filename", record.filename},
                               {"code", record.type.code().text()},
                               {"type", plist ? "plist" : std::string(record.value.typeCode())},
                               {"value", valueToJson(record.value)}});
    }
    return Json{{"records", std::move(records)}};
}

DSStore storeFromJson(const nlohmann::ordered_json& json) {
    if (!json.is_object() || !json.contains("records") || !json["records"].is_array()) {
        throw DSStoreError("expected an object with a \"records\" array");
    }
    DSStore store;
    const auto& records = json["records"];
    store.records.reserve(records.size());
    for (std::size_t i = 0; i < records.size(); ++i) {
        const auto path = fmt::format("records[{}]", i);
        const auto& item = records[i];
        if (!item.is_object()) {
            invalid(path, "expected an object");
        }
        for (const auto* key : {"filename", "code", "type", "value"}) {
            if (!item.contains(key)) {
                invalid(path + "." + key, "missing");
            }
        }
        FourCC code;
        if (!FourCC::parse(string(item["code"], path + ".code"), code)) {
            invalid(path + ".code", "expected a four-character code");
        }
        const auto type = RecordType::fromCode(code);
        store.records.push_back(Record{string(item["filename"], path + ".filename"), type,
                                       valueFromJson(string(item["type"], path + ".type"), type,
                                                     item["value"], path + ".value")});
    }
    return store;
}

} // namespace dsstore
