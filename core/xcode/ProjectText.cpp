#include "ProjectText.h"

#include "core/support/Uuid.h"
#include "core/support/VeltraError.h"

#include <algorithm>
#include <cctype>
#include <optional>

namespace veltra {
namespace {

VeltraError setupError(const std::string& message) {
    return VeltraError("Veltra", errorCode::invalidSetup, message);
}

bool isObjectID(std::string_view text) {
    return text.size() >= 24 && std::all_of(text.begin(), text.begin() + 24, [](char c) {
               return std::isxdigit(static_cast<unsigned char>(c)) != 0;
           });
}

struct Lines {
    std::size_t begin;
    std::size_t end;
};

// The lines of object `id` in the text: from its "\t\t<ID> ... = {" line to its closing line.
std::optional<Lines> objectSpan(const std::string& text, const std::string& id) {
    const auto needle = "\n\t\t" + id;
    for (auto at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
        const auto begin = at + 1;
        const auto lineEnd = text.find('\n', begin);
        if (lineEnd == std::string::npos) {
            return std::nullopt;
        }
        const std::string_view line(text.data() + begin, lineEnd - begin);
        if (line.size() <= 2 + id.size() || line[2 + id.size()] != ' ' ||
            line.find(" = {") == std::string_view::npos) {
            continue;
        }
        if (line.ends_with("};")) {
            return Lines{begin, lineEnd + 1};
        }
        const auto close = text.find("\n\t\t};\n", begin);
        if (close == std::string::npos) {
            return std::nullopt;
        }
        return Lines{begin, close + 6};
    }
    return std::nullopt;
}

// A build setting's name as Xcode sorts it: without its quotes.
std::string_view settingName(std::string_view line) {
    auto name = line.substr(0, line.find(" = "));
    if (name.size() >= 2 && name.front() == '"' && name.back() == '"') {
        name = name.substr(1, name.size() - 2);
    }
    return name;
}

// A section marker as Xcode writes it: a line of its own. The same words inside another
// comment or a string are not a marker.
std::size_t findMarker(const std::string& text, std::string_view marker, std::size_t from = 0) {
    for (auto at = text.find(marker, from); at != std::string::npos;
         at = text.find(marker, at + 1)) {
        if (at > 0 && text[at - 1] == '\n') {
            return at;
        }
    }
    return std::string::npos;
}

} // namespace

ProjectText::Span ProjectText::span(const std::string& id) const {
    const auto found = objectSpan(text_, id);
    if (!found) {
        throw setupError("The project file's object " + id +
                         " is not written the way Xcode writes it; open the project in "
                         "Xcode once so it saves the file, then set up again.");
    }
    return {found->begin, found->end};
}

void ProjectText::addToList(const std::string& id, const std::string& key,
                            const std::string& entry) {
    const auto object = span(id);
    const std::string_view body(text_.data() + object.begin, object.end - object.begin);
    const auto opener = "\n\t\t\t" + key + " = (\n";
    if (const auto at = body.find(opener); at != std::string_view::npos) {
        const auto close = text_.find("\n\t\t\t);\n", object.begin + at + opener.size() - 1);
        if (close == std::string::npos || close >= object.end) {
            throw setupError("The project file's list " + key + " of " + id +
                             " is not closed the way Xcode writes it.");
        }
        text_.insert(close + 1, "\t\t\t\t" + entry + ",\n");
        return;
    }
    if (body.find("\n\t\t\t" + key + " = ") != std::string_view::npos) {
        throw setupError("The project file's " + key + " of " + id +
                         " is not written the way Xcode writes it; open the project in "
                         "Xcode once so it saves the file, then set up again.");
    }
    // Before the first top-level key that sorts after it (isa stays first), else before the
    // object's closing line.
    auto insertAt = object.end - std::string_view("\t\t};\n").size();
    for (auto line = body.find('\n'); line != std::string_view::npos && line + 1 < body.size();
         line = body.find('\n', line + 1)) {
        const auto start = line + 1;
        if (body.substr(start, 3) != "\t\t\t" || body.substr(start + 3, 1) == "\t") {
            continue;
        }
        // A key line, not the close of a nested list or dictionary.
        const auto lineEnd = body.find('\n', start);
        const auto equals = body.find(" = ", start);
        if (equals == std::string_view::npos || equals > lineEnd ||
            std::isalnum(static_cast<unsigned char>(body[start + 3])) == 0) {
            continue;
        }
        const auto name = body.substr(start + 3, equals - start - 3);
        if (name != "isa" && name > key) {
            insertAt = object.begin + start;
            break;
        }
    }
    text_.insert(insertAt, "\t\t\t" + key + " = (\n\t\t\t\t" + entry + ",\n\t\t\t);\n");
}

void ProjectText::addToSection(const std::string& isa, const std::string& id,
                               const std::string& object) {
    const auto beginMarker = "/* Begin " + isa + " section */\n";
    const auto endMarker = "/* End " + isa + " section */\n";
    if (const auto begin = findMarker(text_, beginMarker); begin != std::string::npos) {
        const auto end = findMarker(text_, endMarker, begin);
        if (end == std::string::npos) {
            throw setupError("The project file's " + isa + " section has no end.");
        }
        auto insertAt = end;
        for (auto line = text_.find("\n\t\t", begin); line != std::string::npos && line < end;
             line = text_.find("\n\t\t", line + 1)) {
            const std::string_view rest(text_.data() + line + 3, end - line - 3);
            if (!rest.empty() && rest.front() != '\t' && isObjectID(rest) &&
                rest.substr(0, 24) > id) {
                insertAt = line + 1;
                break;
            }
        }
        text_.insert(insertAt, object);
        return;
    }
    const auto block = beginMarker + object + endMarker;
    // After the last section whose isa sorts before this one, else before the first.
    std::optional<std::size_t> after;
    std::optional<std::size_t> first;
    for (auto at = findMarker(text_, "/* Begin "); at != std::string::npos;
         at = findMarker(text_, "/* Begin ", at + 1)) {
        const auto nameEnd = text_.find(" section */\n", at);
        if (nameEnd == std::string::npos || text_.find('\n', at) < nameEnd) {
            continue;
        }
        const auto name = text_.substr(at + 9, nameEnd - at - 9);
        first = first.value_or(at);
        if (name < isa) {
            const auto closing = "/* End " + name + " section */\n";
            const auto close = findMarker(text_, closing, at);
            if (close == std::string::npos) {
                throw setupError("The project file's " + name + " section has no end.");
            }
            after = close + closing.size();
        }
    }
    if (after) {
        text_.insert(*after, "\n" + block);
    } else if (first) {
        text_.insert(*first, block + "\n");
    } else {
        throw setupError("The project file has no object sections.");
    }
}

void ProjectText::setBuildSetting(const std::string& id, const std::string& key,
                                  const std::string& value) {
    const auto object = span(id);
    const auto opener = text_.find("\n\t\t\tbuildSettings = {\n", object.begin);
    const auto close =
        opener == std::string::npos ? std::string::npos : text_.find("\n\t\t\t};\n", opener + 1);
    if (opener == std::string::npos || close == std::string::npos || close >= object.end) {
        throw setupError("The project file's configuration " + id +
                         " has no build settings written the way Xcode writes them.");
    }
    const auto line = "\t\t\t\t" + key + " = " + value + ";\n";
    // Each setting on a line of its own, four tabs in: replace the key's line, or insert before
    // the first that sorts after it.
    auto insertAt = close + 1;
    for (auto at = opener + 1 + std::string_view("\t\t\tbuildSettings = {\n").size(); at < close;) {
        const auto end = text_.find('\n', at);
        const std::string_view current(text_.data() + at, end - at);
        if (current.starts_with("\t\t\t\t") && current.size() > 4 && current[4] != '\t') {
            const auto name = settingName(current.substr(4));
            if (name == key) {
                text_.replace(at, end + 1 - at, line);
                return;
            }
            if (name > key) {
                insertAt = at;
                break;
            }
        }
        at = end + 1;
    }
    text_.insert(insertAt, line);
}

std::string ProjectText::newObjectID(std::string_view text) {
    while (true) {
        auto candidate = Uuid::random().string();
        std::erase(candidate, '-');
        candidate.resize(24);
        std::ranges::transform(candidate, candidate.begin(),
                               [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
        if (text.find(candidate) == std::string_view::npos) {
            return candidate;
        }
    }
}

} // namespace veltra
