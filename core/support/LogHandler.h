#pragma once

#include <functional>
#include <string>

namespace veltra {

// Receives an engine's progress, one human-readable line at a time, possibly on a worker thread.
using LogHandler = std::function<void(const std::string&)>;

} // namespace veltra
