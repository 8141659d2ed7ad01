#pragma once

#include <exception>
#include <string>

namespace veltra {

// Why a run was refused or stopped; callers branch on kind(), the user reads what().
class ProcessExecutionError : public std::exception {
public:
    enum class Kind { timedOut, inputTooLarge };

    static ProcessExecutionError timedOut(double seconds);
    static ProcessExecutionError inputTooLarge();

    Kind kind() const noexcept { return kind_; }
    // The time-out that was exceeded; 0 for other kinds.
    double timeout() const noexcept { return timeout_; }
    const char* what() const noexcept override { return description_.c_str(); }

private:
    ProcessExecutionError(Kind kind, double timeout, std::string description);

    Kind kind_;
    double timeout_;
    std::string description_;
};

} // namespace veltra
