#include "core/process/ThreadSafeBuffer.h"
#include "core/support/StopToken.h"

#include <random>
#include <thread>

#include <gtest/gtest.h>

namespace veltra {
namespace {

// The ring must behave exactly like "append, then cut the front down to the limit".
TEST(ThreadSafeBuffer, KeepsTheSameTailAsANaiveBuffer) {
    std::mt19937 random(7);
    for (const std::size_t limit : {0u, 1u, 2u, 7u, 64u, 1000u}) {
        SCOPED_TRACE(limit);
        ThreadSafeBuffer buffer(limit);
        std::string model;
        char next = 'a';
        for (int round = 0; round < 400; ++round) {
            const std::size_t size =
                std::uniform_int_distribution<std::size_t>(0, 2 * limit + 3)(random);
            std::string chunk;
            for (std::size_t i = 0; i < size; ++i) {
                chunk += next;
                next = next == 'z' ? 'a' : static_cast<char>(next + 1);
            }
            buffer.append(chunk);
            model += chunk;
            if (model.size() > limit) {
                model.erase(0, model.size() - limit);
            }
            ASSERT_EQ(buffer.bytes(), model) << "round " << round;
        }
    }
    ThreadSafeBuffer unlimited;
    unlimited.append("abc");
    unlimited.append(std::string(5000, 'x'));
    EXPECT_EQ(unlimited.bytes().size(), 5003u);
}

TEST(ThreadSafeBuffer, DecodesWhatWasCutMidCharacterWithReplacement) {
    ThreadSafeBuffer buffer(4);
    buffer.append("x\xC3\xA9"
                  "abc"); // the tail starts inside "é"
    EXPECT_EQ(buffer.string(), "\xEF\xBF\xBD"
                               "abc");
}

TEST(ThreadSafeBuffer, ConcurrentAppendsAndReadsStayConsistent) {
    ThreadSafeBuffer buffer(100);
    {
        JThread writer([&] {
            for (int i = 0; i < 20000; ++i) {
                buffer.append("0123456789");
            }
        });
        for (int i = 0; i < 2000; ++i) {
            const auto bytes = buffer.bytes();
            ASSERT_EQ(bytes.size() % 10, 0u);
            ASSERT_EQ(bytes.substr(0, std::min<std::size_t>(bytes.size(), 10)),
                      std::string("0123456789").substr(0, std::min<std::size_t>(bytes.size(), 10)));
        }
    }
    EXPECT_EQ(buffer.bytes().size(), 100u);
}

} // namespace
} // namespace veltra
