#include "PathRules.h"

#include <algorithm>

namespace veltra {
namespace {

bool hasControlCharacter(std::string_view text) {
    return std::ranges::any_of(text, [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte < 0x20 || byte == 0x7f;
    });
}

} // namespace

std::optional<std::string> fileNameProblem(std::string_view name) {
    if (name.empty()) {
        return "it is empty";
    }
    if (name == "." || name == "..") {
        return "it names a folder, not a file";
    }
    if (name.find('/') != std::string_view::npos || name.find('\\') != std::string_view::npos) {
        return "it holds '/' or '\\'";
    }
    if (hasControlCharacter(name)) {
        return "it holds a NUL or control character";
    }
    if (name.front() == '.') {
        return "it starts with '.' (a hidden file)";
    }
    if (name.size() > 200) {
        return "it is longer than 200 bytes";
    }
    return std::nullopt;
}

std::optional<std::string> relativePathProblem(std::string_view path) {
    if (path.starts_with('/') || path.starts_with('~')) {
        return "it is not relative to the repository";
    }
    if (hasControlCharacter(path)) {
        return "it holds a NUL or control character";
    }
    int depth = 0;
    for (const auto& part : std::filesystem::path(path)) {
        if (part == "..") {
            if (--depth < 0) {
                return "it leads out of the repository";
            }
        } else if (part != "." && !part.empty()) {
            ++depth;
        }
    }
    return std::nullopt;
}

bool resolvesInside(const std::filesystem::path& path, const std::filesystem::path& folder) {
    std::error_code error;
    const auto resolved = std::filesystem::weakly_canonical(path, error);
    if (error) {
        return false;
    }
    const auto root = std::filesystem::weakly_canonical(folder, error);
    if (error) {
        return false;
    }
    const auto relative = resolved.lexically_relative(root);
    return !relative.empty() && *relative.begin() != "..";
}

} // namespace veltra
