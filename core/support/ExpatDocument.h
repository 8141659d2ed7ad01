#pragma once

#include <expat.h>
#include <string>
#include <string_view>

namespace veltra {

// What expat's callbacks receive as user data. Callers' own state derives from it, so that any
// callback, the entity refusal included, reaches the parser.
struct ExpatContext {
    XML_Parser parser = nullptr;
};

template <typename Context> Context& expatContext(void* user) {
    return static_cast<Context&>(*static_cast<ExpatContext*>(user));
}

// An expat parser without namespace processing (names as written) that takes documents of any
// size and refuses every DTD entity declaration: feeds have no use for them, and refusing them
// closes both the external-file and the expansion-bomb doors whatever expat's own limits are.
class ExpatDocument {
public:
    // Sets the callbacks' user data to `context` and its parser to this one.
    explicit ExpatDocument(ExpatContext& context);
    ~ExpatDocument();
    ExpatDocument(const ExpatDocument&) = delete;
    ExpatDocument& operator=(const ExpatDocument&) = delete;

    XML_Parser parser() const noexcept { return parser_; }
    // False when the document is not well-formed, a callback stopped it, or expat could not
    // start.
    bool parse(std::string_view document);
    // Where and why the last parse stopped ("line 6, column 1: no element found").
    std::string errorText() const;

private:
    XML_Parser parser_;
};

} // namespace veltra
