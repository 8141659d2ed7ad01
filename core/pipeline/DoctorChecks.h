#pragma once

// What the doctor's checks share; private to the doctor.

#include "ReleaseDoctor.h"
#include "core/process/ProcessRunner.h"
#include "core/support/Text.h"

#include <string>
#include <string_view>

namespace veltra::doctor {

using Verdict = DoctorVerdict;

inline DoctorFinding finding(std::string check, Verdict verdict, std::string found,
                             std::string advice = {}) {
    return {std::move(check), verdict, std::move(found), std::move(advice)};
}

inline std::string firstLine(std::string_view text) {
    text = trimWhitespace(text);
    return std::string(text.substr(0, text.find('\n')));
}

} // namespace veltra::doctor
