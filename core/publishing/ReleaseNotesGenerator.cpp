#include "ReleaseNotesGenerator.h"

#include "core/support/Text.h"
#include "core/support/VeltraError.h"

#include <algorithm>
#include <array>
#include <map>
#include <regex>

namespace veltra {
namespace {

constexpr std::string_view fallbackBullet =
    "- **General Improvements**: Performance optimizations and stability refinements.";

struct Kind {
    std::string_view prefix;
    const char* expression;
    std::string_view label;
};

const std::array<Kind, 6> kinds{{
    {"feat", R"(^feat(\([^\)]+\))?:\s*)", "- **New**: "},
    {"fix", R"(^fix(\([^\)]+\))?:\s*)", "- **Fix**: "},
    {"perf", R"(^perf(\([^\)]+\))?:\s*)", "- **Performance**: "},
    {"refactor", R"(^refactor(\([^\)]+\))?:\s*)", "- **Improvement**: "},
    {"style", R"(^(style|docs)(\([^\)]+\))?:\s*)", "- **Polish**: "},
    {"docs", R"(^(style|docs)(\([^\)]+\))?:\s*)", "- **Polish**: "},
}};

} // namespace

std::optional<std::string> ReleaseNotesGenerator::bullet(std::string_view subject) {
    const std::string line(trimWhitespace(subject));
    if (line.empty()) {
        return std::nullopt;
    }
    const auto lower = asciiLowercase(line);
    for (const std::string_view housekeeping : {"bump version", "release ", "merge ", "chore"}) {
        if (lower.starts_with(housekeeping)) {
            return std::nullopt;
        }
    }
    for (const auto& kind : kinds) {
        if (line.starts_with(kind.prefix)) {
            static thread_local std::map<const char*, std::regex> compiled;
            auto [it, added] = compiled.try_emplace(kind.expression, kind.expression);
            return std::string(kind.label) +
                   std::regex_replace(line, it->second, "",
                                      std::regex_constants::format_first_only);
        }
    }
    return "- **Update**: " + line;
}

ReleaseNotesGenerator::Notes ReleaseNotesGenerator::compose(std::string_view subjects,
                                                            const std::string& heading) {
    Notes notes;
    std::string bullets;
    std::size_t start = 0;
    while (start <= subjects.size()) {
        const auto end = std::min(subjects.find('\n', start), subjects.size());
        if (const auto item = bullet(subjects.substr(start, end - start))) {
            bullets += (notes.bullets > 0 ? "\n" : "") + *item;
            ++notes.bullets;
        }
        start = end + 1;
    }
    if (notes.bullets == 0) {
        bullets = fallbackBullet;
        notes.bullets = 1;
    }
    notes.markdown = "# What's New in " + heading + "\n\n" + bullets;
    return notes;
}

std::string ReleaseNotesGenerator::generate(const std::filesystem::path& repository,
                                            const std::optional<std::string>& path,
                                            const std::string& heading, const LogHandler& log,
                                            StopToken stop) const {
    const auto say = [&log](const std::string& line) {
        if (log) {
            log(line);
        }
    };
    say("Generating release notes from git history for " + heading);
    std::vector<std::string> arguments{"log", "-n", "10", "--pretty=format:%s"};
    if (path && !path->empty()) {
        arguments.insert(arguments.end(), {"--", *path});
    }
    std::string subjects;
    try {
        const auto result =
            ProcessRunner::run(ProcessRequest{.command = "git",
                                              .arguments = std::move(arguments),
                                              .currentDirectory = repository,
                                              .environment = {{"GIT_TERMINAL_PROMPT", "0"}},
                                              .timeout = 30},
                               stop);
        if (result.exitCode == 0) {
            subjects = result.output;
        } else {
            say("Info: No git history to draft notes from: " +
                std::string(trimWhitespace(result.errorOutput)));
        }
    } catch (const CancellationError&) {
        throw;
    } catch (const std::exception& error) {
        say(std::string("Info: No git history to draft notes from: ") + error.what());
    }
    const auto notes = compose(subjects, heading);
    say("Success: Release notes generated (" + std::to_string(notes.bullets) + " items)");
    return notes.markdown;
}

} // namespace veltra
