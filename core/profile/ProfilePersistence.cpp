#include "ProfilePersistence.h"

#include "core/support/FileUtilities.h"
#include "core/support/VeltraError.h"

#include <ctime>
#include <system_error>

#include <fmt/format.h>

namespace veltra {
namespace {

std::filesystem::path asideName(const std::filesystem::path& url) {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    const auto stamp =
        fmt::format("{:04}{:02}{:02}-{:02}{:02}{:02}", local.tm_year + 1900, local.tm_mon + 1,
                    local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    auto candidate = url;
    candidate += ".unreadable-" + stamp;
    for (int n = 2; std::filesystem::exists(candidate); ++n) {
        candidate = url;
        candidate += fmt::format(".unreadable-{}-{}", stamp, n);
    }
    return candidate;
}

void removeLeftoverTemporaries(const std::filesystem::path& url) {
    std::error_code error;
    const auto prefix = atomicWriteTemporaryPrefix(url);
    for (const auto& entry : std::filesystem::directory_iterator(url.parent_path(), error)) {
        if (entry.path().filename().string().starts_with(prefix)) {
            std::filesystem::remove(entry.path(), error);
        }
    }
}

} // namespace

ProfilePersistence::ProfilePersistence(std::filesystem::path url) : url_(std::move(url)) {}

ProfileLoadResult ProfilePersistence::load() {
    ProfileLoadResult result;
    queue_.sync([&] {
        removeLeftoverTemporaries(url_);
        std::error_code error;
        if (!std::filesystem::exists(url_, error)) {
            return;
        }
        std::string text;
        try {
            text = readFile(url_);
            result.profiles = profilesFromJson(parseJson(text, "profiles"));
            return;
        } catch (const VeltraError& unreadable) {
            result.problem = fmt::format("{}. Changes will not be saved until it can be read.",
                                         unreadable.what());
            result.writable = false;
            return;
        } catch (const JsonDecodingError& invalid) {
            result.problem = invalid.what();
        }
        const auto aside = asideName(url_);
        std::filesystem::copy_file(url_, aside, error);
        if (error) {
            result.problem = fmt::format(
                "The profile file {} could not be read ({}), and it could not be copied aside "
                "({}). Changes will not be saved until it is fixed or moved away.",
                url_.string(), *result.problem, error.message());
            result.writable = false;
            return;
        }
        result.problem = fmt::format("The profile file {} could not be read ({}). It was kept as "
                                     "{}; the next change writes a new file.",
                                     url_.string(), *result.problem, aside.string());
    });
    if (!result.writable) {
        disable();
    }
    return result;
}

void ProfilePersistence::schedule(std::vector<ProjectProfile> profiles) {
    const std::lock_guard guard(lock_);
    if (disabled_) {
        return;
    }
    pending_ = std::move(profiles);
    if (!scheduled_) {
        scheduled_ = true;
        queue_.post([this] { writePending(); });
    }
}

void ProfilePersistence::writePending() {
    while (true) {
        std::vector<ProjectProfile> profiles;
        {
            const std::lock_guard guard(lock_);
            if (!pending_) {
                scheduled_ = false;
                return;
            }
            profiles = std::move(*pending_);
            pending_.reset();
        }
        std::optional<std::string> failure;
        try {
            createPrivateDirectories(url_.parent_path());
            // 0600 whatever an older version left: the file holds the deploy hook's address.
            writeFileAtomically(url_, dumpJson(profilesToJson(profiles)),
                                std::filesystem::perms::owner_read |
                                    std::filesystem::perms::owner_write);
        } catch (const std::exception& error) {
            failure = error.what(); // the next save tries again
        }
        const std::lock_guard guard(lock_);
        ++writes_;
        lastError_ = failure;
    }
}

void ProfilePersistence::flush() {
    queue_.waitUntilIdle();
}

void ProfilePersistence::disable() {
    const std::lock_guard guard(lock_);
    disabled_ = true;
    pending_.reset();
}

bool ProfilePersistence::isDisabled() const {
    const std::lock_guard guard(lock_);
    return disabled_;
}

int ProfilePersistence::writeCount() const {
    const std::lock_guard guard(lock_);
    return writes_;
}

std::optional<std::string> ProfilePersistence::lastError() const {
    const std::lock_guard guard(lock_);
    return lastError_;
}

} // namespace veltra
