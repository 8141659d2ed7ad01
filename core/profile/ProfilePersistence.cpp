#include "ProfilePersistence.h"

#include "ProfileMerge.h"
#include "core/support/FileLock.h"
#include "core/support/FileUtilities.h"
#include "core/support/VeltraError.h"

#include <ctime>
#include <system_error>

#include <fmt/format.h>

namespace veltra {
namespace {

constexpr auto privateFile =
    std::filesystem::perms::owner_read | std::filesystem::perms::owner_write;

std::filesystem::path lockFileFor(const std::filesystem::path& url) {
    auto lock = url;
    lock += ".lock";
    return lock;
}

std::string asidePrefix(const std::filesystem::path& url) {
    return url.filename().string() + ".unreadable-";
}

std::filesystem::path asideName(const std::filesystem::path& url) {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    const auto stamp =
        fmt::format("{:04}{:02}{:02}-{:02}{:02}{:02}", local.tm_year + 1900, local.tm_mon + 1,
                    local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    const auto first = url.parent_path() / (asidePrefix(url) + stamp);
    auto candidate = first;
    for (int n = 2; std::filesystem::exists(candidate); ++n) {
        candidate = first;
        candidate += fmt::format("-{}", n);
    }
    return candidate;
}

// The copy of this broken text: the one already kept, else a new one (0600, like the file).
// Throws when no copy can be made.
std::filesystem::path keepAside(const std::filesystem::path& url, const std::string& text) {
    std::error_code error;
    const auto prefix = asidePrefix(url);
    for (const auto& entry : std::filesystem::directory_iterator(url.parent_path(), error)) {
        if (entry.path().filename().string().starts_with(prefix) &&
            entry.file_size(error) == text.size()) {
            try {
                if (readFile(entry.path()) == text) {
                    return entry.path();
                }
            } catch (const VeltraError&) {
                // an unreadable copy is no copy
            }
        }
    }
    const auto aside = asideName(url);
    writeFileAtomically(aside, text, privateFile);
    return aside;
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

struct FileContents {
    Json json;
    std::vector<ProjectProfile> profiles;
};

// The file's list (nothing when there is no file), or the message saying what is wrong with it
// and where its copy is.
struct FileRead {
    std::optional<FileContents> contents;
    std::optional<std::string> problem;

    static FileRead failed(std::string problem) { return {std::nullopt, std::move(problem)}; }
};

// Called with the lock held, so two processes do not both make a copy.
FileRead readProfileFile(const std::filesystem::path& url) {
    std::error_code error;
    if (!std::filesystem::exists(url, error) && !error) {
        return {};
    }
    constexpr std::string_view advice =
        "Fix the file or move it away; until then Veltra changes nothing in it.";
    std::string text;
    try {
        text = readFile(url);
    } catch (const VeltraError& unreadable) {
        return FileRead::failed(
            fmt::format("The profile file {} could not be read ({}). {}", url.string(),
                        std::generic_category().message(unreadable.code()), advice));
    }
    std::string reason;
    try {
        FileContents contents;
        contents.json = parseJson(text, "profiles");
        contents.profiles = profilesFromJson(contents.json);
        return {std::move(contents), std::nullopt};
    } catch (const JsonDecodingError& invalid) {
        reason = invalid.what();
    }
    try {
        const auto aside = keepAside(url, text);
        return FileRead::failed(fmt::format("The profile file {} could not be read ({}). A copy is "
                                            "kept as {}. {}",
                                            url.string(), reason, aside.string(), advice));
    } catch (const std::exception& failure) {
        return FileRead::failed(
            fmt::format("The profile file {} could not be read ({}), and no copy "
                        "of it could be kept ({}). {}",
                        url.string(), reason, failure.what(), advice));
    }
}

} // namespace

ProfilePersistence::ProfilePersistence(std::filesystem::path file) : file_(std::move(file)) {}

ProfileLoadResult ProfilePersistence::load() {
    ProfileLoadResult result;
    queue_.sync([&] {
        try {
            const auto lock = FileLock::lock(lockFileFor(file_));
            removeLeftoverTemporaries(file_);
            auto read = readProfileFile(file_);
            result.problem = std::move(read.problem);
            if (read.contents) {
                result.profiles = std::move(read.contents->profiles);
                base_ = std::move(read.contents->json);
            }
        } catch (const VeltraError& failure) {
            result.problem = failure.what(); // the lock could not be had
        }
    });
    if (result.problem) {
        disable();
    }
    return result;
}

void ProfilePersistence::setBase(const std::vector<ProjectProfile>& profiles) {
    auto json = profilesToJson(profiles);
    queue_.sync([&] { base_ = std::move(json); });
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
            save(profiles);
        } catch (const std::exception& error) {
            failure = error.what(); // the next save tries again
        }
        const std::lock_guard guard(lock_);
        ++writes_;
        lastError_ = failure;
    }
}

void ProfilePersistence::save(const std::vector<ProjectProfile>& profiles) {
    createPrivateDirectories(file_.parent_path());
    const auto lock = FileLock::lock(lockFileFor(file_));
    auto mine = profilesToJson(profiles);
    auto current = readProfileFile(file_);
    if (current.problem) {
        throw VeltraError("Veltra.Profile", 2, *current.problem + " This change was not saved.");
    }
    // A file removed since it was read gets this process's whole list.
    auto merged = current.contents
                      ? mergeProfileChanges(base_, mine, std::move(current.contents->json))
                      : mine;
    // 0600 whatever an older version left: the file holds the deploy hook's address.
    writeFileAtomically(file_, dumpJson(merged), privateFile);
    base_ = std::move(mine);
}

void ProfilePersistence::flush() {
    queue_.waitUntilIdle();
}

void ProfilePersistence::disable() {
    const std::lock_guard guard(lock_);
    disabled_ = true;
    pending_.reset();
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
