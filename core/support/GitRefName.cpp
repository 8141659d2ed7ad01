#include "GitRefName.h"

#include <fmt/format.h>

namespace veltra {

std::optional<std::string> gitBranchNameProblem(std::string_view name) {
    if (name.empty()) {
        return "it is empty";
    }
    if (name.front() == '-') {
        return "it starts with '-'";
    }
    if (name == "@" || name == "HEAD") {
        return "git reserves it";
    }
    for (const char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7f || c == ' ') {
            return "it holds a blank or a control character";
        }
        if (std::string_view("~^:?*[\\").find(c) != std::string_view::npos) {
            return fmt::format("it holds '{}'", c);
        }
    }
    if (name.find("..") != std::string_view::npos) {
        return "it holds '..'";
    }
    if (name.find("@{") != std::string_view::npos) {
        return "it holds '@{'";
    }
    if (name.back() == '.') {
        return "it ends with '.'";
    }
    std::size_t start = 0;
    while (start <= name.size()) {
        const auto slash = name.find('/', start);
        const auto component = name.substr(
            start, slash == std::string_view::npos ? std::string_view::npos : slash - start);
        if (component.empty()) {
            return "it has an empty part between slashes";
        }
        if (component.front() == '.') {
            return "a part starts with '.'";
        }
        if (component.ends_with(".lock")) {
            return "a part ends with '.lock'";
        }
        if (slash == std::string_view::npos) {
            break;
        }
        start = slash + 1;
    }
    return std::nullopt;
}

std::optional<std::string> gitBranchNameError(std::string_view name) {
    if (const auto problem = gitBranchNameProblem(name)) {
        return fmt::format("'{}' is not a valid branch name: {}.", name, *problem);
    }
    return std::nullopt;
}

} // namespace veltra
