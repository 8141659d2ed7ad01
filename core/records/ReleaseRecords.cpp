#include "PipelineStep.h"
#include "ReleaseManifest.h"
#include "core/support/EnumNames.h"

namespace veltra {
namespace {

constexpr EnumNames<StepStatus, 5> stepStatusNames{{
    {StepStatus::pending, "Pending"},
    {StepStatus::running, "Running"},
    {StepStatus::succeeded, "Succeeded"},
    {StepStatus::failed, "Failed"},
    {StepStatus::skipped, "Skipped"},
}};

} // namespace

std::string_view rawValue(StepStatus status) {
    return nameOf(stepStatusNames, status);
}

std::optional<StepStatus> stepStatus(std::string_view raw) {
    return valueOf(stepStatusNames, raw);
}

Json ReleaseManifest::toJson() const {
    Json json = Json::object();
    json["appName"] = appName;
    json["version"] = version;
    json["buildNumber"] = buildNumber;
    json["releaseDate"] = releaseDate.secondsSinceReferenceDate;
    putOptional(json, "dmgURL", dmgURL);
    json["dmgFileSize"] = dmgFileSize;
    json["sha256Checksum"] = sha256Checksum;
    putOptional(json, "sparkleSignature", sparkleSignature);
    json["releaseNotes"] = releaseNotes;
    putOptional(json, "notesURL", notesURL);
    if (websitePublication) {
        json["websitePublication"] = websitePublication->toJson();
    }
    putOptional(json, "monitoringReleaseID", monitoringReleaseID);
    putOptional(json, "wasNotarized", wasNotarized);
    putOptional(json, "githubPublicationSucceeded", githubPublicationSucceeded);
    if (finalChecks) {
        json["finalChecks"] = *finalChecks;
    }
    if (!feedControls.isDefault()) {
        json["feedControls"] = feedControls.toJson();
    }
    if (withdrawnAt) {
        json["withdrawnAt"] = withdrawnAt->secondsSinceReferenceDate;
    }
    return json;
}

ReleaseManifest ReleaseManifest::fromJson(const Json& json, const std::string& path) {
    const JsonReader reader(json, path);
    ReleaseManifest manifest;
    manifest.appName = reader.string("appName");
    manifest.version = reader.string("version");
    manifest.buildNumber = reader.string("buildNumber");
    manifest.releaseDate = reader.date("releaseDate");
    manifest.dmgURL = reader.optionalString("dmgURL");
    manifest.dmgFileSize = reader.integer("dmgFileSize");
    manifest.sha256Checksum = reader.string("sha256Checksum");
    manifest.sparkleSignature = reader.optionalString("sparkleSignature");
    manifest.releaseNotes = reader.string("releaseNotes");
    manifest.notesURL = reader.optionalString("notesURL");
    if (const Json* publication = reader.find("websitePublication")) {
        manifest.websitePublication =
            WebsitePublication::fromJson(*publication, reader.pathOf("websitePublication"));
    }
    manifest.monitoringReleaseID = reader.optionalString("monitoringReleaseID");
    manifest.wasNotarized = reader.optionalBoolean("wasNotarized");
    manifest.githubPublicationSucceeded = reader.optionalBoolean("githubPublicationSucceeded");
    if (const Json* controls = reader.find("feedControls");
        controls != nullptr && !controls->is_null()) {
        manifest.feedControls = FeedControls::fromJson(*controls, reader.pathOf("feedControls"));
    }
    if (reader.find("withdrawnAt") != nullptr) {
        manifest.withdrawnAt = reader.date("withdrawnAt");
    }
    if (const Json* checks = reader.find("finalChecks"); checks != nullptr && !checks->is_null()) {
        if (!checks->is_array()) {
            throw JsonDecodingError(reader.pathOf("finalChecks"), "expected an array");
        }
        manifest.finalChecks.emplace();
        for (std::size_t index = 0; index < checks->size(); ++index) {
            manifest.finalChecks->push_back(
                JsonReader::asString((*checks)[index], reader.pathOf("finalChecks") + "[" +
                                                           std::to_string(index) + "]"));
        }
    }
    return manifest;
}

namespace {

constexpr EnumNames<StepID, 8> stepNames{{
    {StepID::version, "version"},
    {StepID::archive, "archive"},
    {StepID::inspect, "inspect"},
    {StepID::notes, "notes"},
    {StepID::dmg, "dmg"},
    {StepID::notarize, "notarize"},
    {StepID::sparkle, "sparkle"},
    {StepID::deploy, "deploy"},
}};

} // namespace

std::string_view rawValue(StepID id) {
    return nameOf(stepNames, id);
}

std::optional<StepID> stepID(std::string_view raw) {
    return valueOf(stepNames, raw);
}

} // namespace veltra
