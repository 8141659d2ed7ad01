# Homebrew formula for the veltra command-line tool and the Studio, built from a release tarball with CMake.
# The tarball is the one `git archive` makes for a release tag; fill in its sha256 on release.
class Veltra < Formula
  desc "Takes a Mac app from its Xcode project to a published, self-updating release"
  homepage "https://github.com/veltra-app/veltra"
  url "https://github.com/veltra-app/veltra/archive/refs/tags/v0.1.0.tar.gz"
  sha256 "0000000000000000000000000000000000000000000000000000000000000000"

  depends_on "cmake" => :build
  depends_on "cpp-httplib" => :build
  depends_on "ninja" => :build
  depends_on "pkgconf" => :build
  depends_on "cli11" => :build
  depends_on "nlohmann-json" => :build
  depends_on "cairo"
  depends_on "curl"
  depends_on "expat"
  depends_on "fmt"
  depends_on "libisofs"
  depends_on "libplist"
  depends_on "libsodium"
  depends_on :macos
  depends_on "openssl@3"
  depends_on "pango"
  depends_on "qt"
  depends_on "utf8proc"
  depends_on "xz"

  def install
    # No tests, benchmarks or -Werror in a user's build: a newer compiler's new warning must not
    # stop an install.
    system "cmake", "-S", ".", "-B", "build", "-G", "Ninja",
           "-DCMAKE_BUILD_TYPE=Release", "-DVELTRA_TESTS=OFF", "-DVELTRA_BENCH=OFF",
           *std_cmake_args
    system "cmake", "--build", "build"
    system "cmake", "--install", "build"
  end

  test do
    assert_match version.to_s, shell_output("#{bin}/veltra --version")
    assert_predicate share/"veltra/tools", :directory?
    assert_predicate share/"veltra/demo/Sample/Sample.xcodeproj", :directory?
    assert_predicate man1/"veltra-release.1", :exist?
    assert_predicate bash_completion/"veltra", :exist?
    assert_predicate zsh_completion/"_veltra", :exist?
    assert_predicate fish_completion/"veltra.fish", :exist?
  end
end
