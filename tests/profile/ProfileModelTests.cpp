#include "TestSupport.h"
#include "core/profile/ProfileFieldEditor.h"
#include "core/profile/ProjectProfile.h"
#include "core/records/StepStatus.h"
#include "core/support/VeltraError.h"

#include <gtest/gtest.h>

namespace veltra {
namespace {

const char* const manifestJson =
    R"({"appName":"Foo","version":"1.2.0","buildNumber":"42","releaseDate":785000000.25,)"
    R"("dmgFileSize":1048576,"sha256Checksum":"ab12","releaseNotes":"# Notes"})";

// A profile as another encoder writes it; an empty notarization means the usual one.
std::string profileJson(std::string notarization = "", const std::string& extra = "",
                        const std::string& webDeploy = "{}") {
    if (notarization.empty()) {
        notarization =
            R"({"enabled":false,"developerTeamID":"","keychainProfileName":"AC_PASSWORD","signingIdentity":""})";
    }
    return R"({"id":"5b0e1f2a-9c3d-4e5f-8a7b-6c5d4e3f2a1b","name":"Foo","appName":"Foo",)"
           R"("bundleIdentifier":"com.example.foo","outputDirectory":"~\/Desktop\/Veltra\/Foo",)"
           R"("dmgDesign":{"windowWidth":660,"windowHeight":400.0,"iconSize":120,"appIconPosition":[150,260],)"
           R"("dropLinkPosition":[510.5,260],"volumeName":"Foo","compressionFormat":"UDZO","hideExtension":true},)"
           R"("notarization":)" +
           notarization + R"(,)" +
           R"("sparkle":{"minimumSystemVersion":"13.0","appcastPath":"","privateKeyPath":"~/.sparkle/ed25519_priv",)"
           R"("releaseNotesURLPattern":"https:\/\/www.example.com\/downloads\/{app}.md","downloadURLPattern":"x"},)"
           R"("githubRelease":{"enabled":false,"repoOwnerAndName":"","createDraft":false,"generateNotesFromGit":true},)"
           R"("webDeploy":)" +
           webDeploy + extra + "}";
}

ProjectProfile decode(const std::string& text) {
    return profilesFromJson(parseJson("[" + text + "]")).at(0);
}

std::string decodeError(const std::string& text) {
    try {
        decode(text);
    } catch (const JsonDecodingError& error) {
        return error.what();
    }
    return "decoded";
}

TEST(ProfileModel, CreationDefaults) {
    const auto foo = ProjectProfile::create("Foo", "com.example.foo");
    EXPECT_EQ(foo.outputDirectory, "~/Desktop/Veltra/Foo");
    EXPECT_EQ(foo.name, "Foo");
    EXPECT_EQ(foo.dmgDesign.volumeName, "Foo");
    EXPECT_EQ(foo.dmgDesign.appIconPosition, (Point{150, 260}));
    EXPECT_EQ(foo.notarization.keychainProfileName, "AC_PASSWORD");
    EXPECT_EQ(foo.sparkle.privateKeyPath, "~/.sparkle/ed25519_priv");
    EXPECT_TRUE(foo.sparkle.downloadURLPattern.ends_with("/downloads/{dmg}"));
    EXPECT_EQ(foo.webDeploy.provider, WebHostingProvider::cloudflarePages);
    EXPECT_FALSE(foo.hasCompletedInitialSetup);
    EXPECT_NE(foo.id, ProjectProfile::create("Foo", "com.example.foo").id);
    EXPECT_EQ(ProjectProfile::create("Foo", "b", "/out").outputDirectory, "/out");
}

TEST(ProfileModel, ReadsWhatAnotherEncoderWritesAndWritesItsOwnForm) {
    // Escaped slashes, integers for doubles, keys out of order, a lower-case UUID.
    const auto profile = decode(profileJson());
    EXPECT_EQ(profile.id.string(), "5B0E1F2A-9C3D-4E5F-8A7B-6C5D4E3F2A1B");
    EXPECT_EQ(profile.outputDirectory, "~/Desktop/Veltra/Foo");
    EXPECT_EQ(profile.dmgDesign.windowWidth, 660.0);
    EXPECT_EQ(profile.dmgDesign.dropLinkPosition, (Point{510.5, 260}));
    EXPECT_EQ(profile.sparkle.releaseNotesURLPattern, "https://www.example.com/downloads/{app}.md");

    const std::string written = dumpJson(profile.toJson());
    EXPECT_TRUE(written.starts_with(
        R"({"id":"5B0E1F2A-9C3D-4E5F-8A7B-6C5D4E3F2A1B","name":"Foo","appName":)"))
        << written;
    const auto keys = {"\"dmgDesign\"",     "\"notarization\"", "\"sparkle\"",
                       "\"githubRelease\"", "\"webDeploy\"",    "\"hasCompletedInitialSetup\""};
    std::size_t last = 0;
    for (const auto* key : keys) {
        const auto at = written.find(key);
        ASSERT_NE(at, std::string::npos) << key;
        EXPECT_GT(at, last) << key << " out of declaration order";
        last = at;
    }
    EXPECT_EQ(written.find("sourceProjectPath"), std::string::npos)
        << "absent optionals are left out";
    EXPECT_EQ(written.find("\\/"), std::string::npos);
    EXPECT_EQ(written.find(' '), std::string::npos) << "compact";
    EXPECT_EQ(decode(written), profile);
}

TEST(ProfileModel, FullProfileRoundTripsExactly) {
    auto profile = ProjectProfile::create("Foo", "com.example.foo");
    profile.sourceProjectPath = "~/src/Foo.xcodeproj";
    profile.selectedScheme = "Foo";
    profile.customPostScript = "echo done";
    profile.dmgDesign.backgroundType = DMGBackgroundType::plain;
    profile.dmgDesign.backgroundColorHex = "#FFFFFF";
    profile.webDeploy.deployHookURL = "https://hooks.example.com/x";
    profile.webDeploy.provider = WebHostingProvider::githubPages;
    ReleaseManifest manifest = ReleaseManifest::fromJson(parseJson(manifestJson), "m");
    manifest.releaseDate = Date{785000000.123456789};
    manifest.wasNotarized = false;
    manifest.websitePublication = WebsitePublication{WebsitePublicationState::needsAttention,
                                                     "https://www.example.com/appcast.xml",
                                                     "https://www.example.com/Foo.dmg",
                                                     "sig==",
                                                     1048576,
                                                     Date{785000001.5},
                                                     std::nullopt};
    profile.recentReleases = std::vector{manifest};
    profile.hasCompletedInitialSetup = true;
    EXPECT_EQ(decode(dumpJson(profile.toJson())), profile);
}

TEST(ProfileModel, DecodingRules) {
    struct Row {
        const char* name;
        std::string json;
        std::string error; // empty: decodes
    };
    const std::string noIdentity =
        R"({"enabled":false,"developerTeamID":"","keychainProfileName":"x"})";
    const std::vector<Row> rows{
        {"notarization without signingIdentity", profileJson(noIdentity),
         "profiles[0].notarization.signingIdentity: missing"},
        {"unknown provider", profileJson({}, "", R"({"provider":"heroku"})"),
         R"(profiles[0].webDeploy.provider: unknown value "heroku")"},
        {"unknown background type",
         profileJson().replace(profileJson().find(R"("hideExtension":true)"), 20,
                               R"("hideExtension":true,"backgroundType":"fancy")"),
         R"(profiles[0].dmgDesign.backgroundType: unknown value "fancy")"},
        {"wrong type", profileJson({}, R"(,"customPostScript":7)"),
         "profiles[0].customPostScript: expected a string"},
        {"bad UUID", "{\"id\":\"nope\"}", R"(profiles[0].id: not a UUID: "nope")"},
        {"point of one number", profileJson().replace(profileJson().find("[150,260]"), 9, "[150]"),
         "profiles[0].dmgDesign.appIconPosition: expected a point [x, y]"},
        {"manifest without sha256Checksum",
         profileJson(
             {},
             R"(,"recentReleases":[{"appName":"Foo","version":"1","buildNumber":"1","releaseDate":1,"dmgFileSize":1,"releaseNotes":""}])"),
         "profiles[0].recentReleases[0].sha256Checksum: missing"},
        {"manifest without releaseNotes",
         profileJson(
             {},
             R"(,"recentReleases":[{"appName":"Foo","version":"1","buildNumber":"1","releaseDate":1,"dmgFileSize":1,"sha256Checksum":"a"}])"),
         "profiles[0].recentReleases[0].releaseNotes: missing"},
        {"number too large to keep",
         profileJson().replace(profileJson().find(R"("windowHeight":400.0)"), 20,
                               R"("windowHeight":1e400)"),
         "file: not valid JSON (number overflow parsing '1e400')"},
        {"null optional is absent", profileJson({}, R"(,"selectedScheme":null)"), ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(decodeError(row.json), row.error.empty() ? "decoded" : row.error);
    }
    EXPECT_FALSE(stepStatus("Done"));
    EXPECT_EQ(stepStatus("Skipped"), StepStatus::skipped);
}

TEST(ProfileModel, DerivedAndDefaultedValues) {
    const std::string release = std::string(R"(,"recentReleases":[)") + manifestJson + "]";
    EXPECT_TRUE(decode(profileJson({}, release)).hasCompletedInitialSetup);
    EXPECT_FALSE(decode(profileJson({}, R"(,"recentReleases":[])")).hasCompletedInitialSetup);
    EXPECT_FALSE(decode(profileJson()).hasCompletedInitialSetup);
    EXPECT_FALSE(decode(profileJson({}, release + R"(,"hasCompletedInitialSetup":false)"))
                     .hasCompletedInitialSetup);

    // An empty webDeploy object is all defaults.
    EXPECT_EQ(decode(profileJson()).webDeploy, WebDeployConfig{});

    // An older manifest without any optional key decodes, with them absent.
    const auto manifest = decode(profileJson({}, release)).recentReleases->at(0);
    EXPECT_EQ(manifest.releaseDate, Date{785000000.25});
    EXPECT_FALSE(manifest.wasNotarized || manifest.githubPublicationSucceeded ||
                 manifest.monitoringReleaseID || manifest.websitePublication || manifest.notesURL ||
                 manifest.sparkleSignature || manifest.dmgURL);

    const auto publication = WebsitePublication::fromJson(
        parseJson(
            R"({"state":"pending","feedURL":"f","downloadURL":"d","expectedSignature":"s","expectedSize":3,"pushedAt":10})"),
        "p");
    EXPECT_FALSE(publication.lastCheckedAt);
    EXPECT_EQ(dumpJson(publication.toJson()).find("lastCheckedAt"), std::string::npos);
    EXPECT_EQ(websiteStatusText(publication), "Publishing; live files not confirmed");
    EXPECT_EQ(websiteStatusText(std::nullopt), "Website publication was not confirmed");
}

TEST(ProfileModel, ProvidersHaveTheirNames) {
    EXPECT_EQ(rawValue(WebHostingProvider::githubPages), "github_pages");
    EXPECT_EQ(displayName(WebHostingProvider::custom), "Custom / Other");
    EXPECT_EQ(symbolName(WebHostingProvider::cloudflarePages), "bolt.horizontal.fill");
    for (const auto provider : allWebHostingProviders) {
        EXPECT_EQ(webHostingProvider(rawValue(provider)), provider);
        const std::string example(exampleSiteURL(provider));
        EXPECT_TRUE(example.ends_with(".example") || example.ends_with("example.com")) << example;
    }
}

TEST(ProfileFieldEditor, SetsTypedValuesAndExplainsMistakes) {
    auto profile = ProjectProfile::create("Foo", "com.example.foo");
    ProfileFieldEditor::set(profile, "sparkle.appcastPath", "~/site/downloads/appcast.xml");
    ProfileFieldEditor::set(profile, "notarization.enabled", "true");
    ProfileFieldEditor::set(profile, "webDeploy.provider", "vercel");
    ProfileFieldEditor::set(profile, "dmgDesign.appIconPosition", "150.5, 261");
    ProfileFieldEditor::set(profile, "dmgDesign.iconSize", "96");
    testing::TempDir dir;
    std::filesystem::create_directories(dir / "Foo.xcodeproj");
    // A folder holding exactly one project is stored as that project.
    ProfileFieldEditor::set(profile, "sourceProjectPath", dir.path().string());
    EXPECT_EQ(profile.sourceProjectPath, (dir / "Foo.xcodeproj").string());
    EXPECT_EQ(profile.sparkle.appcastPath, "~/site/downloads/appcast.xml");
    EXPECT_TRUE(profile.notarization.enabled);
    EXPECT_EQ(profile.webDeploy.provider, WebHostingProvider::vercel);
    EXPECT_EQ(profile.dmgDesign.appIconPosition, (Point{150.5, 261}));
    EXPECT_EQ(ProfileFieldEditor::get(profile, "dmgDesign.appIconPosition"), "150.5,261");
    EXPECT_EQ(ProfileFieldEditor::get(profile, "dmgDesign.iconSize"), "96");
    ProfileFieldEditor::set(profile, "sourceProjectPath", "");
    EXPECT_FALSE(profile.sourceProjectPath);

    const auto message = [&](const char* key, const char* value) {
        try {
            ProfileFieldEditor::set(profile, key, value);
        } catch (const VeltraError& error) {
            return std::string(error.what());
        }
        return std::string("accepted");
    };
    EXPECT_EQ(message("webDeploy.provider", "heroku"),
              "Invalid value 'heroku' for webDeploy.provider. Valid values: cloudflare, vercel, "
              "netlify, github_pages, custom.");
    EXPECT_EQ(message("notarization.enabled", "yes"),
              "Invalid value 'yes' for notarization.enabled. Expected true or false.");
    EXPECT_EQ(message("dmgDesign.windowWidth", "wide"),
              "Invalid value 'wide' for dmgDesign.windowWidth. Expected a number.");
    EXPECT_EQ(message("dmgDesign.appIconPosition", "1;2"),
              "Invalid value '1;2' for dmgDesign.appIconPosition. Expected a point written x,y "
              "(for example 150,260).");
    EXPECT_TRUE(
        message("colour", "red").starts_with("Unknown key 'colour'. Valid keys: name, appName,"));

    // Values that would fail much later are refused here, naming the key and the rule.
    const std::vector<std::pair<std::pair<const char*, const char*>, std::string>> refusals{
        {{"name", " "}, "a profile needs a name"},
        {{"bundleIdentifier", "not a bundle id!"},
         "only letters, digits, '-' and '.' (for example com.example.app)"},
        {{"bundleIdentifier", "com..example"},
         "its parts are separated by single dots, none empty"},
        {{"dmgDesign.iconSize", "-5"}, "it must be a number from 16 to 512"},
        {{"dmgDesign.windowWidth", "0"}, "it must be a number from 100 to 4000"},
        {{"dmgDesign.compressionFormat", "ZIP"}, ""},
        {{"sparkle.minimumSystemVersion", "banana"},
         "it must be a macOS version such as 13.0 or 14.2.1"},
        {{"sparkle.downloadURLPattern", "notaurl"},
         "it must be an absolute http:// or https:// address"},
        {{"webDeploy.siteURL", "ftp://example.com/"},
         "it must be an absolute http:// or https:// address"},
        {{"webDeploy.gitBranch", "a b..c"}, ""},
        {{"sourceProjectPath", "/does/not/exist"}, "there is no such project or folder"},
        {{"dmgDesign.dropLinkPosition", "900,100"},
         "dmgDesign.dropLinkPosition (900,100) would be outside the 660x400 window"},
    };
    for (const auto& [assignment, rule] : refusals) {
        const auto& [key, value] = assignment;
        SCOPED_TRACE(key);
        const auto refused = message(key, value);
        EXPECT_TRUE(refused.starts_with("Invalid value")) << refused;
        EXPECT_NE(refused.find(key), std::string::npos) << refused;
        EXPECT_NE(refused.find(rule), std::string::npos) << refused;
    }
    EXPECT_EQ(message("sparkle.minimumSystemVersion", "14.2.1"), "accepted");
    EXPECT_EQ(message("webDeploy.siteURL", ""), "accepted");
    EXPECT_EQ(message("sparkle.downloadURLPattern", "https://acme.example/d/{dmg}"), "accepted");
    EXPECT_EQ(profile.webDeploy.provider, WebHostingProvider::vercel)
        << "a refused value changes nothing";
}

} // namespace
} // namespace veltra
