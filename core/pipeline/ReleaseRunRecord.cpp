#include "ReleaseRunRecord.h"

#include "core/support/FileDigest.h"
#include "core/support/FileUtilities.h"

#include <algorithm>

namespace veltra {
namespace {

namespace fs = std::filesystem;

Json optionalText(const std::optional<std::string>& value) {
    return value ? Json(*value) : Json(nullptr);
}

Json optionalPath(const std::optional<fs::path>& value) {
    return value ? Json(value->string()) : Json(nullptr);
}

std::optional<fs::path> pathOrNothing(const std::optional<std::string>& text) {
    return text ? std::optional<fs::path>(*text) : std::nullopt;
}

} // namespace

bool ReleaseRunRecord::completed(StepID step) const {
    return completed(std::string(rawValue(step)));
}

bool ReleaseRunRecord::completed(const std::string& step) const {
    return std::find(completedSteps.begin(), completedSteps.end(), step) != completedSteps.end();
}

Json ReleaseRunRecord::toJson() const {
    return {{"profileID", profileID.string()},
            {"version", version},
            {"build", build},
            {"completedSteps", completedSteps},
            {"app", optionalPath(app)},
            {"appSignature", appSignature},
            {"identity", optionalText(identity)},
            {"dmg", optionalPath(dmg)},
            {"dmgSHA256", dmgSHA256},
            {"dmgSize", dmgSize},
            {"notesPath", optionalPath(notesPath)},
            {"notes", notes},
            {"notarySubmissionID", optionalText(notarySubmissionID)},
            {"wasNotarized", wasNotarized},
            {"finalChecks", finalChecks},
            {"sparkleSignature", optionalText(sparkleSignature)},
            {"feedControls", feedControls.toJson()}};
}

ReleaseRunRecord ReleaseRunRecord::fromJson(const Json& json) {
    const JsonReader reader(json, "run");
    ReleaseRunRecord record;
    record.profileID = reader.uuid("profileID");
    record.version = reader.string("version");
    record.build = reader.integer("build");
    const auto& steps = reader.require("completedSteps");
    if (!steps.is_array()) {
        throw JsonDecodingError(reader.pathOf("completedSteps"), "expected an array");
    }
    for (std::size_t index = 0; index < steps.size(); ++index) {
        record.completedSteps.push_back(JsonReader::asString(
            steps[index], reader.pathOf("completedSteps") + "[" + std::to_string(index) + "]"));
    }
    record.app = pathOrNothing(reader.optionalString("app"));
    record.appSignature = reader.string("appSignature");
    record.identity = reader.optionalString("identity");
    record.dmg = pathOrNothing(reader.optionalString("dmg"));
    record.dmgSHA256 = reader.string("dmgSHA256");
    record.dmgSize = reader.integer("dmgSize");
    record.notesPath = pathOrNothing(reader.optionalString("notesPath"));
    record.notes = reader.string("notes");
    record.notarySubmissionID = reader.optionalString("notarySubmissionID");
    record.wasNotarized = reader.boolean("wasNotarized");
    // Records of older versions have no final checks.
    if (const Json* checks = reader.find("finalChecks"); checks != nullptr && checks->is_array()) {
        for (std::size_t index = 0; index < checks->size(); ++index) {
            record.finalChecks.push_back(
                JsonReader::asString((*checks)[index], reader.pathOf("finalChecks") + "[" +
                                                           std::to_string(index) + "]"));
        }
    }
    record.sparkleSignature = reader.optionalString("sparkleSignature");
    if (const Json* controls = reader.find("feedControls"); controls != nullptr) {
        record.feedControls = FeedControls::fromJson(*controls, "feedControls");
    }
    return record;
}

fs::path ReleaseRunRecord::folder(const fs::path& outputDirectory) {
    return outputDirectory / ".veltra-run";
}

std::optional<ReleaseRunRecord> ReleaseRunRecord::load(const fs::path& outputDirectory) {
    const auto file = folder(outputDirectory) / "run.json";
    std::error_code error;
    if (!fs::is_regular_file(file, error)) {
        return std::nullopt;
    }
    const auto json = Json::parse(readFile(file), nullptr, false);
    if (json.is_discarded()) {
        throw JsonDecodingError("run", "the kept run at " + file.string() + " is not JSON");
    }
    return fromJson(json);
}

void ReleaseRunRecord::save(const fs::path& outputDirectory) const {
    fs::create_directories(folder(outputDirectory));
    writeFileAtomically(folder(outputDirectory) / "run.json", toJson().dump(2) + "\n");
}

std::string ReleaseRunRecord::signatureDigest(const fs::path& app) {
    std::string digest;
    std::error_code error;
    for (const auto& part : {app / "Contents" / "_CodeSignature" / "CodeResources"}) {
        if (fs::is_regular_file(part, error)) {
            digest += sha256Hex(part);
        }
    }
    // The main executable carries its own signature.
    const auto executables = app / "Contents" / "MacOS";
    if (fs::is_directory(executables, error)) {
        std::vector<fs::path> files;
        for (const auto& entry : fs::directory_iterator(executables, error)) {
            if (entry.is_regular_file(error)) {
                files.push_back(entry.path());
            }
        }
        std::sort(files.begin(), files.end());
        for (const auto& file : files) {
            digest += sha256Hex(file);
        }
    }
    return digest;
}

} // namespace veltra
