#include "ReleaseLock.h"

#include "core/support/FileUtilities.h"
#include "core/support/Text.h"
#include "core/support/VeltraError.h"

#include <ctime>
#include <unistd.h>

namespace veltra {

FileLock ReleaseLock::acquire(const std::filesystem::path& folder, const ProjectProfile& profile,
                              const std::string& appName) {
    const auto lockPath = (folder.empty() ? homeDirectory() / ".veltra" / "locks" : folder) /
                          (profile.id.string() + ".lock");
    auto lock = FileLock::tryLock(lockPath);
    if (!lock) {
        const auto holder = std::string(trimWhitespace(FileLock::holder(lockPath)));
        throw VeltraError("Veltra", errorCode::conflict,
                          appName + " is already being released (" +
                              (holder.empty() ? std::string("by another process") : holder) + ").");
    }
    const auto now = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&now, &local);
    char started[16] = {};
    std::strftime(started, sizeof started, "%H:%M:%S", &local);
    lock->describeHolder("process " + std::to_string(::getpid()) + ", started " + started);
    return std::move(*lock);
}

} // namespace veltra
