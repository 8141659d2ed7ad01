// Sparkle's package put on the app target of real project files: read back by the project
// parser, every original line kept in place, nothing done twice, and projects that already get
// Sparkle left alone.

#include "TestSupport.h"
#include "core/support/FileUtilities.h"
#include "core/support/VeltraError.h"
#include "core/xcode/ProjectFileParser.h"
#include "core/xcode/SparklePackageSetup.h"

#include <algorithm>
#include <sstream>

#include <gtest/gtest.h>

namespace veltra {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

std::vector<fs::path> projectFiles() {
    std::vector<fs::path> files;
    for (const auto& entry :
         fs::recursive_directory_iterator(fs::path(VELTRA_FIXTURES_DIR) / "xcode")) {
        if (entry.path().filename() == "project.pbxproj") {
            files.push_back(entry.path());
        }
    }
    for (const auto& entry :
         fs::directory_iterator(fs::path(VELTRA_SOURCE_DIR) / "fuzz/corpus/project")) {
        // The corpus also holds a file the setup refuses, tested on its own below.
        if (entry.path().extension() == ".pbxproj" && !projectFileRunOn(readFile(entry.path()))) {
            files.push_back(entry.path());
        }
    }
    files.push_back(fs::path(VELTRA_SOURCE_DIR) / "share/demo/Sample/Sample.xcodeproj" /
                    "project.pbxproj");
    std::sort(files.begin(), files.end());
    return files;
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> all;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        all.push_back(line);
    }
    return all;
}

// Whether `inner` is `outer` with lines taken out.
bool isSubsequence(const std::vector<std::string>& inner, const std::vector<std::string>& outer) {
    auto at = outer.begin();
    for (const auto& line : inner) {
        at = std::find(at, outer.end(), line);
        if (at == outer.end()) {
            return false;
        }
        ++at;
    }
    return true;
}

// The project's first application target's name, as the parser reads it.
std::string firstApp(const Json& project) {
    const auto& objects = project.at("objects");
    for (const auto& id : objects.at(project.at("rootObject").get<std::string>()).at("targets")) {
        const auto& target = objects.at(id.get<std::string>());
        if (target.value("productType", "") == "com.apple.product-type.application") {
            return target.at("name");
        }
    }
    return {};
}

const Json& objectNamed(const Json& objects, const Json& id) {
    return objects.at(id.get<std::string>());
}

// Sparkle as the setup leaves it on `targetName`: the product from the package, linked in the
// target's Frameworks phase, the package referenced from the project.
void expectSparkleOn(const Json& project, const std::string& targetName) {
    const auto& objects = project.at("objects");
    const auto& root = objects.at(project.at("rootObject").get<std::string>());
    const Json* target = nullptr;
    for (const auto& id : root.at("targets")) {
        if (objectNamed(objects, id).value("name", "") == targetName) {
            target = &objectNamed(objects, id);
        }
    }
    ASSERT_NE(target, nullptr);
    const Json* product = nullptr;
    std::string productID;
    for (const auto& id : target->value("packageProductDependencies", Json::array())) {
        if (objectNamed(objects, id).value("productName", "") == "Sparkle") {
            product = &objectNamed(objects, id);
            productID = id;
        }
    }
    ASSERT_NE(product, nullptr) << "no Sparkle product on " << targetName;
    EXPECT_EQ((*product).at("isa"), "XCSwiftPackageProductDependency");
    const auto& package = objectNamed(objects, (*product).at("package"));
    EXPECT_EQ(package.at("isa"), "XCRemoteSwiftPackageReference");
    EXPECT_EQ(package.at("repositoryURL"), "https://github.com/sparkle-project/Sparkle");
    EXPECT_EQ(package.at("requirement").at("kind"), "upToNextMajorVersion");
    EXPECT_EQ(package.at("requirement").at("minimumVersion"), "2.0.0");
    const auto& references = root.at("packageReferences");
    EXPECT_NE(std::find(references.begin(), references.end(), (*product).at("package")),
              references.end());
    bool linked = false;
    for (const auto& phaseID : (*target).at("buildPhases")) {
        const auto& phase = objectNamed(objects, phaseID);
        if (phase.at("isa") != "PBXFrameworksBuildPhase") {
            continue;
        }
        for (const auto& fileID : phase.at("files")) {
            linked = linked || objectNamed(objects, fileID).value("productRef", "") == productID;
        }
    }
    EXPECT_TRUE(linked) << "Sparkle is not in " << targetName << "'s Frameworks phase";
}

TEST(SparklePackageSetup, EveryRealProjectGetsTheirPackageOnceAndKeepsEveryLine) {
    int added = 0;
    int left = 0;
    for (const auto& file : projectFiles()) {
        SCOPED_TRACE(file.string());
        const auto original = readFile(file);
        const auto parsed = parseProjectFile(original);
        const auto app = firstApp(parsed);
        const auto plan = SparklePackageSetup::plan(original, app);
        EXPECT_EQ(plan.targetName, app);
        if (plan.existing) {
            // Left as it is: the target gets Sparkle its own way.
            ++left;
            EXPECT_TRUE(plan.changes.empty());
            EXPECT_EQ(plan.text, original);
            continue;
        }
        ++added;
        EXPECT_FALSE(plan.changes.empty());
        expectSparkleOn(parseProjectFile(plan.text), app);
        const auto before = lines(original);
        const auto after = lines(plan.text);
        EXPECT_TRUE(isSubsequence(before, after)) << "an original line was changed or moved";
        EXPECT_LE(after.size() - before.size(), 40u);

        // Again: already set up, not a byte changed.
        const auto again = SparklePackageSetup::plan(plan.text, app);
        EXPECT_EQ(again.existing, "the Sparkle package");
        EXPECT_EQ(again.text, plan.text);
    }
    // The corpus holds both kinds: Sparkle from its package or CocoaPods, and none yet.
    EXPECT_GE(added, 5);
    EXPECT_GE(left, 4);
}

// The sample project as Xcode itself would write the package: the objects in their sections,
// the lists in their objects, in Xcode's own layout.
TEST(SparklePackageSetup, WritesTheObjectsWhereAndAsXcodeWritesThem) {
    const auto original = readFile(fs::path(VELTRA_SOURCE_DIR) /
                                   "share/demo/Sample/Sample.xcodeproj/project.pbxproj");
    const auto plan = SparklePackageSetup::plan(original, std::nullopt);
    EXPECT_EQ(plan.targetName, "Sample");
    EXPECT_EQ(plan.changes,
              (std::vector<std::string>{"Add the Sparkle package "
                                        "(https://github.com/sparkle-project/Sparkle, up to the "
                                        "next major version from 2.0.0) to the project",
                                        "Add the Sparkle product to target Sample",
                                        "Link Sparkle in target Sample's Frameworks phase"}));
    const auto& text = plan.text;
    const auto section = [&](const std::string& isa) {
        const auto begin = text.find("/* Begin " + isa + " section */\n");
        const auto end = text.find("/* End " + isa + " section */\n");
        EXPECT_NE(begin, std::string::npos) << isa;
        EXPECT_LT(begin, end) << isa;
        return text.substr(begin, end - begin);
    };
    EXPECT_NE(section("PBXBuildFile")
                  .find(" /* Sparkle in Frameworks */ = {isa = PBXBuildFile; "
                        "productRef = "),
              std::string::npos);
    EXPECT_NE(section("XCRemoteSwiftPackageReference")
                  .find(" /* XCRemoteSwiftPackageReference \"Sparkle\" */ = {\n"
                        "\t\t\tisa = XCRemoteSwiftPackageReference;\n"
                        "\t\t\trepositoryURL = \"https://github.com/sparkle-project/Sparkle\";\n"
                        "\t\t\trequirement = {\n"
                        "\t\t\t\tkind = upToNextMajorVersion;\n"
                        "\t\t\t\tminimumVersion = 2.0.0;\n"
                        "\t\t\t};\n"
                        "\t\t};\n"),
              std::string::npos);
    EXPECT_NE(section("XCSwiftPackageProductDependency")
                  .find(" /* Sparkle */ = {\n"
                        "\t\t\tisa = XCSwiftPackageProductDependency;\n"
                        "\t\t\tpackage = "),
              std::string::npos);
    EXPECT_NE(section("PBXFrameworksBuildPhase").find("\t\t\tfiles = (\n\t\t\t\t"),
              std::string::npos);
    EXPECT_NE(section("PBXFrameworksBuildPhase").find(" /* Sparkle in Frameworks */,\n\t\t\t);"),
              std::string::npos);
    // The sections stay in isa order, a blank line apart.
    const auto configurations = text.find("/* End XCConfigurationList section */\n\n/* Begin "
                                          "XCRemoteSwiftPackageReference section */");
    EXPECT_NE(configurations, std::string::npos);
    EXPECT_NE(text.find("/* End XCRemoteSwiftPackageReference section */\n\n/* Begin "
                        "XCSwiftPackageProductDependency section */"),
              std::string::npos);
    EXPECT_NE(text.find("/* End XCSwiftPackageProductDependency section */\n\t};\n"),
              std::string::npos);
    // The lists go where Xcode sorts an object's keys.
    const auto targetList = text.find("\t\t\tpackageProductDependencies = (\n\t\t\t\t");
    ASSERT_NE(targetList, std::string::npos);
    EXPECT_LT(text.rfind("\t\t\tname = Sample;\n", targetList), targetList);
    EXPECT_NE(text.find(" /* Sparkle */,\n\t\t\t);\n\t\t\tproductName = Sample;", targetList),
              std::string::npos);
    EXPECT_NE(text.find("\t\t\tpackageReferences = (\n\t\t\t\t"), std::string::npos);
}

// A section's marker inside another comment is not the section's end (found by the fuzzer:
// the objects went into that comment and the file no longer parsed).
TEST(SparklePackageSetup, MarkersInsideOtherCommentsAreNotSections) {
    auto text = readFile(fs::path(VELTRA_SOURCE_DIR) /
                         "share/demo/Sample/Sample.xcodeproj/project.pbxproj");
    // Right after the section's start, where the objects would go were it the end.
    const std::string_view begin = "/* Begin PBXBuildFile section */\n";
    const auto at = text.find(begin);
    ASSERT_NE(at, std::string::npos);
    text.insert(at + begin.size(), "/* a note, not a marker: /* End PBXBuildFile section */\n");
    ASSERT_NO_THROW(parseProjectFile(text));
    const auto plan = SparklePackageSetup::plan(text, std::nullopt);
    EXPECT_NO_THROW(parseProjectFile(plan.text));
    EXPECT_NE(plan.text.find("/* a note, not a marker: /* End PBXBuildFile section */\n"),
              std::string::npos);
}

// A comment that runs over several lines hides keys from the parser, not from a text edit
// (found by the fuzzer in a real project's file with a few bytes changed): no plan is made that
// the parser would not read back, and the parser says where it went astray.
TEST(SparklePackageSetup, NeverPlansAnEditThatDoesNotReadBack) {
    const auto text = readFile(fs::path(VELTRA_SOURCE_DIR) /
                               "fuzz/corpus/project/sparkle-setup-unparseable-project.pbxproj");
    ASSERT_NO_THROW(parseProjectFile(text));
    try {
        const auto plan = SparklePackageSetup::plan(text, std::nullopt);
        FAIL() << "planned an edit that reads back as:\n" << plan.text.substr(0, 200);
    } catch (const VeltraError& error) {
        EXPECT_EQ(error.message(),
                  "The project file is not written the way Xcode writes it (the comment that "
                  "opens on line 109 runs on to line 116), so Sparkle cannot be added to it "
                  "safely. Open the project in Xcode once so it saves the file, then set up "
                  "again.");
    }
}

TEST(SparklePackageSetup, RefusesWhatItCannotSetUpByName) {
    const auto text = readFile(fs::path(VELTRA_SOURCE_DIR) /
                               "share/demo/Sample/Sample.xcodeproj/project.pbxproj");
    const auto message = [](const std::string& project, const std::optional<std::string>& target) {
        try {
            SparklePackageSetup::plan(project, target);
        } catch (const VeltraError& error) {
            return error.message();
        }
        return std::string("set up");
    };
    EXPECT_EQ(message(text, "Widget"),
              "The project has no application target named Widget (its application targets: "
              "Sample).");
    auto noApp = text;
    for (auto at = noApp.find("com.apple.product-type.application"); at != std::string::npos;
         at = noApp.find("com.apple.product-type.application")) {
        noApp.replace(at, 34, "com.apple.product-type.framework");
    }
    EXPECT_EQ(message(noApp, std::nullopt),
              "The project has no application target to set up for updates.");
    EXPECT_EQ(
        message("<?xml version=\"1.0\"?><plist version=\"1.0\"><dict/></plist>", std::nullopt),
        "The project file is not in the text form Xcode writes; open the project in Xcode "
        "once so it saves the file, then set up again.");

    const auto monitorControl =
        readFile(fs::path(VELTRA_FIXTURES_DIR) /
                 "xcode/monitorcontrol/MonitorControl.xcodeproj/project.pbxproj");
    EXPECT_TRUE(message(monitorControl, std::nullopt)
                    .starts_with("The project has several application targets ("))
        << message(monitorControl, std::nullopt);
}

TEST(SparklePackageSetup, NewObjectIDsAreUnusedUpperCaseHex) {
    const std::string text = "// !$*UTF8*$!\n";
    for (int i = 0; i < 100; ++i) {
        const auto id = SparklePackageSetup::newObjectID(text);
        ASSERT_EQ(id.size(), 24u);
        EXPECT_TRUE(std::all_of(id.begin(), id.end(), [](char c) {
            return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F');
        })) << id;
    }
}

} // namespace
} // namespace veltra
