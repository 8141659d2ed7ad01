#include "AppIconResolver.h"

#include "core/support/FileUtilities.h"
#include "core/support/Uuid.h"
#include "core/support/VeltraError.h"

#include <cstdint>

namespace veltra {
namespace {

constexpr std::string_view pngSignature = "\x89PNG\r\n\x1a\n";

std::uint32_t bigEndian32(std::string_view data, std::size_t at) {
    return static_cast<std::uint32_t>(static_cast<unsigned char>(data[at])) << 24 |
           static_cast<std::uint32_t>(static_cast<unsigned char>(data[at + 1])) << 16 |
           static_cast<std::uint32_t>(static_cast<unsigned char>(data[at + 2])) << 8 |
           static_cast<std::uint32_t>(static_cast<unsigned char>(data[at + 3]));
}

} // namespace

std::optional<std::string> AppIconResolver::largestPNG(std::string_view icns) {
    if (icns.size() < 8 || icns.substr(0, 4) != "icns") {
        return std::nullopt;
    }
    const auto total = std::min<std::size_t>(bigEndian32(icns, 4), icns.size());
    std::optional<std::string_view> best;
    std::uint32_t bestWidth = 0;
    for (std::size_t at = 8; at + 8 <= total;) {
        const auto length = bigEndian32(icns, at + 4);
        if (length < 8 || length > total - at) {
            break;
        }
        const auto data = icns.substr(at + 8, length - 8);
        // IHDR follows the signature: length, "IHDR", width.
        if (data.size() >= 24 && data.substr(0, 8) == pngSignature &&
            data.substr(12, 4) == "IHDR") {
            const auto width = bigEndian32(data, 16);
            if (!best || width > bestWidth) {
                best = data;
                bestWidth = width;
            }
        }
        at += length;
    }
    return best ? std::optional<std::string>(std::string(*best)) : std::nullopt;
}

std::optional<std::string>
AppIconResolver::pngData(const std::optional<std::filesystem::path>& iconURL,
                         StopToken stop) const {
    if (!iconURL) {
        return std::nullopt;
    }
    try {
        const auto data = readFile(*iconURL);
        if (data.starts_with(pngSignature)) {
            return data;
        }
        if (auto png = largestPNG(data)) {
            return png;
        }
#ifdef __APPLE__
        // Older icon families keep their bitmaps in formats only the system reads.
        const auto out = std::filesystem::temp_directory_path() /
                         ("veltra_icon_" + Uuid::random().string() + ".png");
        const auto result = ProcessRunner::run(
            ProcessRequest{
                .command = "/usr/bin/sips",
                .arguments = {"-s", "format", "png", iconURL->string(), "--out", out.string()}},
            stop);
        std::optional<std::string> png;
        if (result.exitCode == 0 && std::filesystem::exists(out)) {
            png = readFile(out);
        }
        std::error_code ignored;
        std::filesystem::remove(out, ignored);
        return png;
#else
        (void)stop;
#endif
    } catch (const CancellationError&) {
        throw;
    } catch (const std::exception&) {
    }
    return std::nullopt;
}

} // namespace veltra
