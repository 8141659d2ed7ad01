#include "core/support/Utf8.h"

#include <gtest/gtest.h>

namespace veltra {
namespace {

TEST(Utf8, ValidatesAndReplacesMaximalSubparts) {
    struct Row {
        const char* name;
        std::string input;
        bool valid;
        std::string decoded;
    };
    const std::string r = "\xEF\xBF\xBD";
    const std::vector<Row> rows{
        {"ascii", "plain", true, "plain"},
        {"all widths", "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", true,
         "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"},
        {"nul is valid", std::string("a\0b", 3), true, std::string("a\0b", 3)},
        {"lone continuation", "a\x80z", false, "a" + r + "z"},
        {"truncated 3-byte at end", "a\xE2\x82", false, "a" + r},
        {"truncated then ascii", "\xE2\x82z", false, r + "z"},
        {"overlong 2-byte", "\xC0\xAF", false, r + r},
        {"overlong 3-byte", "\xE0\x80\xAF", false, r + r + r},
        {"surrogate", "\xED\xA0\x80", false, r + r + r},
        {"past U+10FFFF", "\xF4\x90\x80\x80", false, r + r + r + r},
        {"bad lead byte", "\xFF", false, r},
        // The Unicode standard's own example of maximal subparts.
        {"standard example", "\x61\xF1\x80\x80\xE1\x80\xC2\x62\x80\x63\x80\xBF\x64", false,
         "a" + r + r + r + "b" + r + "c" + r + r + "d"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(utf8::isValid(row.input), row.valid);
        EXPECT_EQ(utf8::decodeLossy(row.input), row.decoded);
    }
}

} // namespace
} // namespace veltra
