#include "tslibs/OsRelease.h"

#include <cstddef>
#include <string_view>

namespace platform {

namespace {

constexpr std::string_view kEscapable = "$`\"\\";  // between double quotes

std::string Unquoted(std::string_view text) {
    std::string value;
    char quote = '\0';
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        const bool hasNext = i + 1 < text.size();
        if (quote == '\0' && (c == '"' || c == '\'')) {
            quote = c;
        } else if (c == quote) {
            quote = '\0';
        } else if (c == '\\' && hasNext &&
                   (quote == '\0' || (quote == '"' && kEscapable.find(text[i + 1]) != std::string_view::npos))) {
            value.push_back(text[++i]);
        } else {
            value.push_back(c);
        }
    }
    return value;
}

}  // namespace

std::string OsReleaseField(std::istream& file, const std::string& field) {
    std::string value;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with(field + '=')) {
            value = Unquoted(std::string_view(line).substr(field.size() + 1));
        }
    }
    return value;
}

}  // namespace platform
