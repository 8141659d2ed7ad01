#include "DownloadPageTemplate.h"

#include "core/support/Text.h"

#include <regex>

namespace veltra {
namespace {

std::string regexEscaped(std::string_view text) {
    std::string escaped;
    for (const char c : text) {
        if (std::string_view(R"(\^$.|?*+()[]{}/-)").find(c) != std::string_view::npos) {
            escaped += '\\';
        }
        escaped += c;
    }
    return escaped;
}

} // namespace

std::string DownloadPageTemplate::escapeHTML(std::string_view text) {
    std::string out;
    for (const char c : text) {
        switch (c) {
        case '&':
            out += "&amp;";
            break;
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '"':
            out += "&quot;";
            break;
        case '\'':
            out += "&#39;";
            break;
        default:
            out += c;
        }
    }
    return out;
}

std::string DownloadPageTemplate::render(const std::string& appName,
                                         const std::string& downloadsFolder,
                                         const std::string& build) {
    const auto name = escapeHTML(appName);
    const auto folder = escapeHTML(downloadsFolder);
    const auto file = escapeHTML(percentEncoded(appName));
    std::string page;
    page += "<!DOCTYPE html>\n";
    page += std::string(generatorMarker) + "\n";
    page += "<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n";
    page += "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n";
    page += "<title>" + name + " for Mac</title>\n";
    page += "<link rel=\"alternate\" type=\"application/rss+xml\" title=\"" + name +
            " updates\" href=\"" + folder + "/appcast.xml\">\n";
    page += "<style>\n"
            "body{margin:0;font-family:-apple-system,BlinkMacSystemFont,\"Helvetica Neue\","
            "sans-serif;background:linear-gradient(#eeeef2,#fafafc);color:#1d1d1f;"
            "text-align:center}\n"
            "main{max-width:40rem;margin:0 auto;padding:4rem 1.5rem}\n"
            ".app-icon{width:128px;height:128px}\n"
            "h1{font-size:2.5rem;margin:1rem 0 .5rem}\n"
            ".download{display:inline-block;margin:1.5rem 0;padding:.8rem 2rem;border-radius:"
            "999px;background:#0071e3;color:#fff;font-size:1.1rem;text-decoration:none}\n"
            "footer{color:#86868b;font-size:.8rem}\n"
            "</style>\n</head>\n<body>\n<main>\n";
    page += std::string(iconMarker) + "\n";
    page += "<img class=\"app-icon\" src=\"" + folder + "/icon.png\" alt=\"" + name + " icon\">\n";
    page += "<h1>" + name + "</h1>\n";
    page += "<p>for macOS</p>\n";
    page += "<a class=\"download\" href=\"" + folder + "/" + file + ".dmg?v=" + escapeHTML(build) +
            "\">Download " + name + "</a>\n";
    page += "<p><a href=\"" + folder + "/" + file + ".md\">What's new</a></p>\n";
    page += "</main>\n<footer>Published with Veltra</footer>\n</body>\n</html>\n";
    return page;
}

bool DownloadPageTemplate::needsUpgrade(std::string_view page) {
    return page.find(generatorMarker) != std::string_view::npos &&
           page.find(iconMarker) == std::string_view::npos;
}

std::string DownloadPageTemplate::withCacheBuster(std::string_view page, const std::string& appName,
                                                  const std::string& stamp) {
    std::string text(page);
    for (const auto& written : {appName, percentEncoded(appName)}) {
        const std::regex link(regexEscaped(written) + R"(\.dmg\?v=[0-9]+)");
        // The replacement is literal text: "$" in a name must not read as a group.
        std::string replacement;
        for (const char c : written + ".dmg?v=" + stamp) {
            replacement += c == '$' ? std::string("$$") : std::string(1, c);
        }
        text = std::regex_replace(text, link, replacement);
    }
    return text;
}

} // namespace veltra
