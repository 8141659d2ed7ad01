#include "TestSupport.h"
#include "core/support/ResourceLocator.h"

#include <gtest/gtest.h>

namespace veltra {
namespace {

TEST(ResourceLocator, InstalledLayoutFirstThenTheSourceTree) {
    testing::TempDir prefix;
    std::filesystem::create_directories(prefix / "bin");
    testing::writeFile(prefix / "bin" / "veltra", "");
    const auto fromSource =
        ResourceLocator::locate(ResourceLocator::Resource::toolStandIns, prefix / "bin" / "veltra");
    ASSERT_TRUE(fromSource);
    EXPECT_TRUE(std::filesystem::exists(*fromSource / "xcodebuild")) << *fromSource;

    std::filesystem::create_directories(prefix / "share" / "veltra" / "tools");
    EXPECT_EQ(
        ResourceLocator::locate(ResourceLocator::Resource::toolStandIns, prefix / "bin" / "veltra"),
        prefix / "share" / "veltra" / "tools");
}

TEST(ResourceLocator, AnAppBundleAtThePrefixFindsThePrefixsShare) {
    testing::TempDir prefix;
    const auto executable = prefix / "veltra-studio.app" / "Contents" / "MacOS" / "veltra-studio";
    testing::writeFile(executable, "");
    std::filesystem::create_directories(prefix / "share" / "veltra" / "demo");
    EXPECT_EQ(ResourceLocator::locate(ResourceLocator::Resource::demo, executable),
              prefix / "share" / "veltra" / "demo");
}

TEST(ResourceLocator, KnowsItsOwnExecutable) {
    const auto self = ResourceLocator::executablePath();
    ASSERT_FALSE(self.empty());
    EXPECT_EQ(self.filename(), "support_tests");
    EXPECT_TRUE(std::filesystem::is_regular_file(self));
}

} // namespace
} // namespace veltra
