#include "PipelineLogArchive.h"

#include "core/support/FileUtilities.h"
#include "core/support/Uuid.h"

#include <algorithm>
#include <chrono>
#include <fcntl.h>
#include <fstream>
#include <unistd.h>

#include <fmt/chrono.h>
#include <fmt/format.h>

namespace veltra {
namespace {

constexpr std::string_view archivePrefix = "veltra-log-";

// A new archive's name in the folder, older archives beyond the newest kept removed first.
std::filesystem::path newArchive(const std::filesystem::path& folder) {
    // Names start with the UTC time, so they sort oldest first.
    makeRoomForNewest(folder, archivePrefix, PipelineLogArchive::keptArchives);
    const auto now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
    return folder / fmt::format("{}{:%Y%m%d-%H%M%S}-{}.txt", archivePrefix, now,
                                Uuid::random().string().substr(0, 8));
}

} // namespace

std::filesystem::path PipelineLogArchive::defaultFolder() {
    return veltraLogFolder();
}

PipelineLogArchive::PipelineLogArchive() {
    const auto folder = defaultFolder();
    try {
        createPrivateDirectories(folder);
    } catch (const std::exception&) {
        // an archive that cannot be written is ignored, like any other write error here
    }
    url_ = newArchive(folder);
}

PipelineLogArchive::PipelineLogArchive(std::filesystem::path url) : url_(std::move(url)) {}

void PipelineLogArchive::appendToFile(std::string_view text, bool truncate) const {
    // 0600 from the first byte: a log can name private paths and servers.
    const int fd =
        ::open(url_.c_str(),
               O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | (truncate ? O_TRUNC : O_APPEND), 0600);
    if (fd < 0) {
        return;
    }
    while (!text.empty()) {
        const ssize_t written = ::write(fd, text.data(), text.size());
        if (written <= 0) {
            break;
        }
        text.remove_prefix(static_cast<std::size_t>(written));
    }
    ::close(fd);
}

void PipelineLogArchive::append(std::vector<std::string> lines) {
    const std::lock_guard guard(lock_);
    pending_.insert(pending_.end(), std::make_move_iterator(lines.begin()),
                    std::make_move_iterator(lines.end()));
    // Lines that arrive while a write is queued join it: one open and write per burst.
    if (!scheduled_) {
        scheduled_ = true;
        queue_.post([this] { writePending(); });
    }
}

void PipelineLogArchive::writePending() {
    std::vector<std::string> lines;
    {
        const std::lock_guard guard(lock_);
        lines.swap(pending_);
        scheduled_ = false;
    }
    std::string text;
    for (const auto& line : lines) {
        text += line;
        text += '\n';
    }
    appendToFile(text, false);
}

void PipelineLogArchive::reset() {
    queue_.post([this] { appendToFile({}, true); });
}

std::string PipelineLogArchive::read() {
    std::string text;
    queue_.sync([&] {
        std::ifstream in(url_, std::ios::binary);
        text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    });
    return text;
}

} // namespace veltra
