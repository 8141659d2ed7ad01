#include "WebHostingProvider.h"

namespace veltra {
namespace {

struct ProviderInfo {
    WebHostingProvider provider;
    std::string_view raw;
    std::string_view display;
    std::string_view symbol;
    std::string_view example;
};

constexpr std::array providers{
    ProviderInfo{WebHostingProvider::cloudflarePages, "cloudflare", "Cloudflare Pages",
                 "bolt.horizontal.fill", "https://myapp.pages.example"},
    ProviderInfo{WebHostingProvider::vercel, "vercel", "Vercel", "triangle.fill",
                 "https://myapp.vercel.example"},
    ProviderInfo{WebHostingProvider::netlify, "netlify", "Netlify", "diamond.fill",
                 "https://myapp.netlify.example"},
    ProviderInfo{WebHostingProvider::githubPages, "github_pages", "GitHub Pages", "globe",
                 "https://username.github.example"},
    ProviderInfo{WebHostingProvider::custom, "custom", "Custom / Other", "server.rack",
                 "https://www.example.com"},
};

const ProviderInfo& info(WebHostingProvider provider) {
    for (const auto& entry : providers) {
        if (entry.provider == provider) {
            return entry;
        }
    }
    return providers.back();
}

} // namespace

std::string_view rawValue(WebHostingProvider provider) {
    return info(provider).raw;
}
std::string_view displayName(WebHostingProvider provider) {
    return info(provider).display;
}
std::string_view symbolName(WebHostingProvider provider) {
    return info(provider).symbol;
}
std::string_view exampleSiteURL(WebHostingProvider provider) {
    return info(provider).example;
}

std::optional<WebHostingProvider> webHostingProvider(std::string_view raw) {
    for (const auto& entry : providers) {
        if (entry.raw == raw) {
            return entry.provider;
        }
    }
    return std::nullopt;
}

} // namespace veltra
