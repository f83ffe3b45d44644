// The bytes of a JSON file and the document in them. Comments are allowed, of both forms.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include <nlohmann/json_fwd.hpp>

namespace lofter {

// The content of a file; nothing when it cannot be opened. What is no regular file, or cannot be read, has no content:
// a pipe or a device among the plugin files must not hold up the boot.
std::optional<std::string> ReadFileContent(const std::string& path);

// The document, or a discarded value when the text is not valid JSON. Stricter than the reader underneath: a byte order
// mark, a NUL byte and an object that has the same key twice are not valid either. Numbers are floating point to the
// caller. The time it takes grows with the text's length, however many members there are and however deep they nest.
nlohmann::json ParseJson(const std::string& text);

// Why that is no document, and the byte, counted from 0, up to which it could have been one.
struct JsonFault {
    std::size_t byte;
    std::string text;
};

// Nothing for a text that is valid.
std::optional<JsonFault> FindJsonFault(const std::string& text);

}  // namespace lofter
