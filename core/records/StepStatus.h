#pragma once

#include <optional>
#include <string_view>

namespace veltra {

enum class StepStatus { pending, running, succeeded, failed, skipped };

// The raw value is also the text shown to the user ("Pending", ...).
std::string_view rawValue(StepStatus status);
std::optional<StepStatus> stepStatus(std::string_view raw);

} // namespace veltra
