#pragma once

#include "core/records/FeedControls.h"
#include "core/records/PipelineStep.h"
#include "core/support/JsonReader.h"
#include "core/support/Uuid.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace veltra {

// What a failed or cancelled release keeps so that it can be resumed: the steps that finished
// and what they made. It lives with the kept app in the run folder under the output folder.
struct ReleaseRunRecord {
    Uuid profileID;
    std::string version;
    std::int64_t build = 0;
    std::vector<std::string> completedSteps;
    // The exported app, moved into the run folder, and a digest of its signature.
    std::optional<std::filesystem::path> app;
    std::string appSignature;
    std::optional<std::string> identity;
    std::optional<std::filesystem::path> dmg;
    std::string dmgSHA256;
    std::int64_t dmgSize = 0;
    std::optional<std::filesystem::path> notesPath;
    std::string notes;
    std::optional<std::string> notarySubmissionID;
    bool wasNotarized = false;
    std::vector<std::string> finalChecks;
    std::optional<std::string> sparkleSignature;
    FeedControls feedControls;

    bool completed(StepID step) const;
    bool completed(const std::string& step) const;

    Json toJson() const;
    // Throws JsonDecodingError naming the first field that cannot be read.
    static ReleaseRunRecord fromJson(const Json& json);

    // "<output>/.veltra-run"
    static std::filesystem::path folder(const std::filesystem::path& outputDirectory);
    // The record in that folder, or nothing when there is none.
    static std::optional<ReleaseRunRecord> load(const std::filesystem::path& outputDirectory);
    void save(const std::filesystem::path& outputDirectory) const;

    // A digest of the app's signature: its code directory seal and main executable, so a
    // re-signed or rebuilt app reads differently.
    static std::string signatureDigest(const std::filesystem::path& app);
};

} // namespace veltra
