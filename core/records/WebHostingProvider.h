#pragma once

#include <array>
#include <optional>
#include <string_view>

namespace veltra {

enum class WebHostingProvider { cloudflarePages, vercel, netlify, githubPages, custom };

inline constexpr std::array allWebHostingProviders{
    WebHostingProvider::cloudflarePages, WebHostingProvider::vercel, WebHostingProvider::netlify,
    WebHostingProvider::githubPages, WebHostingProvider::custom};

std::string_view rawValue(WebHostingProvider provider);       // "cloudflare", "vercel", ...
std::string_view displayName(WebHostingProvider provider);    // "Cloudflare Pages", ...
std::string_view symbolName(WebHostingProvider provider);     // "bolt.horizontal.fill", ...
std::string_view exampleSiteURL(WebHostingProvider provider); // a hint on a reserved host
std::optional<WebHostingProvider> webHostingProvider(std::string_view raw);

} // namespace veltra
