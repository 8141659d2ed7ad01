#include "Secrets.h"

#include <cstdlib>

namespace veltra {

std::optional<std::string> takeSecretFromEnvironment(const std::string& name) {
    const char* value = std::getenv(name.c_str());
    if (value == nullptr) {
        return std::nullopt;
    }
    std::string secret(value);
    ::unsetenv(name.c_str());
    return secret;
}

namespace {

bool schemeCharacter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '+' ||
           c == '-' || c == '.';
}

// Where the authority of a URL ends: at the path, query, fragment, or anything no URL holds.
bool endsAuthority(char c) {
    return c == '/' || c == '?' || c == '#' || c == ' ' || c == '\t' || c == '\n' || c == '\r' ||
           c == '"' || c == '\'' || c == '<' || c == '>' || c == '`';
}

} // namespace

std::string redactURLCredentials(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    std::size_t copied = 0;
    for (auto at = text.find("://"); at != std::string_view::npos; at = text.find("://", at + 3)) {
        auto schemeStart = at;
        while (schemeStart > 0 && schemeCharacter(text[schemeStart - 1])) {
            --schemeStart;
        }
        if (schemeStart == at) {
            continue; // "://" with no scheme before it is no URL
        }
        const auto authority = at + 3;
        auto end = authority;
        while (end < text.size() && !endsAuthority(text[end])) {
            ++end;
        }
        // The last '@' of the authority ends the user information (a password may hold '@').
        const auto userInfoEnd = text.substr(authority, end - authority).rfind('@');
        if (userInfoEnd == std::string_view::npos) {
            continue;
        }
        out.append(text.substr(copied, authority - copied));
        out.append("***");
        copied = authority + userInfoEnd;
        at = copied;
    }
    out.append(text.substr(copied));
    return out;
}

} // namespace veltra
