#include "Terminal.h"

#include <cstdlib>
#include <cstring>
#include <sys/ioctl.h>
#include <unistd.h>

#include <fmt/format.h>

namespace veltra::cli {

std::atomic<bool> windowResized{false};

namespace {

constexpr std::string_view green = "\x1b[32m";
constexpr std::string_view red = "\x1b[31m";
constexpr std::string_view yellow = "\x1b[33m";
constexpr std::string_view reset = "\x1b[0m";

std::string paint(std::string_view colour, std::string_view text) {
    return std::string(colour) + std::string(text) + std::string(reset);
}

} // namespace

bool colourFor(int fd, bool noColourOption) {
    if (noColourOption || ::isatty(fd) != 1) {
        return false;
    }
    // Any NO_COLOR that is set and not empty turns colour off.
    if (const char* noColour = std::getenv("NO_COLOR"); noColour != nullptr && *noColour != '\0') {
        return false;
    }
    const char* term = std::getenv("TERM");
    return term == nullptr || std::strcmp(term, "dumb") != 0;
}

std::string colouredLine(std::string_view line) {
    const auto text = line.substr(std::min(line.find_first_not_of(' '), line.size()));
    if (text.starts_with("\xE2\x9C\x93")) { // ✓
        return paint(green, line);
    }
    if (text.starts_with("\xE2\x9C\x97") || text.starts_with("Error:")) { // ✗
        return paint(red, line);
    }
    if (text.starts_with("Warning:")) {
        return paint(yellow, line);
    }
    return std::string(line);
}

std::string colouredSymbol(std::string_view symbol) {
    return colouredLine(symbol);
}

std::optional<TerminalSize> terminalSize(int fd) {
    winsize size{};
    if (::isatty(fd) != 1 || ::ioctl(fd, TIOCGWINSZ, &size) != 0) {
        return std::nullopt;
    }
    TerminalSize found;
    if (size.ws_row > 0) {
        found.rows = size.ws_row;
    }
    if (size.ws_col > 0) {
        found.columns = size.ws_col;
    }
    return found;
}

std::string printable(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        if (c == '\t') {
            out += "\\t";
        } else if (c == '\n') {
            out += "\\n";
        } else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
            out += fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
        } else {
            out += c;
        }
    }
    return out;
}

} // namespace veltra::cli
