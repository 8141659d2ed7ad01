#include "Commands.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <fmt/format.h>

// Shell completion scripts and manual pages made from the command line's own definitions, so
// they never disagree with it: commands, options, and profile names from the profile file.
namespace veltra::cli {
namespace {

struct CommandShape {
    std::string path; // "" for veltra itself, "sparkle keys" for a nested command
    std::vector<std::string> subcommands;
    std::vector<std::string> options;
    // Those of `options` that take a value (the next word).
    std::vector<std::string> valueOptions;
    bool takesProfile = false;
};

void collect(const CLI::App& app, const std::string& path, std::vector<CommandShape>& shapes) {
    CommandShape shape;
    shape.path = path;
    for (const auto* sub : app.get_subcommands({})) {
        if (!sub->get_group().empty()) {
            shape.subcommands.push_back(sub->get_name());
        }
    }
    for (const auto* option : app.get_options()) {
        if (option->get_group().empty()) {
            continue; // hidden: an earlier spelling
        }
        for (const auto& name : option->get_lnames()) {
            shape.options.push_back("--" + name);
            if (option->get_type_size() != 0) {
                shape.valueOptions.push_back("--" + name);
            }
        }
        if (option->get_lnames().empty() && option->get_snames().empty() &&
            option->get_name() == "NAME|ID") {
            shape.takesProfile = true;
        }
    }
    shapes.push_back(shape);
    for (const auto* sub : app.get_subcommands({})) {
        collect(*sub, path.empty() ? sub->get_name() : path + " " + sub->get_name(), shapes);
    }
}

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const auto& word : words) {
        text += (text.empty() ? "" : " ") + word;
    }
    return text;
}

// Works in bash 3.2 (macOS's own) and, through bashcompinit, in zsh (where `path` is PATH, so
// the command's words are `at`).
std::string bashScript(const std::vector<CommandShape>& shapes,
                       const std::string& function = "_veltra") {
    std::string paths;
    std::string cases;
    std::vector<std::string> taking;
    for (const auto& shape : shapes) {
        for (const auto& option : shape.valueOptions) {
            if (std::ranges::find(taking, option) == taking.end()) {
                taking.push_back(option);
            }
        }
    }
    std::string takingPattern;
    for (const auto& option : taking) {
        takingPattern += (takingPattern.empty() ? "" : "|") + option;
    }
    for (const auto& shape : shapes) {
        if (!shape.path.empty()) {
            paths += "      \"" + shape.path + "\") at=\"$next\" ;;\n";
        }
        cases += "    \"" + shape.path + "\") commands=\"" + joined(shape.subcommands) +
                 "\"; options=\"" + joined(shape.options) +
                 "\"; profiles=" + (shape.takesProfile ? "1" : "0") + " ;;\n";
    }
    return std::string("# veltra completion for bash (and zsh with bashcompinit). Made by 'veltra "
                       "completion bash'.\n") +
           function +
           "() {\n"
           "  local cur=\"${COMP_WORDS[COMP_CWORD]}\" at=\"\" next word i given=0\n"
           "  for ((i = 1; i < COMP_CWORD; i++)); do\n"
           "    word=\"${COMP_WORDS[i]}\"\n"
           "    case \"$word\" in\n"
           "      " +
           takingPattern +
           ") i=$((i + 1)); continue ;;\n"
           "      -*) continue ;;\n"
           "    esac\n"
           "    next=\"${at:+$at }$word\"\n"
           "    case \"$next\" in\n" +
           paths +
           "      *) given=$((given + 1)) ;;\n"
           "    esac\n"
           "  done\n"
           "  local commands=\"\" options=\"\" profiles=0\n"
           "  case \"$at\" in\n" +
           cases +
           "  esac\n"
           "  local IFS=$'\\n'\n"
           "  case \"${COMP_WORDS[COMP_CWORD - 1]}\" in\n"
           "    " +
           takingPattern +
           ") COMPREPLY=($(compgen -f -- \"$cur\")); return ;;\n"
           "  esac\n"
           "  if [[ \"$cur\" == -* ]]; then\n"
           "    COMPREPLY=($(IFS=' '; compgen -W \"$options\" -- \"$cur\"))\n"
           "  elif [[ -n \"$commands\" ]]; then\n"
           "    COMPREPLY=($(IFS=' '; compgen -W \"$commands\" -- \"$cur\"))\n"
           "  elif ((profiles && given == 0)); then\n"
           "    local name\n"
           "    COMPREPLY=()\n"
           "    while IFS= read -r name; do\n"
           "      [[ \"$name\" == \"$cur\"* ]] && COMPREPLY+=(\"$name\")\n"
           "    done < <(veltra profile list --names 2>/dev/null)\n"
           "  else\n"
           "    COMPREPLY=($(compgen -f -- \"$cur\"))\n"
           "  fi\n"
           "}\n"
           "complete -F " +
           function + " veltra\n";
}

// The bash function through zsh's bashcompinit: sourced, or autoloaded as _veltra from
// site-functions, where the first use also completes.
std::string zshScript(const std::vector<CommandShape>& shapes) {
    return "#compdef veltra\n"
           "# veltra completion for zsh. Made by 'veltra completion zsh'.\n"
           "autoload -U +X bashcompinit && bashcompinit\n" +
           bashScript(shapes, "_veltra_bash") +
           "if [[ -n ${CURRENT-} && -n ${words-} ]]; then\n"
           "  _bash_complete -F _veltra_bash\n"
           "fi\n";
}

std::string fishScript(const std::vector<CommandShape>& shapes) {
    std::string script = "# veltra completion for fish. Made by 'veltra completion fish'.\n"
                         "function __veltra_path\n"
                         "    set -l words (commandline -opc)\n"
                         "    set -l path ''\n"
                         "    set -l given 0\n"
                         "    set -l skip 0\n"
                         "    for word in $words[2..-1]\n"
                         "        if test $skip = 1\n"
                         "            set skip 0\n"
                         "            continue\n"
                         "        end\n"
                         "        if contains -- $word $__veltra_value_options\n"
                         "            set skip 1\n"
                         "            continue\n"
                         "        end\n"
                         "        string match -q -- '-*' $word; and continue\n"
                         "        set -l next (string trim -- \"$path $word\")\n"
                         "        if contains -- $next $__veltra_paths\n"
                         "            set path $next\n"
                         "        else\n"
                         "            set given (math $given + 1)\n"
                         "        end\n"
                         "    end\n"
                         "    echo \"$path\"\n"
                         "    echo $given\n"
                         "end\n"
                         "function __veltra_at\n"
                         "    set -l found (__veltra_path)\n"
                         "    test \"$found[1]\" = \"$argv[1]\"\n"
                         "end\n"
                         "function __veltra_wants_profile\n"
                         "    set -l found (__veltra_path)\n"
                         "    test \"$found[1]\" = \"$argv[1]\" -a \"$found[2]\" = 0\n"
                         "end\n"
                         "set -g __veltra_paths";
    for (const auto& shape : shapes) {
        if (!shape.path.empty()) {
            script += " '" + shape.path + "'";
        }
    }
    script += "\nset -g __veltra_value_options";
    std::vector<std::string> taking;
    for (const auto& shape : shapes) {
        for (const auto& option : shape.valueOptions) {
            if (std::ranges::find(taking, option) == taking.end()) {
                taking.push_back(option);
                script += " " + option;
            }
        }
    }
    script += "\ncomplete -c veltra -f\n";
    for (const auto& shape : shapes) {
        const auto at = "'__veltra_at \"" + shape.path + "\"'";
        if (!shape.subcommands.empty()) {
            script += "complete -c veltra -n " + at + " -a '" + joined(shape.subcommands) + "'\n";
        }
        for (const auto& option : shape.options) {
            const bool value =
                std::ranges::find(shape.valueOptions, option) != shape.valueOptions.end();
            script += "complete -c veltra -n " + at + " -l " + option.substr(2) +
                      (value ? " -r -F" : "") + "\n";
        }
        if (shape.takesProfile) {
            script += "complete -c veltra -n '__veltra_wants_profile \"" + shape.path +
                      "\"' -a '(veltra profile list --names 2>/dev/null)'\n";
        }
    }
    return script;
}

// Text as roff reads it literally; characters beyond ASCII as roff's \[uXXXX].
std::string roff(std::string_view text) {
    std::string escaped;
    bool lineStart = true;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const auto c = static_cast<unsigned char>(text[at]);
        if (lineStart && (c == '.' || c == '\'')) {
            escaped += "\\&";
        }
        lineStart = c == '\n';
        if (c == '\\') {
            escaped += "\\e";
        } else if (c == '-') {
            escaped += "\\-";
        } else if (c < 0x80) {
            escaped += static_cast<char>(c);
        } else {
            const int extra = c >= 0xF0 ? 3 : c >= 0xE0 ? 2 : c >= 0xC0 ? 1 : 0;
            char32_t codepoint = c & (0x3F >> extra);
            for (int i = 0; i < extra && at + 1 < text.size(); ++i) {
                codepoint = (codepoint << 6) | (static_cast<unsigned char>(text[++at]) & 0x3F);
            }
            escaped += fmt::format("\\[u{:04X}]", static_cast<std::uint32_t>(codepoint));
        }
    }
    return escaped;
}

std::string upper(std::string text) {
    std::ranges::transform(text, text.begin(),
                           [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

// One manual page a command: veltra(1), veltra-release(1), veltra-sparkle-keys-generate(1).
void writeManual(const CLI::App& app, const std::string& path, const std::filesystem::path& folder,
                 const std::string& version) {
    auto page = std::string("veltra");
    for (const char c : path) {
        page += c == ' ' ? '-' : c;
    }
    if (!path.empty()) {
        page.insert(6, "-");
    }
    std::string text = ".TH " + upper(page) + " 1 \"\" \"veltra " + version +
                       "\" \"Veltra Manual\"\n.SH NAME\n" + roff(page) + " \\- " +
                       roff(app.get_description()) + "\n.SH SYNOPSIS\n.B veltra" +
                       (path.empty() ? "" : " " + roff(path)) + "\n[OPTIONS]";
    std::string options;
    for (const auto* option : app.get_options()) {
        if (option->get_group().empty()) {
            continue;
        }
        if (option->get_lnames().empty() && option->get_snames().empty()) {
            text += option->get_required() ? " " + roff(option->get_name())
                                           : " [" + roff(option->get_name()) + "]";
            continue;
        }
        std::string names;
        for (const auto& name : option->get_snames()) {
            names += (names.empty() ? "" : ", ") + std::string("\\-") + name;
        }
        for (const auto& name : option->get_lnames()) {
            names += (names.empty() ? "" : ", ") + std::string("\\-\\-") + roff(name);
        }
        options += ".TP\n.B " + names;
        if (option->get_type_size() != 0 && !option->get_type_name().empty()) {
            options += " \\fI" + roff(option->get_type_name()) + "\\fR";
        }
        options += "\n" + roff(option->get_description()) + "\n";
    }
    std::vector<const CLI::App*> subcommands;
    for (const auto* sub : app.get_subcommands({})) {
        if (!sub->get_group().empty()) {
            subcommands.push_back(sub);
        }
    }
    if (!subcommands.empty()) {
        text += " COMMAND";
    }
    text += "\n.SH DESCRIPTION\n" + roff(app.get_description()) + "\n";
    if (!subcommands.empty()) {
        text += ".SH COMMANDS\n";
        for (const auto* sub : subcommands) {
            auto reference = (path.empty() ? "" : path + " ") + sub->get_name();
            std::ranges::replace(reference, ' ', '-');
            text += ".TP\n.B " + roff(sub->get_name()) + "\n" + roff(sub->get_description()) +
                    ". See\n.BR veltra\\-" + roff(reference) + " (1).\n";
        }
    }
    if (!options.empty()) {
        text += ".SH OPTIONS\n" + options;
    }
    text += ".SH EXIT STATUS\n0 done, 1 failed, 2 usage error, 3 a check said no (version check, "
            "doctor), 130 cancelled.\n";
    if (!path.empty()) {
        text += ".SH SEE ALSO\n.BR veltra (1)\n";
    }
    std::ofstream(folder / (page + ".1")) << text;
    for (const auto* sub : subcommands) {
        writeManual(*sub, path.empty() ? sub->get_name() : path + " " + sub->get_name(), folder,
                    version);
    }
}

} // namespace

void addManualCommand(CLI::App& app, CliContext& context, const std::string& version) {
    // The build writes the manual pages with it; not a command users look for.
    auto* command = app.add_subcommand("manual", "Write the manual pages into a folder");
    command->group("");
    auto folder = std::make_shared<std::string>();
    command->add_option("DIR", *folder, "The folder for the .1 files")->required();
    command->callback([&context, &app, folder, version] {
        std::filesystem::create_directories(*folder);
        writeManual(app, "", *folder, version);
        context.out << "Wrote the manual pages into " << *folder << '\n';
    });
}

void addCompletionCommand(CLI::App& app, CliContext& context) {
    auto* command =
        app.add_subcommand("completion", "Print the shell completion script for bash, zsh or fish");
    auto shell = std::make_shared<std::string>();
    command->add_option("SHELL", *shell, "bash, zsh or fish")
        ->required()
        ->check(CLI::IsMember({"bash", "zsh", "fish"}));
    command->callback([&context, &app, shell] {
        std::vector<CommandShape> shapes;
        collect(app, "", shapes);
        context.out << (*shell == "bash"  ? bashScript(shapes)
                        : *shell == "zsh" ? zshScript(shapes)
                                          : fishScript(shapes));
    });
}

} // namespace veltra::cli
