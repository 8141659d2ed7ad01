#pragma once

#include "StepStatus.h"

#include <optional>
#include <string>
#include <string_view>

namespace veltra {

// The steps of a release run, in their order.
enum class StepID { version, archive, inspect, notes, dmg, notarize, sparkle, deploy };
// "version", "archive", ...: the step's id in step lists, logs and resume records.
std::string_view rawValue(StepID id);
std::optional<StepID> stepID(std::string_view raw);

// One row of the visible step list of a release run.
struct PipelineStep {
    std::string id; // "version", "archive", "inspect", "notes", "dmg", "notarize", ...
    std::string title;
    StepStatus status = StepStatus::pending;
    std::string message;
    std::optional<double> duration; // seconds, once the step has ended

    bool operator==(const PipelineStep&) const = default;
};

} // namespace veltra
