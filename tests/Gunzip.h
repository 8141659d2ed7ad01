#pragma once

#include <string>
#include <zlib.h>

#include <gtest/gtest.h>

namespace veltra::testing {

// What a gzip-encoded request body (of at most 1 MiB) says.
inline std::string gunzip(const std::string& packed) {
    z_stream stream{};
    EXPECT_EQ(inflateInit2(&stream, 15 + 16), Z_OK);
    std::string text(1 << 20, '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(packed.data()));
    stream.avail_in = static_cast<uInt>(packed.size());
    stream.next_out = reinterpret_cast<Bytef*>(text.data());
    stream.avail_out = static_cast<uInt>(text.size());
    EXPECT_EQ(inflate(&stream, Z_FINISH), Z_STREAM_END);
    text.resize(stream.total_out);
    inflateEnd(&stream);
    return text;
}

} // namespace veltra::testing
