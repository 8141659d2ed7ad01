#pragma once

#include "core/process/ProcessRunner.h"
#include "core/process/TransientRetry.h"
#include "core/support/StopToken.h"

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace veltra {

using NotaryLog = std::function<void(const std::string&)>;

// What a notary tool failure means for the user.
class NotaryFailure {
public:
    enum Kind { invalidCredentials, missingProfile, connection, unknown };
    // Sorts the tool's words into one of the kinds; an authentication failure wins over a
    // network one.
    static Kind classify(std::string_view output);
    static std::string_view name(Kind kind);
};

// Turns a submission's output into at most four kinds of progress line. One per submission,
// given its lines one at a time.
class NotaryLogFilter {
public:
    explicit NotaryLogFilter(NotaryLog onLog) : onLog_(std::move(onLog)) {}
    void consume(std::string_view line);
    // The submission's ID, once a line has named it.
    const std::optional<std::string>& submissionID() const { return submissionID_; }

private:
    NotaryLog onLog_;
    std::optional<std::string> submissionID_{};
    bool loggedProcessing_ = false;
    bool loggedAccepted_ = false;
};

// Sends files to Apple's notary service and staples the ticket, naming only a keychain profile.
class NotarizationEngine {
public:
    // Throws VeltraError 401 with the tool's words when the credentials cannot be stored. The
    // password is typed at notarytool's own prompt on a pseudo-terminal, never passed as an
    // argument.
    void storeCredentials(const std::string& keychainProfile, const std::string& appleID,
                          const std::string& appPassword, const std::string& teamID,
                          const NotaryLog& onLog, StopToken stop = {}) const;
    // The App Store Connect API key form: the .p8 key file's path, its key ID and the issuer
    // ID, none of them secret on a command line. Throws as storeCredentials does.
    void storeAPIKeyCredentials(const std::string& keychainProfile,
                                const std::filesystem::path& keyFile, const std::string& keyID,
                                const std::string& issuer, const NotaryLog& onLog,
                                StopToken stop = {}) const;
    // Whether the profile works; never throws except CancellationError. `timeout` in seconds.
    bool credentialsExist(const std::string& keychainProfile, std::optional<double> timeout = {},
                          StopToken stop = {}) const;
    // The same check with the tool's words, for a screen that explains a failure.
    ProcessResult checkCredentials(const std::string& keychainProfile,
                                   std::optional<double> timeout = {}, StopToken stop = {}) const;
    // Submits, waits for the verdict and staples. Throws VeltraError 502 (failed or Invalid) or
    // 503 (stapling failed).
    void notarize(const std::filesystem::path& file, const std::string& keychainProfile,
                  const NotaryLog& onLog, StopToken stop = {}) const;
    // Finishes a submission made earlier (one whose wait was cancelled or timed out) instead of
    // submitting again: `notarytool info`, `notarytool wait` while it is in progress, then the
    // staple. Throws like notarize.
    void finishSubmission(const std::filesystem::path& file, const std::string& keychainProfile,
                          const std::string& submissionID, const NotaryLog& onLog,
                          StopToken stop = {}) const;

    // A ticket takes a while to reach Apple's servers after the verdict: stapling is tried
    // again for a few minutes while the tool says the record is not found.
    RetryPolicy stapleRetry{std::chrono::seconds(10), std::chrono::seconds(60),
                            std::chrono::minutes(4)};
    // A lost connection while following a submission: the same submission is asked for again.
    RetryPolicy networkRetry{std::chrono::seconds(5), std::chrono::seconds(60),
                             std::chrono::minutes(10)};

    // Called from the tool's reader thread with the submission's ID as soon as it is known.
    std::function<void(const std::string&)> onSubmissionID{};
    // The ID the tool names in its output ("  id: ..."), or nothing.
    static std::optional<std::string> submissionID(std::string_view output);

private:
    void staple(const std::filesystem::path& file, const NotaryLog& log, StopToken stop) const;
    // Runs notarytool store-credentials as `request` gives it, logging and judging the answer.
    void store(ProcessRequest request, const std::string& keychainProfile, const NotaryLog& onLog,
               StopToken stop) const;
};

} // namespace veltra
