// Each prerequisite check in its states, against the stand-ins, the demo sandbox (real git, a
// real local web server) and real certificates made with OpenSSL.

#include "AppleTools.h"
#include "GitFixture.h"
#include "TestCertificates.h"
#include "core/demo/DemoSandbox.h"
#include "core/feed/SparklePrivateKey.h"
#include "core/pipeline/ReleaseDoctor.h"
#include "core/pipeline/SparkleKeys.h"
#include "core/process/ProcessRunner.h"
#include "core/support/FileUtilities.h"
#include "core/xcode/SparkleProjectSetup.h"

#include <sys/statvfs.h>

#include <gtest/gtest.h>

namespace veltra {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

const DoctorFinding* find(const std::vector<DoctorFinding>& all, const std::string& check) {
    for (const auto& finding : all) {
        if (finding.check == check) {
            return &finding;
        }
    }
    return nullptr;
}

std::string verdicts(const std::vector<DoctorFinding>& all) {
    std::string text;
    for (const auto& finding : all) {
        text += finding.check + ":" + std::string(rawValue(finding.verdict)) + " ";
    }
    return text;
}

constexpr auto developerID = "Developer ID Application: Jane Doe (AB12CD34EF)";

class Doctor : public testing::AppleToolsTest {
protected:
    void identities(const std::string& lines) {
        testing::writeFile(dir / "identities", lines);
        fake("VELTRA_FAKE_IDENTITIES", (dir / "identities").string());
    }
    void certificates(const std::string& pem) {
        testing::writeFile(dir / "certificates", pem);
        fake("VELTRA_FAKE_CERTIFICATES", (dir / "certificates").string());
    }

    ReleaseDoctor doctor;
};

TEST_F(Doctor, XcodeMustBeTheFullXcode) {
    auto found = doctor.xcode();
    EXPECT_EQ(found.verdict, DoctorVerdict::ok);
    EXPECT_EQ(found.found, "Xcode 16.2 (Build version 16C5032a) at "
                           "/Applications/Xcode.app/Contents/Developer");

    fake("VELTRA_FAKE_DEVELOPER_DIR", "/Library/Developer/CommandLineTools");
    found = doctor.xcode();
    EXPECT_EQ(found.verdict, DoctorVerdict::problem);
    EXPECT_EQ(found.found, "Only the command-line tools are selected "
                           "(/Library/Developer/CommandLineTools); archiving needs the full Xcode");
    EXPECT_NE(found.advice.find("sudo xcode-select --switch /Applications/Xcode.app"),
              std::string::npos);

    fake("VELTRA_FAKE_DEVELOPER_DIR", "/Applications/Xcode.app/Contents/Developer");
    fake("VELTRA_FAKE_XCODE", "license");
    found = doctor.xcode();
    EXPECT_EQ(found.verdict, DoctorVerdict::problem);
    EXPECT_EQ(found.advice, "Accept the license: sudo xcodebuild -license accept");

    fake("VELTRA_FAKE_XCODE_SELECT", "fail");
    found = doctor.xcode();
    EXPECT_EQ(found.verdict, DoctorVerdict::problem);
    EXPECT_NE(found.found.find("unable to get active developer directory"), std::string::npos)
        << found.found;
}

TEST_F(Doctor, SigningIdentitiesAndTheirCertificates) {
    certificates(testing::certificate(developerID, 200));
    auto found = doctor.signing(nullptr);
    EXPECT_EQ(verdicts(found), "Signing:ok Certificate:ok ");
    EXPECT_EQ(found[1].found, std::string("'") + developerID + "' valid for 200 more days");
    const auto asked = runsOf("security").back();
    EXPECT_EQ(asked, (std::vector<std::string>{"find-certificate", "-c", developerID, "-p"}));

    certificates(testing::certificate(developerID, 12));
    found = doctor.signing(nullptr);
    EXPECT_EQ(verdicts(found), "Signing:ok Certificate:warning ");
    EXPECT_EQ(found[1].found, std::string("'") + developerID + "' expires in 12 days");

    // Of two certificates under one name, the one that ends first decides.
    certificates(testing::certificate(developerID, 300) + testing::certificate(developerID, -3));
    found = doctor.signing(nullptr);
    EXPECT_EQ(verdicts(found), "Signing:ok Certificate:problem ");
    EXPECT_EQ(found[1].found, std::string("'") + developerID + "' expired 3 days ago");

    certificates("");
    EXPECT_EQ(verdicts(doctor.signing(nullptr)), "Signing:ok Certificate:warning ");

    // No Developer ID: a warning until notarization needs one.
    identities("  1) 89ABCDEF0123456789ABCDEF0123456789ABCDEF \"Apple Development: Jane Doe "
               "(ZY98XW76VU)\"\n     1 valid identities found\n");
    EXPECT_EQ(verdicts(doctor.signing(nullptr)), "Signing:warning ");
    auto profile = ProjectProfile::create("Acme", "com.example.acme");
    profile.notarization.enabled = true;
    EXPECT_EQ(verdicts(doctor.signing(&profile)), "Signing:problem ");

    // One name for two identities.
    certificates(testing::certificate(developerID, 200));
    identities(std::string("  1) 0123456789ABCDEF0123456789ABCDEF01234567 \"") + developerID +
               "\"\n  2) 1123456789ABCDEF0123456789ABCDEF01234567 \"" + developerID +
               "\"\n     2 valid identities found\n");
    found = doctor.signing(nullptr);
    EXPECT_EQ(verdicts(found), "Signing:ok Signing:warning Certificate:ok ");
    EXPECT_EQ(found[1].found, std::string("'") + developerID + "' names 2 identities");

    // A keychain that cannot be listed is a problem of its own, not "no identity".
    fake("VELTRA_FAKE_SECURITY", "fail");
    found = doctor.signing(nullptr);
    EXPECT_EQ(verdicts(found), "Signing:problem ");
    EXPECT_EQ(found[0].found,
              "Could not list the code-signing identities (security find-identity exited with 1): "
              "security: SecKeychainCopySearchList: A default keychain could not be found.");
}

TEST_F(Doctor, NotaryProfileAndTimeLimit) {
    auto profile = ProjectProfile::create("Acme", "com.example.acme");
    profile.notarization.enabled = true;
    profile.notarization.keychainProfileName = "AC_PASSWORD";
    fs::create_directories(dir / "keychain");
    fake("VELTRA_FAKE_KEYCHAIN", (dir / "keychain").string());
    EXPECT_EQ(doctor.notarization(profile).verdict, DoctorVerdict::problem);
    testing::writeFile(dir / "keychain" / "AC_PASSWORD", "stored");
    EXPECT_EQ(doctor.notarization(profile).found, "Keychain profile 'AC_PASSWORD' works");
    profile.notarization.keychainProfileName.clear();
    EXPECT_EQ(doctor.notarization(profile).found, "No keychain profile is set");

    // A check that hangs is a problem of its own; the other checks still answer.
    profile.notarization.keychainProfileName = "AC_PASSWORD";
    fake("VELTRA_FAKE_NOTARY_DELAY", "60");
    doctor.timeLimit = 300ms;
    const auto all = doctor.examine(&profile);
    ASSERT_TRUE(find(all, "Notarization"));
    EXPECT_EQ(find(all, "Notarization")->verdict, DoctorVerdict::problem);
    ASSERT_TRUE(find(all, "Xcode"));
    EXPECT_EQ(find(all, "Xcode")->verdict, DoctorVerdict::ok);
}

TEST_F(Doctor, GatekeeperOnTheNewestImageWithWhatARejectionMeans) {
    auto profile = ProjectProfile::create("Acme", "com.example.acme");
    EXPECT_TRUE(doctor.gatekeeper(profile).empty()) << "no release to ask about";
    const auto image = dir / "Acme-1.0.dmg";
    testing::writeFile(image, "image");
    ReleaseManifest release;
    release.dmgURL = image.string();
    profile.recentReleases = std::vector{release};
    // Never signed: Gatekeeper refuses it, and the doctor says why.
    auto found = doctor.gatekeeper(profile);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].verdict, DoctorVerdict::problem);
    EXPECT_EQ(found[0].found, "Acme-1.0.dmg: spctl (image): rejected (no usable signature): it is "
                              "not signed with a Developer ID; Gatekeeper will refuse to open "
                              "it. Sign with a Developer ID Application identity.");
    ASSERT_EQ(
        ProcessRunner::run("codesign", {"--force", "--sign", developerID, image.string()}).exitCode,
        0);
    found = doctor.gatekeeper(profile);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].verdict, DoctorVerdict::ok);
}

class DoctorWithSandbox : public Doctor {
protected:
    DoctorWithSandbox()
        : sandbox(dir / "sandbox", fs::path(VELTRA_SOURCE_DIR) / "share/demo/Sample") {
        profile = sandbox.profile();
    }
    DemoSandbox sandbox;
    ProjectProfile profile;
};

TEST_F(DoctorWithSandbox, SparkleKeyAndFeedAgainstWhatTheAppCarries) {
    // The sample is not set up for updates; the setup is the fix the doctor names.
    auto found = doctor.sparkle(profile);
    ASSERT_EQ(verdicts(found), "Sparkle:problem Sparkle:problem ");
    EXPECT_EQ(found[0].found, "Sparkle not in the project (target Sample)");
    EXPECT_EQ(found[0].advice, "Run 'veltra sparkle setup Sample'.");
    EXPECT_EQ(found[1].found, "The app carries neither SUFeedURL nor SUPublicEDKey");
    SparkleSetupRequest setup;
    setup.project = sandbox.project();
    setup.feedURL = sandbox.siteURL() + "downloads/appcast.xml";
    setup.publicKey = sandbox.publicKey();
    SparkleProjectSetup::apply(SparkleProjectSetup::plan(setup));

    found = doctor.sparkle(profile);
    EXPECT_EQ(verdicts(found), "Sparkle key:ok Sparkle feed:ok ");
    EXPECT_EQ(found[1].found, "The app reads " + sandbox.siteURL() + "downloads/appcast.xml");

    // A key file that is not the app's key: users could never update.
    SparklePrivateKey::createFile(dir / "other_key");
    auto other = profile;
    other.sparkle.privateKeyPath = (dir / "other_key").string();
    found = doctor.sparkle(other);
    EXPECT_EQ(verdicts(found), "Sparkle key:ok Sparkle key:problem Sparkle feed:ok ");
    EXPECT_NE(found[1].found.find("is not the key file's"), std::string::npos);
    other.sparkle.privateKeyPath = (dir / "missing_key").string();
    EXPECT_EQ(verdicts(doctor.sparkle(other)), "Sparkle key:problem Sparkle feed:ok ");

    // No key file named: the keychain's key, which a release then signs with.
    fake("VELTRA_FAKE_KEYCHAIN_DIR", (dir / "keychains").string());
    other.sparkle.privateKeyPath.clear();
    found = doctor.sparkle(other);
    EXPECT_EQ(verdicts(found), "Sparkle key:problem Sparkle feed:ok ");
    EXPECT_EQ(found[0].advice, "Run 'veltra sparkle keys generate', or set "
                               "sparkle.privateKeyPath to a key file.");
    SparkleKeys::importFile(sandbox.privateKey(), "ed25519");
    found = doctor.sparkle(other);
    EXPECT_EQ(verdicts(found), "Sparkle key:ok Sparkle feed:ok ");
    EXPECT_TRUE(found[0].found.starts_with("the login keychain (account ed25519) reads"))
        << found[0].found;

    // The app reads one address, releases go to another.
    other = profile;
    other.webDeploy.siteURL = "https://acme.example.org/";
    found = doctor.sparkle(other);
    EXPECT_EQ(verdicts(found), "Sparkle key:ok Sparkle feed:problem ");
    EXPECT_EQ(found[1].found, "The app reads " + sandbox.siteURL() +
                                  "downloads/appcast.xml, but releases publish "
                                  "https://acme.example.org/downloads/appcast.xml");
    other.webDeploy.siteURL.clear();
    EXPECT_EQ(verdicts(doctor.sparkle(other)), "Sparkle key:ok Sparkle feed:warning ");

    // An app without Sparkle's settings.
    const auto plist = sandbox.project().parent_path() / "Sample" / "Info.plist";
    testing::writeFile(plist, "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist "
                              "version=\"1.0\"><dict></dict></plist>\n");
    found = doctor.sparkle(profile);
    EXPECT_EQ(verdicts(found), "Sparkle:problem ");
    EXPECT_EQ(found[0].advice, "Run 'veltra sparkle setup Sample'.");
}

// The folder holding the project satisfies no release: the doctor says so, and how to fix it.
TEST_F(DoctorWithSandbox, TheProjectIsAProject) {
    EXPECT_EQ(verdicts(doctor.project(profile)), "Project:ok ");
    auto folder = profile;
    folder.sourceProjectPath = sandbox.project().parent_path().string();
    const auto found = doctor.project(folder);
    ASSERT_EQ(verdicts(found), "Project:problem ");
    EXPECT_EQ(found[0].found,
              *folder.sourceProjectPath +
                  " is a folder, not an Xcode project (.xcodeproj or .xcworkspace)");
    EXPECT_EQ(found[0].advice, "Run 'veltra profile set Sample sourceProjectPath=" +
                                   *folder.sourceProjectPath + "' to store the project it holds.");
    folder.sourceProjectPath = (dir / "Gone.xcodeproj").string();
    EXPECT_EQ(verdicts(doctor.project(folder)), "Project:problem ");
    folder.sourceProjectPath.reset();
    EXPECT_EQ(verdicts(doctor.project(folder)), "");
}

TEST_F(DoctorWithSandbox, WebsiteOriginLiveFeedAndNextBuild) {
    auto found = doctor.website(profile);
    EXPECT_EQ(verdicts(found),
              "Website:ok Website origin:ok Live feed:ok Live downloads:ok Next build:ok ");
    EXPECT_EQ(find(found, "Live feed")->found,
              sandbox.siteURL() + "downloads/appcast.xml reads, no release yet");
    EXPECT_EQ(find(found, "Next build")->found,
              "The next release must use build 2 or above (the project has 1)");

    // A live site that does not answer: expected before a first release.
    auto other = profile;
    other.webDeploy.siteURL = "http://127.0.0.1:9/";
    EXPECT_EQ(find(doctor.website(other), "Live feed")->verdict, DoctorVerdict::warning);

    // origin gone.
    testing::git(sandbox.website(), {"remote", "set-url", "origin", (dir / "gone.git").string()});
    found = doctor.website(profile);
    EXPECT_EQ(find(found, "Website origin")->verdict, DoctorVerdict::problem);
    testing::git(sandbox.website(), {"remote", "set-url", "origin", sandbox.origin().string()});

    // Another branch checked out.
    testing::git(sandbox.website(), {"checkout", "--quiet", "-b", "draft"});
    found = doctor.website(profile);
    EXPECT_EQ(verdicts(found), "Website:problem ");

    // No website repository at all.
    other = ProjectProfile::create("Lone", "com.example.lone");
    other.outputDirectory = (dir / "elsewhere" / "out").string();
    EXPECT_EQ(verdicts(doctor.website(other)), "Website:warning ");
}

TEST_F(Doctor, GitHubLogin) {
    auto profile = ProjectProfile::create("Acme", "com.example.acme");
    profile.githubRelease.enabled = true;
    EXPECT_EQ(doctor.github(&profile).found, "gh is installed and logged in");
    fake("VELTRA_FAKE_GH", "not-logged-in");
    EXPECT_EQ(doctor.github(&profile).verdict, DoctorVerdict::problem);
    EXPECT_EQ(doctor.github(nullptr).verdict, DoctorVerdict::warning);
    EXPECT_EQ(doctor.github(nullptr).advice, "Run 'gh auth login'.");
}

TEST_F(Doctor, DiskRoomForThreeImages) {
    doctor.temporaryDirectory = dir.path();
    struct statvfs space {};
    ASSERT_EQ(::statvfs(dir.path().c_str(), &space), 0);
    const auto free = static_cast<std::int64_t>(space.f_bavail * space.f_frsize);
    auto profile = ProjectProfile::create("Acme", "com.example.acme");
    EXPECT_EQ(doctor.disk(&profile).verdict, DoctorVerdict::ok);
    const auto withImage = [&](std::int64_t size) {
        ReleaseManifest release;
        release.dmgFileSize = size;
        profile.recentReleases = std::vector{release};
        return doctor.disk(&profile).verdict;
    };
    EXPECT_EQ(withImage(free / 20), DoctorVerdict::ok);
    EXPECT_EQ(withImage(free / 4), DoctorVerdict::warning);
    EXPECT_EQ(withImage(free), DoctorVerdict::problem);
}

} // namespace
} // namespace veltra
