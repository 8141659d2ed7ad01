#include "NotarizationEngine.h"

#include "core/support/Text.h"
#include "core/support/VeltraError.h"

#include <algorithm>

namespace veltra {

NotaryFailure::Kind NotaryFailure::classify(std::string_view output) {
    const auto lower = asciiLowercase(output);
    const auto any = [&](std::initializer_list<std::string_view> parts) {
        return std::any_of(parts.begin(), parts.end(),
                           [&](std::string_view part) { return contains(lower, part); });
    };
    if (any({"401", "invalid credentials", "username or password is incorrect"})) {
        return invalidCredentials;
    }
    if (any({"no keychain password item", "credentials not found in keychain"})) {
        return missingProfile;
    }
    if (contains(lower, "profile") && any({"not found", "could not find"})) {
        return missingProfile;
    }
    if (any({"timed out", "did not finish within", "timeout", "network", "connection", "offline",
             "could not resolve host", "internet"})) {
        return connection;
    }
    return unknown;
}

std::string_view NotaryFailure::name(Kind kind) {
    switch (kind) {
    case invalidCredentials:
        return "invalidCredentials";
    case missingProfile:
        return "missingProfile";
    case connection:
        return "connection";
    case unknown:
        break;
    }
    return "unknown";
}

void NotaryLogFilter::consume(std::string_view raw) {
    const auto log = [&](const std::string& line) {
        if (onLog_) {
            onLog_(line);
        }
    };
    const auto line = trimWhitespace(raw);
    if (!submissionID_ && line.starts_with("id: ")) {
        const auto id = trimWhitespace(line.substr(4));
        if (id.size() >= 10) {
            submissionID_ = std::string(id);
            log("   Success: Submission ID: " + *submissionID_);
        }
    }
    if (!loggedProcessing_ &&
        (contains(line, "Waiting for processing") || contains(line, "In Progress"))) {
        loggedProcessing_ = true;
        log("   Waiting for Apple Notary processing...");
    }
    if (!loggedAccepted_ &&
        (contains(line, "status: Accepted") || contains(line, "status: accepted"))) {
        loggedAccepted_ = true;
        log("   Success: Apple Notarization accepted");
    }
    if (contains(line, "status: Invalid")) {
        log("   Error: Apple Notarization marked as Invalid");
    }
}

void NotarizationEngine::storeCredentials(const std::string& keychainProfile,
                                          const std::string& appleID,
                                          const std::string& appPassword, const std::string& teamID,
                                          const NotaryLog& onLog, StopToken stop) const {
    // Typed at the tool's prompt, a line break would end the password early, and notarytool
    // would store the first line alone.
    if (appPassword.find_first_of(std::string_view("\n\r\0", 3)) != std::string::npos) {
        throw VeltraError("Veltra", errorCode::invalidSetup,
                          "The app-specific password holds a line break, so it cannot be the one "
                          "Apple gave; nothing was stored. Give it on one line.");
    }
    // Without --password notarytool asks for it at its terminal.
    ProcessRequest request;
    request.arguments = {"notarytool", "store-credentials", keychainProfile, "--apple-id",
                         appleID,      "--team-id",         teamID};
    request.terminalReply = ProcessRequest::TerminalReply{"password", appPassword};
    store(std::move(request), keychainProfile, onLog, stop);
}

void NotarizationEngine::storeAPIKeyCredentials(const std::string& keychainProfile,
                                                const std::filesystem::path& keyFile,
                                                const std::string& keyID, const std::string& issuer,
                                                const NotaryLog& onLog, StopToken stop) const {
    ProcessRequest request;
    request.arguments = {"notarytool", "store-credentials", keychainProfile,
                         "--key",      keyFile.string(),    "--key-id",
                         keyID,        "--issuer",          issuer};
    // Answers nothing, but keeps notarytool from waiting on the caller's terminal for
    // something it lacks.
    request.standardInput = "";
    store(std::move(request), keychainProfile, onLog, stop);
}

void NotarizationEngine::store(ProcessRequest request, const std::string& keychainProfile,
                               const NotaryLog& onLog, StopToken stop) const {
    const auto log = [&](const std::string& line) {
        if (onLog) {
            onLog(line);
        }
    };
    log("Storing notarization credentials in macOS Keychain...");
    request.command = "xcrun";
    const auto result = ProcessRunner::run(request, stop);
    if (result.exitCode != 0) {
        const auto err = trimWhitespace(result.errorOutput);
        throw VeltraError("Veltra", errorCode::notAuthorized,
                          std::string(err.empty() ? trimWhitespace(result.output) : err));
    }
    log("Success: Credentials stored under profile '" + keychainProfile + "'");
}

ProcessResult NotarizationEngine::checkCredentials(const std::string& keychainProfile,
                                                   std::optional<double> timeout,
                                                   StopToken stop) const {
    ProcessRequest request;
    request.command = "xcrun";
    request.arguments = {"notarytool",    "history",         "--keychain-profile",
                         keychainProfile, "--output-format", "json"};
    request.timeout = timeout;
    return ProcessRunner::run(request, stop);
}

bool NotarizationEngine::credentialsExist(const std::string& keychainProfile,
                                          std::optional<double> timeout, StopToken stop) const {
    try {
        return checkCredentials(keychainProfile, timeout, stop).exitCode == 0;
    } catch (const CancellationError&) {
        throw;
    } catch (const std::exception&) {
        return false;
    }
}

void NotarizationEngine::staple(const std::filesystem::path& file, const NotaryLog& onLog,
                                StopToken stop) const {
    const auto log = [&onLog](const std::string& line) {
        if (onLog) {
            onLog(line);
        }
    };
    const auto name = file.filename().string();
    log("   Stapling Gatekeeper ticket to " + name + "...");
    const auto stapled = runRetrying(
        [&] {
            return ProcessRunner::run("xcrun", {"stapler", "staple", file.string()}, stop);
        },
        [](const ProcessResult& result) {
            // The ticket of a fresh verdict is not served yet.
            const auto said = combinedOutput(result);
            return contains(said, "Record not found") || contains(said, "Error 65") ||
                   NotaryFailure::classify(said) == NotaryFailure::connection;
        },
        stapleRetry, "Stapling", log, stop);
    if (stapled.exitCode != 0) {
        throw VeltraError("Veltra", errorCode::serviceUnavailable,
                          "Stapling failed: " + combinedOutput(stapled));
    }
    log("   Success: Gatekeeper ticket successfully stapled to " + name);
}

void NotarizationEngine::notarize(const std::filesystem::path& file,
                                  const std::string& keychainProfile, const NotaryLog& onLog,
                                  StopToken stop) const {
    const auto log = [&](const std::string& line) {
        if (onLog) {
            onLog(line);
        }
    };
    const auto name = file.filename().string();
    log("   Submitting " + name + " to Apple Notary Service (profile: '" + keychainProfile +
        "')...");
    NotaryLogFilter filter(onLog);
    ProcessRequest submit;
    submit.command = "xcrun";
    submit.arguments = {"notarytool",         "submit",        file.string(),
                        "--keychain-profile", keychainProfile, "--wait"};
    submit.onLine = [&](std::string_view line) {
        const bool known = filter.submissionID().has_value();
        filter.consume(line);
        if (!known && filter.submissionID() && onSubmissionID) {
            onSubmissionID(*filter.submissionID());
        }
    };
    const auto result = ProcessRunner::run(submit, stop);
    const auto output = result.output + "\n" + result.errorOutput;
    // The submission exists once the tool named it: a connection lost while waiting is
    // followed by asking for that submission, never by sending the file again.
    if (const auto id = submissionID(result.output);
        result.exitCode != 0 && id &&
        NotaryFailure::classify(output) == NotaryFailure::connection) {
        log("   Info: The connection to Apple's notary service broke while waiting; following "
            "submission " +
            *id + "...");
        finishSubmission(file, keychainProfile, *id, onLog, stop);
        return;
    }
    // The tool exits 0 on an Invalid verdict too; only the status line tells.
    if (result.exitCode != 0 || contains(output, "status: Invalid")) {
        throw VeltraError("Veltra", errorCode::badAnswer,
                          "Notarization failed or was marked Invalid:\n" + output);
    }
    staple(file, onLog, stop);
}

std::optional<std::string> NotarizationEngine::submissionID(std::string_view output) {
    std::optional<std::string> found;
    forEachTrimmedLine(output, [&found](std::string_view line) {
        if (!found && line.starts_with("id: ")) {
            found = std::string(trimWhitespace(line.substr(4)));
        }
    });
    return found;
}

void NotarizationEngine::finishSubmission(const std::filesystem::path& file,
                                          const std::string& keychainProfile,
                                          const std::string& submissionID, const NotaryLog& onLog,
                                          StopToken stop) const {
    const auto log = [&](const std::string& line) {
        if (onLog) {
            onLog(line);
        }
    };
    log("   Looking up notarization submission " + submissionID + " (profile: '" + keychainProfile +
        "')...");
    const auto following = [&](const char* verb) {
        return runRetrying(
            [&] {
                return ProcessRunner::run(
                    "xcrun",
                    {"notarytool", verb, submissionID, "--keychain-profile", keychainProfile},
                    stop);
            },
            [](const ProcessResult& result) {
                return NotaryFailure::classify(combinedOutput(result)) == NotaryFailure::connection;
            },
            networkRetry, std::string("notarytool ") + verb, log, stop);
    };
    auto answer = following("info");
    const auto status = [](const ProcessResult& result) {
        std::string value;
        forEachTrimmedLine(result.output, [&value](std::string_view line) {
            if (line.starts_with("status: ")) {
                value = std::string(trimWhitespace(line.substr(8)));
            }
        });
        return value;
    };
    if (answer.exitCode == 0 && status(answer) == "In Progress") {
        log("   Waiting for Apple to finish processing...");
        answer = following("wait");
    }
    if (answer.exitCode != 0 || status(answer) != "Accepted") {
        throw VeltraError("Veltra", errorCode::badAnswer,
                          "Notarization failed or was marked Invalid:\n" + combinedOutput(answer));
    }
    log("   Success: Submission " + submissionID + " was accepted");
    staple(file, onLog, stop);
}

} // namespace veltra
