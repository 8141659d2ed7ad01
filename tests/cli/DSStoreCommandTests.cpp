#include "TestSupport.h"
#include "VeltraRun.h"
#include "core/process/ProcessRunner.h"
#include "core/support/FileUtilities.h"

#include <string>

#include <gtest/gtest.h>

namespace veltra {
namespace {

const std::string fixtures = std::string(VELTRA_FIXTURES_DIR) + "/dsstore/";

using testing::runVeltra;

TEST(DSStoreCommand, DumpPrintsOneReadableLinePerRecord) {
    const auto dump = runVeltra({"dsstore", "dump", fixtures + "dmg-legacy-saldomat.DS_Store"});
    EXPECT_EQ(dump.exitCode, 0) << dump.errorOutput;
    EXPECT_EQ(dump.output,
              ".\tBKGD\tCustom\t50637442000002e00000ffbf\n"
              ".\tICVO\tIcon View Options Flag\ttrue\n"
              ".\tIloc\tIcon Location\t(365, 138)\n"
              ".\tfwi0\tFinder Window Info\ttop 194, left 404, bottom 508, right 897, view icnv\n"
              ".\tfwsw\tFinder Window Sidebar Width\t154\n"
              ".\tfwvh\tFinder Window Vertical Height\t314\n"
              ".\ticvo\tIcon View Options\t"
              "6963763400646e6f6e65626f746d000100000000000000000001000000490001\n"
              ".\ticvt\tIcon View Text Size\t12\n"
              ".\tpict\tCustom\t0000000002e0000200000853616c646f6d617400000000000000000000000000"
              "… (736 bytes)\n"
              "Applications\tIloc\tIcon Location\t(406, 154)\n"
              "Bankomat.app\tIloc\tIcon Location\t(94, 158)\n"
              "dmgbg.png\tIloc\tIcon Location\t(409, 56)\n"
              "Saldomat.app\tIloc\tIcon Location\t(121, 161)\n");

    const auto settings = runVeltra({"dsstore", "dump", fixtures + "dmg-meld.DS_Store"});
    EXPECT_NE(settings.output.find(".\tbwsp\tBrowser Window Settings\t{\"ShowStatusBar\":"),
              std::string::npos)
        << settings.output;
    EXPECT_NE(settings.output.find("\tmodD\tModification Date\t20"), std::string::npos);
}

TEST(DSStoreCommand, JsonDumpWriteDumpIsTheIdentity) {
    testing::TempDir dir;
    for (const auto* name : {"dmg-osxspell", "home-jblanton-manytypes", "big-mineos-3level",
                             "trash-wuyuezong-nonascii", "empty"}) {
        SCOPED_TRACE(name);
        const auto first = runVeltra({"dsstore", "dump", "--json", fixtures + name + ".DS_Store"});
        ASSERT_EQ(first.exitCode, 0) << first.errorOutput;
        testing::writeFile(dir / "records.json", first.output);
        const auto write = runVeltra(
            {"dsstore", "write", (dir / "records.json").string(), (dir / "out.DS_Store").string()});
        ASSERT_EQ(write.exitCode, 0) << write.errorOutput;
        EXPECT_TRUE(write.output.starts_with("Wrote ")) << write.output;
        const auto second =
            runVeltra({"dsstore", "dump", "--json", (dir / "out.DS_Store").string()});
        EXPECT_EQ(second.output, first.output);
    }
}

TEST(DSStoreCommand, JsonUsesTheDocumentedValueForms) {
    testing::TempDir dir;
    testing::writeFile(dir / "in.json", R"({"records":[
        {"filename":".","code":"bwsp","type":"plist","value":{"WindowBounds":"{{1, 2}, {3, 4}}",
         "SidebarWidth":0.0,"TargetPath":["a"],"Alias":{"$data":"00ff"},
         "When":{"$date":"2024-02-29T12:30:00.250000Z"}}},
        {"filename":".","code":"vstl","type":"type","value":"icnv"},
        {"filename":"App.app","code":"Iloc","type":"blob","value":"000000a0000000c8ffffffffffff0000"},
        {"filename":"App.app","code":"pBBk","type":"book","value":"626f6f6b"},
        {"filename":"App.app","code":"fwvh","type":"shor","value":65535},
        {"filename":"App.app","code":"lg1S","type":"comp","value":18446744073709551615}]})");
    ASSERT_EQ(runVeltra({"dsstore", "write", (dir / "in.json").string(), (dir / "out").string()})
                  .exitCode,
              0);
    const auto dump = runVeltra({"dsstore", "dump", "--json", (dir / "out").string()});
    EXPECT_NE(dump.output.find(R"("$data": "00ff")"), std::string::npos) << dump.output;
    EXPECT_NE(dump.output.find(R"("$date": "2024-02-29T12:30:00.250000Z")"), std::string::npos);
    EXPECT_NE(dump.output.find(R"("SidebarWidth": 0.0)"), std::string::npos);
    EXPECT_NE(dump.output.find(R"("value": 18446744073709551615)"), std::string::npos);
    const auto text = runVeltra({"dsstore", "dump", (dir / "out").string()});
    EXPECT_NE(text.output.find("App.app\tIloc\tIcon Location\t(160, 200)\n"), std::string::npos);
}

TEST(DSStoreCommand, CheckSaysOkOrNamesTheFault) {
    testing::TempDir dir;
    const auto ok = runVeltra({"dsstore", "check", fixtures + "big-mineos-2level.DS_Store"});
    EXPECT_EQ(ok.exitCode, 0);
    EXPECT_EQ(ok.output, "OK\n");

    auto bytes = readFile(fixtures + "dmg-meld.DS_Store");
    bytes[17] = static_cast<char>(bytes[17] ^ 0x10); // the second root offset
    testing::writeFile(dir / "broken", bytes);
    const auto broken = runVeltra({"dsstore", "check", (dir / "broken").string()});
    EXPECT_EQ(broken.exitCode, 1);
    EXPECT_EQ(broken.output, "Corrupted file: Root block offset mismatch\n");
    EXPECT_EQ(broken.errorOutput, "");

    const auto dump = runVeltra({"dsstore", "dump", (dir / "broken").string()});
    EXPECT_EQ(dump.exitCode, 1);
    EXPECT_EQ(dump.errorOutput, "Error: Corrupted file: Root block offset mismatch\n");
}

TEST(DSStoreCommand, BadJsonIsRefusedWithThePathOfTheField) {
    testing::TempDir dir;
    testing::writeFile(dir / "in.json",
                       R"({"records":[{"filename":"a","code":"Iloc","type":"long","value":-1}]})");
    const auto write =
        runVeltra({"dsstore", "write", (dir / "in.json").string(), (dir / "out").string()});
    EXPECT_EQ(write.exitCode, 1);
    EXPECT_EQ(write.errorOutput, "Error: " + (dir / "in.json").string() +
                                     ": records[0].value: expected an integer from 0 to "
                                     "4294967295\n");
    EXPECT_FALSE(std::filesystem::exists(dir / "out"));
}

} // namespace
} // namespace veltra
