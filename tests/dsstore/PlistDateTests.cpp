// Property-list dates are doubles; a read-write cycle, in the binary form or through JSON, must
// give back the same bits, however many times it runs.

#include "dsstore/DSStore.h"
#include "dsstore/DSStoreJSON.h"

#include <bit>
#include <cmath>
#include <filesystem>
#include <limits>
#include <random>

#include <gtest/gtest.h>

namespace {

using dsstore::DSStore;
using dsstore::PlistDate;
using dsstore::PlistValue;

std::uint64_t bits(double value) {
    return std::bit_cast<std::uint64_t>(value);
}

const PlistValue* findDate(const PlistValue& plist) {
    if (plist.kind() == PlistValue::Kind::date) {
        return &plist;
    }
    if (plist.kind() == PlistValue::Kind::dictionary) {
        for (const auto& [key, item] : plist.asDictionary()) {
            if (const auto* found = findDate(item)) {
                return found;
            }
        }
    }
    if (plist.kind() == PlistValue::Kind::array) {
        for (const auto& item : plist.asArray()) {
            if (const auto* found = findDate(item)) {
                return found;
            }
        }
    }
    return nullptr;
}

PlistValue binaryCycle(const PlistValue& value) {
    return PlistValue::decodeBinary(value.encodeBinary());
}

PlistValue jsonCycle(const PlistValue& value) {
    DSStore store;
    store.records.push_back({"Folder", dsstore::RecordType::fromCode(dsstore::FourCC("bwsp")),
                             dsstore::Value::propertyList(value)});
    const auto text = dsstore::storeToJson(store).dump();
    return dsstore::storeFromJson(nlohmann::ordered_json::parse(text))
        .records.at(0)
        .value.asPropertyList();
}

TEST(PlistDate, TheFuzzerFindingReadsAndWritesBackUnchanged) {
    const auto path = std::filesystem::path(VELTRA_FIXTURES_DIR) / "dsstore-findings" /
                      "plist-date-roundtrip.DS_Store";
    const auto first = DSStore::readFile(path);
    ASSERT_EQ(first.records.size(), 10U);
    const dsstore::Record* settings = nullptr;
    for (const auto& record : first.records) {
        if (record.type.code() == dsstore::FourCC("bwsp")) {
            settings = &record;
        }
    }
    ASSERT_NE(settings, nullptr);
    const auto* date = findDate(settings->value.asPropertyList());
    ASSERT_NE(date, nullptr);
    // The double as the file holds it, read from its bytes independently of the library.
    EXPECT_EQ(bits(date->asDate().sinceReferenceDate), 0x41202400c5c85800U);

    auto store = first;
    for (int cycle = 0; cycle < 5; ++cycle) {
        const auto reread = DSStore::read(store.serialize());
        auto sorted = store.records;
        DSStore::sortRecords(sorted);
        ASSERT_EQ(reread.records, sorted) << "cycle " << cycle;
        store = reread;
    }
    for (std::size_t i = 0; i < first.records.size(); ++i) {
        const auto& before = first.records[i].value;
        const auto& after = store.records[i].value;
        if (before.kind() == dsstore::Value::Kind::propertyList) {
            EXPECT_EQ(after.asPropertyList().encodeBinary(),
                      before.asPropertyList().encodeBinary());
        }
    }
    const auto json = dsstore::storeToJson(first);
    EXPECT_EQ(dsstore::storeFromJson(json).records, first.records);
}

TEST(PlistDate, AnyDoubleSurvivesRepeatedBinaryAndJsonCycles) {
    std::vector<double> values = {0.0,
                                  -0.0,
                                  528896.3862941265,
                                  730902600.25,
                                  -978307200.5,
                                  1e-300,
                                  -1e-310,
                                  0.1,
                                  -0.3,
                                  std::numeric_limits<double>::denorm_min(),
                                  std::numeric_limits<double>::max(),
                                  -std::numeric_limits<double>::infinity(),
                                  std::numeric_limits<double>::quiet_NaN(),
                                  std::bit_cast<double>(0x7ff4000000000abcULL),
                                  -63113904000.0,
                                  252423993599.999};
    std::mt19937_64 random(20261123);
    std::uniform_real_distribution<double> finderDates(-1e9, 1e9);
    for (int i = 0; i < 2000; ++i) {
        values.push_back(finderDates(random));
        values.push_back(std::bit_cast<double>(random()));
    }
    for (const auto value : values) {
        const auto original = PlistValue::date({value});
        auto binary = original;
        auto viaJson = original;
        for (int cycle = 0; cycle < 3; ++cycle) {
            binary = binaryCycle(binary);
            viaJson = jsonCycle(viaJson);
        }
        ASSERT_EQ(bits(binary.asDate().sinceReferenceDate), bits(value)) << value;
        ASSERT_EQ(bits(viaJson.asDate().sinceReferenceDate), bits(value)) << value;
    }
}

TEST(PlistDate, EqualDatesInOneListStayOneObjectAndDistinctOnesStayApart) {
    const auto list = PlistValue::dictionary({{"a", PlistValue::date({1.5})},
                                              {"b", PlistValue::date({1.5})},
                                              {"c", PlistValue::date({1.5000000000000002})}});
    const auto bytes = list.encodeBinary();
    EXPECT_EQ(PlistValue::decodeBinary(bytes), list);
    const auto dates = std::count(bytes.begin(), bytes.end(), std::uint8_t{0x33});
    EXPECT_EQ(dates, 2);
}

TEST(PlistDate, ReadsAsAPersonWritesItAndShowsMoreDigitsOnlyWhenNeeded) {
    EXPECT_EQ(dsstore::iso8601(PlistDate{730902600.25}), "2024-02-29T12:30:00.250000Z");
    EXPECT_EQ(dsstore::iso8601(PlistDate{0}), "2001-01-01T00:00:00Z");
    EXPECT_EQ(dsstore::iso8601(PlistDate::fromUnixSeconds(0)), "1970-01-01T00:00:00Z");
    EXPECT_EQ(dsstore::iso8601(PlistDate{528896.3862941265}), "2001-01-07T02:54:56.3862941265Z");
    // Values no calendar text holds exactly keep their bits.
    EXPECT_EQ(dsstore::iso8601(PlistDate{-0.0}), "0x8000000000000000");
    EXPECT_EQ(dsstore::iso8601(PlistDate{std::numeric_limits<double>::infinity()}),
              "0x7ff0000000000000");

    const auto parse = [](const std::string& date) {
        const auto json = nlohmann::ordered_json::parse(
            R"({"records":[{"filename":"F","code":"bwsp","type":"plist","value":{"d":{"$date":")" +
            date + R"("}}}]})");
        return dsstore::storeFromJson(json)
            .records.at(0)
            .value.asPropertyList()
            .find("d")
            ->asDate();
    };
    EXPECT_EQ(parse("2024-02-29T12:30:00.25Z").sinceReferenceDate, 730902600.25);
    EXPECT_EQ(parse("2001-01-01T00:00:01Z").sinceReferenceDate, 1.0);
    for (const auto* bad : {"2024-02-30T00:00:00Z", "2024-02-29T12:30:00.Z", "0x123",
                            "2024-02-29T12:30:00.2a5Z", "0xzzzzzzzzzzzzzzzz"}) {
        EXPECT_THROW(parse(bad), dsstore::DSStoreError) << bad;
    }
}

} // namespace
