#pragma once

#include "StepStatus.h"

#include <optional>
#include <string>

namespace veltra {

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
