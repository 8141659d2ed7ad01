#include "TestSupport.h"
#include "core/publishing/ReleasePublishingPlan.h"
#include "core/publishing/WebDeployer.h"
#include "core/support/Text.h"
#include "core/support/VeltraError.h"

#include <gtest/gtest.h>

namespace veltra {
namespace {

using Lines = std::vector<std::string>;

class DeliveryPlan : public ::testing::Test {
protected:
    DeliveryPlan() {
        profile.outputDirectory = (dir / "Veltra" / "Acme").string();
        std::filesystem::create_directories(profile.outputDirectory);
    }

    std::optional<std::filesystem::path> resolve() {
        log.clear();
        return ReleasePublishingPlan::resolveRepository(
            profile, [this](const std::string& line) { log.push_back(line); });
    }

    testing::TempDir dir;
    ProjectProfile profile = ProjectProfile::create("Acme", "com.example.acme");
    Lines log;
};

TEST_F(DeliveryPlan, RepositoryIsConfiguredHealedDetectedOrNone) {
    const auto releases = dir / "Veltra";
    profile.webDeploy.websiteRepoPath = (dir / "site").string();
    std::filesystem::create_directories(dir / "site");
    EXPECT_EQ(resolve(), dir / "site");
    EXPECT_EQ(log, Lines{"Success: Using configured website repo: " + (dir / "site").string()});

    // Gone, with nothing to heal to; a "website" folder that is neither a repository nor a page
    // does not count.
    std::filesystem::remove_all(dir / "site");
    std::filesystem::create_directories(releases / "website");
    EXPECT_EQ(resolve(), std::nullopt);
    EXPECT_EQ(log, Lines{"Warning: Configured website repo path does not exist: " +
                         (dir / "site").string() + ". Skipping Sparkle & web deploy steps."});

    // Another app's site in the shared folder is never used, and the run stops saying so.
    testing::writeFile(releases / "website" / "index.html",
                       "<a href=\"downloads/Other.dmg?v=3\">Download</a>");
    try {
        resolve();
        FAIL() << "healed to another app's site";
    } catch (const VeltraError& error) {
        EXPECT_EQ(error.message(), "The website repository configured for Acme (" +
                                       (dir / "site").string() + ") does not exist, and " +
                                       (releases / "website").string() +
                                       " is not Acme's site: neither its feed nor its download "
                                       "page offers Acme.dmg. Set webDeploy.websiteRepoPath to "
                                       "this app's website repository.");
    }
    // This app's own: its page links the app's download, or its feed offers it.
    testing::writeFile(releases / "website" / "index.html",
                       "<a href=\"downloads/Acme.dmg?v=3\">Download</a>");
    EXPECT_EQ(resolve(), releases / "website");
    EXPECT_EQ(log, Lines{"Success: Auto-healed website repo location inside Veltra directory: " +
                         (releases / "website").string()});
    testing::writeFile(releases / "website" / "index.html", "<html></html>");
    testing::writeFile(releases / "website" / "downloads" / "appcast.xml",
                       "<rss xmlns:sparkle=\"http://www.andymatuschak.org/xml-namespaces/sparkle\">"
                       "<channel><item><sparkle:version>3</sparkle:version><enclosure "
                       "url=\"https://acme.test/downloads/Acme.dmg?v=3\" length=\"1\" "
                       "sparkle:edSignature=\"S\"/></item></channel></rss>");
    EXPECT_EQ(resolve(), releases / "website");

    // Nothing configured: another app's site is passed over, this app's own is found.
    profile.webDeploy.websiteRepoPath = "  ";
    testing::writeFile(releases / "website" / "downloads" / "appcast.xml", "<rss/>");
    EXPECT_EQ(resolve(), std::nullopt);
    EXPECT_EQ(log.front(), "Info: " + (releases / "website").string() +
                               " is another app's website, not used for Acme.");
    std::filesystem::remove_all(releases / "website");
    std::filesystem::create_directories(releases / "Acme-website" / ".git");
    testing::writeFile(releases / "Acme-website" / "index.html",
                       "<a href=\"downloads/Acme.dmg\">Download</a>");
    EXPECT_EQ(resolve(), releases / "Acme-website");
    EXPECT_EQ(log, Lines{"Success: Detected website repo in Veltra directory: " +
                         (releases / "Acme-website").string()});

    std::filesystem::remove_all(releases / "Acme-website");
    EXPECT_EQ(resolve(), std::nullopt);
    EXPECT_EQ(log, Lines{"Info: No website repository configured. Skipping Sparkle signing & web "
                         "deploy steps."});
}

TEST_F(DeliveryPlan, PublicAddressesJoinWithOneSlash) {
    struct Row {
        const char* site;
        const char* downloads;
        std::string base;
    };
    for (const auto& row : {
             Row{"https://acme.test", "downloads", "https://acme.test/downloads/"},
             Row{" https://acme.test/\n", "/files/", "https://acme.test/files/"},
             Row{"https://acme.test/app/", "", "https://acme.test/app/downloads/"},
             Row{"https://www.example.com", "downloads", ""},
             Row{"", "downloads", ""},
         }) {
        SCOPED_TRACE(row.site);
        profile.webDeploy.siteURL = row.site;
        profile.webDeploy.downloadsRelativePath = row.downloads;
        const auto plan = ReleasePublishingPlan::publicAddresses(profile);
        EXPECT_EQ(plan.downloadBaseURL, row.base);
        EXPECT_EQ(plan.publicAppcastURL, row.base.empty() ? "" : row.base + "appcast.xml");
        // The default patterns name the example host: derived from the site instead.
        EXPECT_EQ(plan.downloadURLPattern, row.base.empty() ? "" : row.base + "{dmg}");
        EXPECT_EQ(plan.releaseNotesURLPattern, row.base.empty() ? "" : row.base + "{app}.md");
    }

    profile.webDeploy.siteURL = "https://acme.test";
    profile.sparkle.downloadURLPattern = "https://cdn.acme.test/{dmg}?from={dmg}";
    const auto plan = ReleasePublishingPlan::publicAddresses(profile);
    EXPECT_EQ(plan.downloadURL("Acme.dmg"), "https://cdn.acme.test/Acme.dmg?from=Acme.dmg");
    EXPECT_EQ(plan.releaseNotesURL("Acme-1.2"), "https://acme.test/downloads/Acme-1.2.md");
    EXPECT_EQ(ReleasePublishingPlan::expand("{app}/{app}{dmg}", "x.dmg", "{dmg}"),
              "{dmg}/{dmg}x.dmg");
}

TEST_F(DeliveryPlan, FeedLivesInTheDownloadsFolderOfTheRepository) {
    profile.webDeploy.websiteRepoPath = (dir / "site").string();
    profile.webDeploy.siteURL = "https://acme.test";
    profile.webDeploy.downloadsRelativePath = "files/";
    std::filesystem::create_directories(dir / "site");
    const auto plan = ReleasePublishingPlan::resolve(profile);
    ASSERT_TRUE(plan);
    EXPECT_EQ(plan->websiteRepoPath, dir / "site");
    EXPECT_EQ(plan->appcastPath, dir / "site" / "files" / "appcast.xml");
    EXPECT_EQ(plan->publicAppcastURL, "https://acme.test/files/appcast.xml");
}

// A release's file names go into feed addresses percent-encoded, and a feed's addresses lead
// back to files of the downloads folder only.
TEST_F(DeliveryPlan, SiteFilesAndTheirAddresses) {
    profile.webDeploy.siteURL = "https://apps.example.org/my";
    const auto addresses = ReleasePublishingPlan::publicAddresses(profile);
    const auto url = addresses.downloadURL(percentEncoded("My App #1?-1.0 \xC3\xA9.dmg"));
    EXPECT_EQ(url, "https://apps.example.org/my/downloads/My%20App%20%231%3F-1.0%20%C3%A9.dmg");
    EXPECT_EQ(WebDeployer::siteFileOf(addresses, profile.webDeploy, url),
              "downloads/My App #1?-1.0 \xC3\xA9.dmg");
    EXPECT_EQ(WebDeployer::siteFileOf(addresses, profile.webDeploy, url + "?v=3"),
              "downloads/My App #1?-1.0 \xC3\xA9.dmg");
    // Retention and withdraw remove only what items alone name, never the site's own files.
    SparkleFeedItem hostile;
    hostile.enclosureURL = "https://apps.example.org/my/downloads/appcast.xml";
    hostile.releaseNotesURL = "https://apps.example.org/my/downloads/icon.png";
    SparkleFeedItem old;
    old.enclosureURL = "https://apps.example.org/my/downloads/Acme-0.9.dmg";
    old.releaseNotesURL = "https://apps.example.org/my/downloads/Acme.md";
    EXPECT_EQ(
        WebDeployer::filesOnlyNamedBy(addresses, profile.webDeploy, "Acme", {hostile, old}, {}),
        std::vector<std::string>{"downloads/Acme-0.9.dmg"});
    for (const auto* outside :
         {"https://apps.example.org/my/downloads/..%2F..%2Fetc", "https://other.org/a.dmg",
          "https://apps.example.org/my/downloads/a/b.dmg",
          "https://apps.example.org/my/downloads/%zz"}) {
        EXPECT_EQ(WebDeployer::siteFileOf(addresses, profile.webDeploy, outside), std::nullopt)
            << outside;
    }
}

} // namespace
} // namespace veltra
