// Every real Finder file in the fixtures folder: read with the records the independent reader
// found, write and read back, and keep Finder's allocator invariant in what we write.

#include "dsstore/DSStore.h"
#include "dsstore/DSStoreJSON.h"
#include "dsstore/IconPlacement.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using dsstore::DSStore;
using dsstore::Record;
using dsstore::Value;
namespace fs = std::filesystem;

const fs::path fixtures = fs::path(VELTRA_FIXTURES_DIR) / "dsstore";

std::vector<std::string> fixtureNames() {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(fixtures)) {
        if (entry.path().extension() == ".DS_Store") {
            names.push_back(entry.path().stem().string());
        }
    }
    std::ranges::sort(names);
    return names;
}

// The expected files differ from our JSON form in three ways: Iloc blobs also carry x and y,
// decoded property lists are typed "blob", and plist data and dates are plain strings.
nlohmann::json plainPlist(const nlohmann::ordered_json& json) {
    if (json.is_object() && json.size() == 1 &&
        (json.contains("$data") || json.contains("$date"))) {
        return json.begin().value();
    }
    if (json.is_object()) {
        auto out = nlohmann::json::object();
        for (const auto& [key, item] : json.items()) {
            out[key] = plainPlist(item);
        }
        return out;
    }
    if (json.is_array()) {
        auto out = nlohmann::json::array();
        for (const auto& item : json) {
            out.push_back(plainPlist(item));
        }
        return out;
    }
    return nlohmann::json::parse(json.dump());
}

nlohmann::json expectedForm(const Record& record) {
    DSStore single;
    single.records = {record};
    auto json = dsstore::storeToJson(single)["records"][0];
    nlohmann::json out = {{"filename", json["filename"]}, {"code", json["code"]}};
    if (json["type"] == "plist") {
        out["type"] = "blob";
        out["value"] = plainPlist(json["value"]);
    } else if (const auto icon = dsstore::IconPlacement::fromRecord(record)) {
        out["type"] = json["type"];
        out["value"] = {{"x", icon->x}, {"y", icon->y}, {"hex", json["value"]}};
    } else {
        out["type"] = json["type"];
        out["value"] = plainPlist(json["value"]);
    }
    return out;
}

class FinderFile : public ::testing::TestWithParam<std::string> {};

TEST_P(FinderFile, ReadsTheRecordsFinderWrote) {
    const auto store = DSStore::readFile(fixtures / (GetParam() + ".DS_Store"));
    std::ifstream in(fixtures / "expected" / (GetParam() + ".json"));
    const auto expected = nlohmann::json::parse(in)["records"];
    ASSERT_EQ(store.records.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        // Dumped with sorted keys so that a real 48.0 never equals an integer 48.
        EXPECT_EQ(expectedForm(store.records[i]).dump(), expected[i].dump()) << "record " << i;
    }
    EXPECT_TRUE(store.allocator.coversAddressSpaceExactly());
}

TEST_P(FinderFile, WritesWhatItReadsAndReadsItBack) {
    const auto original = DSStore::readFile(fixtures / (GetParam() + ".DS_Store"));
    const auto bytes = original.serialize();
    const auto reread = DSStore::read(bytes);

    auto sorted = original.records;
    DSStore::sortRecords(sorted);
    EXPECT_EQ(reread.records, sorted);
    EXPECT_TRUE(reread.allocator.coversAddressSpaceExactly());
    // Writing again gives the same bytes: nothing depends on the history of the store.
    EXPECT_EQ(reread.serialize(), bytes);
}

TEST_P(FinderFile, JsonFormRoundTrips) {
    const auto store = DSStore::readFile(fixtures / (GetParam() + ".DS_Store"));
    const auto json = dsstore::storeToJson(store);
    const auto rebuilt = dsstore::storeFromJson(nlohmann::ordered_json::parse(json.dump()));
    EXPECT_EQ(rebuilt.records, store.records);
}

INSTANTIATE_TEST_SUITE_P(RealFiles, FinderFile, ::testing::ValuesIn(fixtureNames()),
                         [](const auto& param) {
                             auto name = param.param;
                             std::ranges::replace(name, '-', '_');
                             return name;
                         });

TEST(FinderFiles, AllThirtySixAreThere) {
    EXPECT_EQ(fixtureNames().size(), 36U);
}

// Where the independent reader agrees on the bytes, ours must too: an ASCII-named file rewritten
// keeps Finder's order, so the records come back in file order.
TEST(FinderFiles, AsciiNamedFilesKeepFileOrderWhenRewritten) {
    for (const auto* name : {"dmg-osxspell", "home-yramagicman-icon", "big-mineos-3level"}) {
        SCOPED_TRACE(name);
        const auto store = DSStore::readFile(fixtures / (std::string(name) + ".DS_Store"));
        const auto reread = DSStore::read(store.serialize());
        EXPECT_EQ(reread.records, store.records);
    }
}

} // namespace
