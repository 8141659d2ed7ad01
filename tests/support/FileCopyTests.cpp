// Copies of app bundles: what a copy keeps, what a read-only copy shares, and that a failed copy
// leaves nothing behind.

#include "TestSupport.h"
#include "core/support/FileCopy.h"
#include "core/support/FileUtilities.h"
#include "core/support/VeltraError.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

namespace veltra {
namespace {

namespace fs = std::filesystem;
using testing::TempDir;

struct stat statOf(const fs::path& path) {
    struct stat info {};
    EXPECT_EQ(::lstat(path.c_str(), &info), 0) << path;
    return info;
}

// A small bundle: a read-only folder, an executable, a link inside it and a dated file.
fs::path makeBundle(const fs::path& root) {
    const auto app = root / "Sample.app";
    testing::writeFile(app / "Contents/Info.plist", "<plist/>");
    testing::writeScript(app / "Contents/MacOS/Sample", "exit 0");
    fs::create_symlink("Versions/A", app / "Contents/Current");
    testing::writeFile(app / "Contents/Resources/Locked/readme.txt", "read me");
    fs::permissions(app / "Contents/Resources/Locked",
                    fs::perms::owner_read | fs::perms::owner_exec);
    const struct timespec old[2] = {{1'000'000'000, 0}, {1'000'000'000, 0}};
    ::utimensat(AT_FDCWD, (app / "Contents/Info.plist").c_str(), old, 0);
    return app;
}

TEST(FileCopy, BothKindsKeepTheTreeAndOnlyAReadOnlyCopySharesItsFiles) {
    TempDir dir;
    const auto app = makeBundle(dir.path());
    for (const auto use : {CopyUse::independent, CopyUse::readOnly}) {
        const auto copy = dir / (use == CopyUse::readOnly ? "shared.app" : "copy.app");
        SCOPED_TRACE(copy.filename().string());
        copyItem(app, copy, use);

        EXPECT_EQ(readFile(copy / "Contents/Info.plist"), "<plist/>");
        EXPECT_EQ(readFile(copy / "Contents/Resources/Locked/readme.txt"), "read me");
        EXPECT_TRUE(fs::is_symlink(copy / "Contents/Current"));
        EXPECT_EQ(fs::read_symlink(copy / "Contents/Current"), "Versions/A");
        EXPECT_EQ(statOf(copy / "Contents/MacOS/Sample").st_mode,
                  statOf(app / "Contents/MacOS/Sample").st_mode);
        EXPECT_EQ(statOf(copy / "Contents/Resources/Locked").st_mode & 07777, 0500u);
        EXPECT_EQ(statOf(copy / "Contents/Info.plist").st_mtim.tv_sec, 1'000'000'000);

        // Folders are always the copy's own, so what is added to one stays out of the original.
        EXPECT_NE(statOf(copy / "Contents").st_ino, statOf(app / "Contents").st_ino);
        testing::writeFile(copy / "Contents/Added", "new");
        EXPECT_FALSE(fs::exists(app / "Contents/Added"));
        const bool shared = statOf(copy / "Contents/Info.plist").st_ino ==
                            statOf(app / "Contents/Info.plist").st_ino;
        EXPECT_EQ(shared, use == CopyUse::readOnly);
    }
    fs::permissions(dir / "copy.app/Contents/Resources/Locked", fs::perms::owner_all);
    fs::permissions(dir / "shared.app/Contents/Resources/Locked", fs::perms::owner_all);
    fs::permissions(app / "Contents/Resources/Locked", fs::perms::owner_all);
}

TEST(FileCopy, AFailedCopyNamesTheFileAndLeavesNothing) {
    TempDir dir;
    const auto app = makeBundle(dir.path());
    ASSERT_EQ(::mkfifo((app / "Contents/pipe").c_str(), 0600), 0);
    for (const auto use : {CopyUse::independent, CopyUse::readOnly}) {
        const auto copy = dir / "copy.app";
        try {
            copyItem(app, copy, use);
            ADD_FAILURE() << "a pipe was copied";
        } catch (const VeltraError& error) {
            EXPECT_NE(error.message().find((app / "Contents/pipe").string()), std::string::npos)
                << error.message();
        }
        EXPECT_FALSE(fs::exists(copy));
    }
    fs::permissions(app / "Contents/Resources/Locked", fs::perms::owner_all);
}

} // namespace
} // namespace veltra
