#include "AppleTools.h"
#include "core/signing/NotarizationEngine.h"
#include "core/support/FileUtilities.h"
#include "core/support/StopToken.h"
#include "core/support/VeltraError.h"

#include <chrono>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>

namespace veltra {
namespace {

using testing::writeFile;
using Lines = std::vector<std::string>;

TEST(NotaryFailure, Classifies) {
    EXPECT_EQ(NotaryFailure::classify("Error: 401 Unable to authenticate. Network problem?"),
              NotaryFailure::invalidCredentials);
    EXPECT_EQ(NotaryFailure::classify("Error: HTTP status code: 401. Invalid credentials. Username "
                                      "or password is incorrect."),
              NotaryFailure::invalidCredentials);
    EXPECT_EQ(NotaryFailure::classify("No Keychain password item found for profile: X"),
              NotaryFailure::missingProfile);
    EXPECT_EQ(NotaryFailure::classify("The profile 'x' could not find its keychain item"),
              NotaryFailure::missingProfile);
    EXPECT_EQ(NotaryFailure::classify("Profile not found"), NotaryFailure::missingProfile);
    EXPECT_EQ(NotaryFailure::classify("Code=-1009 \"The Internet connection appears to be "
                                      "offline.\""),
              NotaryFailure::connection);
    EXPECT_EQ(NotaryFailure::classify("The command did not finish within 20 seconds."),
              NotaryFailure::connection);
    EXPECT_EQ(NotaryFailure::classify("Something else"), NotaryFailure::unknown);
    EXPECT_EQ(NotaryFailure::classify(""), NotaryFailure::unknown);
}

// The progress lines of output read in these chunks, assembled into lines as the runner does.
Lines filtered(const std::vector<std::string>& chunks) {
    Lines lines;
    NotaryLogFilter filter([&lines](const std::string& line) { lines.push_back(line); });
    const std::function<void(std::string_view)> onLine = [&filter](std::string_view line) {
        filter.consume(line);
    };
    LineAssembler assembler(onLine);
    for (const auto& chunk : chunks) {
        assembler.consume(chunk);
    }
    assembler.finish();
    return lines;
}

TEST(NotaryLogFilter, EachProgressLineOnce) {
    EXPECT_EQ(filtered({"  id: 1234abcd\n", "Current status: In Progress...\n",
                        "Current status: In Progress...\n",
                        "  id: 2f3c6a1e-0b7d-4f55-9a5e-3c1d2e4f5a6b\n  id: "
                        "2f3c6a1e-0b7d-4f55-9a5e-3c1d2e4f5a6b\n",
                        "  status: Accepted\n  status: accepted\n"}),
              (Lines{"   Waiting for Apple Notary processing...",
                     "   Success: Submission ID: 2f3c6a1e-0b7d-4f55-9a5e-3c1d2e4f5a6b",
                     "   Success: Apple Notarization accepted"}));
    // One line can fire several tests; Invalid is logged every time.
    EXPECT_EQ(filtered({"Current status: In Progress...Current status: Invalid...\n",
                        "  status: Invalid"}),
              (Lines{"   Waiting for Apple Notary processing...",
                     "   Error: Apple Notarization marked as Invalid",
                     "   Error: Apple Notarization marked as Invalid"}));
}

class NotarizationRun : public testing::AppleToolsTest {
protected:
    NotarizationRun() {
        fake("VELTRA_FAKE_KEYCHAIN", (dir / "keychain").string());
        fake("VELTRA_FAKE_COUNTERS", (dir / "counters").string());
        writeFile(dir / "Acme-1.2.3.dmg", "disk image");
        // Passing failures are tried again within a fraction of a second here.
        engine.stapleRetry =
            engine.networkRetry = {std::chrono::milliseconds(5), std::chrono::milliseconds(20),
                                   std::chrono::milliseconds(300)};
    }

    void store() {
        NotarizationEngine().storeCredentials("acme-notary", "jane@example.com",
                                              "abcd-efgh-ijkl-mnop", "AB12CD34EF", record());
    }

    NotaryLog record() {
        return [this](const std::string& line) {
            const std::lock_guard guard(lock);
            log.push_back(line);
        };
    }

    VeltraError notarizeFailure() {
        try {
            engine.notarize(dir / "Acme-1.2.3.dmg", "acme-notary", record());
        } catch (const VeltraError& error) {
            return error;
        }
        return {"none", 0, "no error"};
    }

    NotarizationEngine engine;
    std::mutex lock;
    Lines log;
};

TEST_F(NotarizationRun, PassingFailuresAreTriedAgainNeverResubmitted) {
    store();
    // The ticket of a fresh verdict is not served yet: stapling waits for it.
    fake("VELTRA_FAKE_STAPLER", "propagating");
    fake("VELTRA_FAKE_STAPLER_TIMES", "2");
    engine.stapleRetry.total = std::chrono::minutes(5); // a slow machine does not cut it short
    engine.notarize(dir / "Acme-1.2.3.dmg", "acme-notary", record());
    auto runs = runsOf("xcrun");
    EXPECT_EQ(
        std::ranges::count(runs, Lines{"stapler", "staple", (dir / "Acme-1.2.3.dmg").string()}), 3);
    EXPECT_EQ(std::ranges::count_if(log,
                                    [](const std::string& line) {
                                        return line.starts_with(
                                            "   Info: Stapling failed (Processing: ");
                                    }),
              2);
    EXPECT_EQ(log.back(), "   Success: Gatekeeper ticket successfully stapled to Acme-1.2.3.dmg");

    // The network goes while waiting: the submission is followed by its ID, never sent twice.
    std::filesystem::remove(dir / "tools.log");
    log.clear();
    fake("VELTRA_FAKE_STAPLER", "");
    fake("VELTRA_FAKE_NOTARY", "drop-connection");
    fake("VELTRA_FAKE_NOTARY_OFFLINE_TIMES", "2");
    engine.networkRetry.total = std::chrono::minutes(5);
    engine.notarize(dir / "Acme-1.2.3.dmg", "acme-notary", record());
    runs = runsOf("xcrun");
    Lines verbs;
    for (const auto& run : runs) {
        verbs.push_back(run.at(0) + " " + run.at(1));
    }
    EXPECT_EQ(verbs, (Lines{"notarytool submit", "notarytool info", "notarytool info",
                            "notarytool info", "stapler staple"}));
    EXPECT_EQ(runs[1], (Lines{"notarytool", "info", "3f2b8c1e-7a4d-4e9b-9c21-5d6e7f809a1b",
                              "--keychain-profile", "acme-notary"}));
    EXPECT_NE(std::ranges::find(log, "   Info: The connection to Apple's notary service broke "
                                     "while waiting; following submission "
                                     "3f2b8c1e-7a4d-4e9b-9c21-5d6e7f809a1b..."),
              log.end());

    // Offline for longer than the retries last: the submission's failure, still sent once.
    std::filesystem::remove(dir / "tools.log");
    fake("VELTRA_FAKE_NOTARY_OFFLINE_TIMES", "1000");
    engine.networkRetry.total = std::chrono::milliseconds(100);
    EXPECT_EQ(notarizeFailure().code(), 502);
    EXPECT_EQ(std::ranges::count_if(runsOf("xcrun"),
                                    [](const Lines& run) { return run.at(1) == "submit"; }),
              1);
}

// notarytool's lines reach the filter whole wherever the reads split them.
TEST_F(NotarizationRun, EveryLineSplitAtEveryByteReadsTheSame) {
    store();
    for (const auto* verdict : {"", "invalid"}) {
        SCOPED_TRACE(verdict);
        fake("VELTRA_FAKE_NOTARY", verdict);
        const auto output =
            ProcessRunner::run("xcrun", {"notarytool", "submit", (dir / "Acme-1.2.3.dmg").string(),
                                         "--keychain-profile", "acme-notary", "--wait"})
                .output;
        const auto whole = filtered({output});
        ASSERT_GE(whole.size(), 3u);
        for (std::size_t at = 0; at <= output.size(); ++at) {
            ASSERT_EQ(filtered({output.substr(0, at), output.substr(at)}), whole) << at;
        }
    }
}

TEST_F(NotarizationRun, StoresAnAppStoreConnectAPIKey) {
    writeFile(dir / "AuthKey_ABC123.p8", "key");
    NotarizationEngine().storeAPIKeyCredentials("acme-api", dir / "AuthKey_ABC123.p8", "ABC123",
                                                "69a6de7e-0000-47e3-e053-5b8c7c11a4d1", record());
    EXPECT_EQ(runsOf("xcrun").back(),
              (Lines{"notarytool", "store-credentials", "acme-api", "--key",
                     (dir / "AuthKey_ABC123.p8").string(), "--key-id", "ABC123", "--issuer",
                     "69a6de7e-0000-47e3-e053-5b8c7c11a4d1"}));
    EXPECT_EQ(readFile(dir / "keychain" / "acme-api.secret"), "key ABC123\n");
    EXPECT_TRUE(NotarizationEngine().credentialsExist("acme-api", 20.0));
    try {
        NotarizationEngine().storeAPIKeyCredentials("acme-api", dir / "missing.p8", "ABC123",
                                                    "issuer", record());
        FAIL() << "stored";
    } catch (const VeltraError& error) {
        EXPECT_EQ(error.code(), 401);
        EXPECT_STREQ(error.what(),
                     "Error: The file couldn't be opened because there is no such file.");
    }
}

TEST_F(NotarizationRun, StoresChecksSubmitsAndStaples) {
    EXPECT_FALSE(NotarizationEngine().credentialsExist("acme-notary"));
    store();
    EXPECT_EQ(log, (Lines{"Storing notarization credentials in macOS Keychain...",
                          "Success: Credentials stored under profile 'acme-notary'"}));
    // The password is typed at notarytool's prompt on its terminal, not passed.
    EXPECT_EQ(runsOf("xcrun").back(),
              (Lines{"notarytool", "store-credentials", "acme-notary", "--apple-id",
                     "jane@example.com", "--team-id", "AB12CD34EF"}));
    EXPECT_EQ(readFile(dir / "keychain" / "acme-notary.secret"), "abcd-efgh-ijkl-mnop\n");
    EXPECT_TRUE(NotarizationEngine().credentialsExist("acme-notary", 20.0));
    EXPECT_EQ(runsOf("xcrun").back(), (Lines{"notarytool", "history", "--keychain-profile",
                                             "acme-notary", "--output-format", "json"}));

    log.clear();
    const auto file = dir / "Acme-1.2.3.dmg";
    NotarizationEngine().notarize(file, "acme-notary", record());
    EXPECT_EQ(log, (Lines{"   Submitting Acme-1.2.3.dmg to Apple Notary Service (profile: "
                          "'acme-notary')...",
                          "   Success: Submission ID: 3f2b8c1e-7a4d-4e9b-9c21-5d6e7f809a1b",
                          "   Waiting for Apple Notary processing...",
                          "   Success: Apple Notarization accepted",
                          "   Stapling Gatekeeper ticket to Acme-1.2.3.dmg...",
                          "   Success: Gatekeeper ticket successfully stapled to Acme-1.2.3.dmg"}));
    const auto runs = runsOf("xcrun");
    EXPECT_EQ(runs[runs.size() - 2], (Lines{"notarytool", "submit", file.string(),
                                            "--keychain-profile", "acme-notary", "--wait"}));
    EXPECT_EQ(runs.back(), (Lines{"stapler", "staple", file.string()}));
}

TEST_F(NotarizationRun, InvalidVerdictFailsThoughTheToolExitsZero) {
    store();
    fake("VELTRA_FAKE_NOTARY", "invalid");
    const auto error = notarizeFailure();
    EXPECT_EQ(error.code(), 502);
    const std::string message = error.message();
    EXPECT_TRUE(message.starts_with("Notarization failed or was marked Invalid:\nConducting "
                                    "pre-submission checks for Acme-1.2.3.dmg"));
    EXPECT_TRUE(message.ends_with("  status: Invalid\n\n"))
        << "standard output, \\n, standard error";
    EXPECT_EQ(runsOf("xcrun").back().at(0), "notarytool") << "nothing was stapled";
}

TEST_F(NotarizationRun, SubmissionAndStaplingFailures) {
    const auto missing = notarizeFailure();
    EXPECT_EQ(missing.code(), 502);
    EXPECT_EQ(std::string(missing.message()),
              "Notarization failed or was marked Invalid:\n\nError: No Keychain password item "
              "found for profile: acme-notary\n");
    EXPECT_EQ(NotaryFailure::classify(missing.message()), NotaryFailure::missingProfile);

    store();
    fake("VELTRA_FAKE_STAPLER", "fail");
    const auto staple = notarizeFailure();
    EXPECT_EQ(staple.code(), 503);
    EXPECT_EQ(std::string(staple.message()),
              "Stapling failed: Processing: " + (dir / "Acme-1.2.3.dmg").string() +
                  "\nCloudKit query for Acme-1.2.3.dmg "
                  "(2/0123456789abcdef0123456789abcdef01234567) failed due to \"Record not "
                  "found\".\nCould not find base64 encoded ticket in response for "
                  "2/0123456789abcdef0123456789abcdef01234567\nThe staple and validate action "
                  "failed! Error 65.");
}

TEST_F(NotarizationRun, APasswordWithALineBreakIsRefusedNotCut) {
    for (const auto& password : {std::string("abcd-efgh\nijkl-mnop"), std::string("abcd-efgh\r"),
                                 std::string("a\0b", 3)}) {
        try {
            NotarizationEngine().storeCredentials("acme-notary", "jane@example.com", password,
                                                  "AB12CD34EF", record());
            ADD_FAILURE() << "stored";
        } catch (const VeltraError& error) {
            EXPECT_EQ(error.message(),
                      "The app-specific password holds a line break, so it cannot be the one "
                      "Apple gave; nothing was stored. Give it on one line.");
        }
    }
    EXPECT_TRUE(runsOf("xcrun").empty()) << "notarytool never ran";
}

TEST_F(NotarizationRun, StoringRefusedCredentials) {
    fake("VELTRA_FAKE_NOTARY", "invalid-credentials");
    try {
        store();
        FAIL() << "stored";
    } catch (const VeltraError& error) {
        EXPECT_EQ(error.code(), 401);
        EXPECT_EQ(std::string(error.message()),
                  "Error: HTTP status code: 401. Invalid credentials. Username or password is "
                  "incorrect. Use the app-specific password generated at appleid.apple.com. "
                  "Ensure that all authentication arguments are correct.");
    }
    EXPECT_EQ(log, Lines{"Storing notarization credentials in macOS Keychain..."});
    EXPECT_FALSE(NotarizationEngine().credentialsExist("acme-notary"));
}

TEST_F(NotarizationRun, ProfileCheckFailuresAreFalse) {
    store();
    {
        fake("VELTRA_FAKE_NOTARY", "offline");
        EXPECT_FALSE(NotarizationEngine().credentialsExist("acme-notary"));
        const auto offline = NotarizationEngine().checkCredentials("acme-notary");
        EXPECT_EQ(NotaryFailure::classify(offline.errorOutput), NotaryFailure::connection);
    }
    fake("VELTRA_FAKE_NOTARY", "");
    // Far beyond the limit, so only the time limit can end the check early.
    fake("VELTRA_FAKE_NOTARY_DELAY", "60");
    const auto started = std::chrono::steady_clock::now();
    EXPECT_FALSE(NotarizationEngine().credentialsExist("acme-notary", 0.3));
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(30));
}

TEST_F(NotarizationRun, CancellingTheWaitKillsNotarytool) {
    store();
    fake("VELTRA_FAKE_NOTARY_DELAY", "60");
    StopSource stop;
    JThread canceller([&stop] {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        stop.request_stop();
    });
    const auto started = std::chrono::steady_clock::now();
    EXPECT_THROW(NotarizationEngine().notarize(dir / "Acme-1.2.3.dmg", "acme-notary", record(),
                                               stop.get_token()),
                 CancellationError);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(30));
}

} // namespace
} // namespace veltra
