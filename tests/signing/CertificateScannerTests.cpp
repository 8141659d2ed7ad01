#include "AppleTools.h"
#include "TestCertificates.h"
#include "core/signing/CertificateExpiry.h"
#include "core/signing/CertificateScanner.h"
#include "core/support/VeltraError.h"

#include <gtest/gtest.h>

namespace veltra {
namespace {

using testing::writeFile;

TEST(CertificateScanner, ParsesFindIdentityOutput) {
    const auto found = CertificateScanner::parseIdentities(
        "  1) 0123456789ABCDEF0123456789ABCDEF01234567 \"Developer ID Application: Jane Doe "
        "(AB12CD34EF)\"\n"
        "  2) 0123456789ABCDEF0123456789ABCDEF0123456 \"Too Short: Jane Doe (AB12CD34EF)\"\n"
        "  3) 89abcdef0123456789abcdef0123456789abcdef \"Mac Developer: Jane Doe (ZY98XW76VU)\"\n"
        "  4) 1123456789ABCDEF0123456789ABCDEF01234567 \"Developer ID Application: Acme "
        "(ab12cd34ef)\"\n"
        "  5) 2123456789ABCDEF0123456789ABCDEF01234567 \"-\"\n"
        "  6) 3123456789ABCDEF0123456789ABCDEF01234567 \"com.apple.idms.appleid.prd.0a1b (Team "
        "QW12ER34TY) (KL98MN76OP)\"\n"
        "     5 valid identities found\n");
    ASSERT_EQ(found.size(), 5u);

    EXPECT_EQ(found[0].hash, "0123456789ABCDEF0123456789ABCDEF01234567");
    EXPECT_EQ(found[0].name, "Developer ID Application: Jane Doe (AB12CD34EF)");
    EXPECT_TRUE(found[0].isDeveloperID);
    EXPECT_FALSE(found[0].isDevelopment);
    EXPECT_EQ(found[0].teamID, "AB12CD34EF");
    EXPECT_EQ(found[0].accountName, "Jane Doe");

    EXPECT_TRUE(found[1].isDevelopment);
    EXPECT_EQ(found[1].hash, "89abcdef0123456789abcdef0123456789abcdef");
    EXPECT_EQ(found[1].teamID, "ZY98XW76VU");

    EXPECT_TRUE(found[2].isDeveloperID);
    EXPECT_FALSE(found[2].teamID.has_value()) << "lower case is not a team ID";
    EXPECT_FALSE(found[2].accountName.has_value());

    EXPECT_TRUE(found[3].isAdHoc);
    EXPECT_FALSE(found[3].teamID.has_value());

    // No colon before a team: the first parenthesised ten-character value, no account.
    EXPECT_EQ(found[4].teamID, "KL98MN76OP");
    EXPECT_FALSE(found[4].accountName.has_value());

    EXPECT_TRUE(CertificateScanner::parseIdentities("     0 valid identities found\n").empty());
    EXPECT_TRUE(CertificateScanner::parseIdentities("").empty());
    // A longer hex run matches on its last forty digits, as a search would.
    const auto longer = CertificateScanner::parseIdentities(
        "F0123456789ABCDEF0123456789ABCDEF01234567 \"Apple Development: X (AB12CD34EF)\"");
    ASSERT_EQ(longer.size(), 1u);
    EXPECT_EQ(longer[0].hash, "0123456789ABCDEF0123456789ABCDEF01234567");
}

TEST(CertificateScanner, ClassifiesNames) {
    const auto adHoc = SigningCertificate::classify("h", "Sign to Run Locally (Ad-Hoc)");
    EXPECT_TRUE(adHoc.isAdHoc);
    const auto later = SigningCertificate::classify(
        "h", "3rd Party Mac Developer Application: A (B) : Jane Doe (AB12CD34EF)");
    EXPECT_TRUE(later.isDevelopment);
    EXPECT_EQ(later.teamID, "AB12CD34EF");
    EXPECT_EQ(later.accountName, "Jane Doe");
    const auto nine = SigningCertificate::classify("h", "Apple Development: Jane (AB12CD34E)");
    EXPECT_FALSE(nine.teamID.has_value());
}

SigningCertificate identity(const char* name) {
    return SigningCertificate::classify(std::string(40, 'A'), name);
}

TEST(CertificateScanner, BestTeamPrefersDeveloperID) {
    const auto best =
        CertificateScanner::bestTeam({identity("Apple Development: Jane Doe (AAAAAAAAAA)"),
                                      identity("Developer ID Application: Acme Inc (BBBBBBBBBB)")});
    ASSERT_TRUE(best.has_value());
    EXPECT_EQ(best->teamID, "BBBBBBBBBB");
    EXPECT_EQ(best->accountName, "Acme Inc");
    EXPECT_EQ(best->source, "Developer ID");

    EXPECT_EQ(CertificateScanner::bestTeam({identity("Developer ID Application: X (lower12345)"),
                                            identity("Mac Developer: Jane (CCCCCCCCCC)")})
                  ->source,
              "Apple Development");
    EXPECT_EQ(
        CertificateScanner::bestTeam({identity("Apple Distribution: Jane (DDDDDDDDDD)")})->source,
        "Signing Identity");
    EXPECT_FALSE(CertificateScanner::bestTeam({identity("-")}).has_value());
    EXPECT_FALSE(CertificateScanner::bestTeam({}).has_value());
}

// The one rule the pipeline, the team suggestion and the Studio's list share.
TEST(CertificateScanner, PreferenceOrderAndTheIdentityReleasesUse) {
    struct Row {
        const char* name;
        std::vector<const char*> keychain;
        std::vector<std::string> ordered;
        const char* chosen;
    };
    const char* dev = "Apple Development: Jane (AAAAAAAAAA)";
    const char* devID1 = "Developer ID Application: Acme (BBBBBBBBBB)";
    const char* devID2 = "Developer ID Application: Other (CCCCCCCCCC)";
    const char* distribution = "Apple Distribution: Jane (DDDDDDDDDD)";
    const std::vector<Row> rows{
        {"none", {}, {}, nullptr},
        {"Developer ID before development, keychain order within",
         {dev, devID1, distribution, devID2},
         {devID1, devID2, dev, distribution},
         devID1},
        {"development when there is no Developer ID",
         {distribution, dev},
         {dev, distribution},
         dev},
        {"nothing a release may sign with", {distribution, "-"}, {distribution, "-"}, nullptr},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::vector<SigningCertificate> all;
        for (const auto* name : row.keychain) {
            all.push_back(identity(name));
        }
        std::vector<std::string> ordered;
        for (const auto* certificate : CertificateScanner::byPreference(all)) {
            ordered.push_back(certificate->name);
        }
        EXPECT_EQ(ordered, row.ordered);
        const auto* chosen = CertificateScanner::preferredIdentity(all);
        EXPECT_EQ(chosen ? chosen->name : std::string("none"),
                  row.chosen ? row.chosen : std::string("none"));
    }
}

TEST(CertificateExpiry, WholeDaysForEachCertificate) {
    struct Row {
        const char* name;
        std::string pem;
        std::vector<std::int64_t> days;
    };
    const std::vector<Row> rows{
        {"nothing", "", {}},
        {"not a certificate", "-----BEGIN CERTIFICATE-----\nnot base64\n", {}},
        {"valid", testing::certificate("A", 200), {200}},
        {"expired", testing::certificate("A", -3), {-3}},
        {"each in order",
         testing::certificate("A", 12) + testing::certificate("B", 400),
         {12, 400}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(certificateDaysUntilExpiry(row.pem), row.days);
    }
}

class CertificateScannerRun : public testing::AppleToolsTest {};

TEST_F(CertificateScannerRun, ScansTheKeychains) {
    const auto all = CertificateScanner().scanIdentities();
    ASSERT_TRUE(all.has_value());
    ASSERT_EQ(all->size(), 2u);
    EXPECT_EQ(runsOf("security"), (std::vector<std::vector<std::string>>{
                                      {"find-identity", "-v", "-p", "codesigning"}}));
    EXPECT_EQ(CertificateScanner().detectBestTeamInfo()->teamID, "AB12CD34EF");

    // A tool that could not look is not "no identities".
    fake("VELTRA_FAKE_SECURITY", "fail");
    const auto failed = CertificateScanner().scanIdentities();
    ASSERT_FALSE(failed.has_value()) << "a failed scan listed identities";
    EXPECT_EQ(failed.error().code(), CertificateScanner::identitiesUnreadable);
    EXPECT_EQ(failed.error().message(),
              "Could not list the code-signing identities (security find-identity exited with 1): "
              "security: SecKeychainCopySearchList: A default keychain could not be found.");
    EXPECT_THROW(CertificateScanner().detectBestTeamInfo(), VeltraError);
}

TEST_F(CertificateScannerRun, ImportsACertificateBundle) {
    writeFile(dir / "cert.p12", "p12");
    const auto imported = CertificateScanner().importP12(dir / "cert.p12", "secret");
    EXPECT_EQ(imported.exitCode, 0);
    EXPECT_EQ(imported.output, "1 identity imported.\n");
    // The password travels on standard input, never as an argument.
    EXPECT_EQ(runsOf("security").back(), (std::vector<std::string>{"-i"}));
    EXPECT_EQ(interactiveRunsOf("security").back(),
              (std::vector<std::string>{"import", (dir / "cert.p12").string(), "-P", "secret", "-T",
                                        "/usr/bin/codesign"}));

    const auto wrong = CertificateScanner().importP12(dir / "cert.p12", "");
    EXPECT_EQ(wrong.exitCode, 1);
    EXPECT_EQ(interactiveRunsOf("security").back().at(3), "") << "an empty password is passed";
    // security's own words, without the "import: returned 1" its input mode adds.
    EXPECT_EQ(wrong.errorOutput, "security: SecKeychainItemImport: MAC verification failed "
                                 "during PKCS12 import (wrong password?)\n");

    // Quotes, backslashes and blanks reach security as they are; a line break cannot.
    writeFile(dir / "odd name \"\\ .p12", "p12");
    fake("VELTRA_FAKE_P12_PASSWORD", "a \"quoted\\ pass' word");
    EXPECT_EQ(CertificateScanner()
                  .importP12(dir / "odd name \"\\ .p12", "a \"quoted\\ pass' word")
                  .exitCode,
              0);
    EXPECT_EQ(interactiveRunsOf("security").back().at(1), (dir / "odd name \"\\ .p12").string());
    EXPECT_THROW(CertificateScanner().importP12(dir / "cert.p12", "two\nlines"), VeltraError);
}

} // namespace
} // namespace veltra
