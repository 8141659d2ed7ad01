#include "PipelineLogArchive.h"

#include "core/support/Uuid.h"

#include <fstream>

namespace veltra {

PipelineLogArchive::PipelineLogArchive()
    : PipelineLogArchive(std::filesystem::temp_directory_path() /
                         ("veltra-logs-" + Uuid::random().string() + ".txt")) {}

PipelineLogArchive::PipelineLogArchive(std::filesystem::path url) : url_(std::move(url)) {}

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
    std::ofstream out(url_, std::ios::binary | std::ios::app);
    out << text;
}

void PipelineLogArchive::reset() {
    queue_.post([this] { std::ofstream(url_, std::ios::binary | std::ios::trunc); });
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
