#pragma once

#include <atomic>
#include <optional>
#include <string>
#include <string_view>

namespace veltra::cli {

// Whether what goes to `fd` is coloured: a terminal that is not TERM=dumb, with neither NO_COLOR
// set nor --no-color given.
bool colourFor(int fd, bool noColourOption);

// `line` in the colour of what it says (after leading blanks): "✓" green, "✗" and "Error:" red,
// "Warning:" yellow; any other line as it is.
std::string colouredLine(std::string_view line);
// Colours one step symbol the same way.
std::string colouredSymbol(std::string_view symbol);

struct TerminalSize {
    int rows = 24;
    int columns = 80;
};
// The size of the terminal `fd` is; none off a terminal.
std::optional<TerminalSize> terminalSize(int fd);

// Text from a file (a name, a value) as it may reach a terminal: tabs, line breaks and other
// control characters shown escaped ("\\t", "\\n", "\\x0d").
std::string printable(std::string_view text);

// Set when the terminal's window changed size (SIGWINCH); whoever draws takes it.
extern std::atomic<bool> windowResized;

} // namespace veltra::cli
