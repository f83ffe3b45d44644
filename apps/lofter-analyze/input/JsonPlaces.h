// Where the parts of a JSON text stand, for what is said about them. Comments are allowed, of both forms.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace lofter::analyze {

// Counted from 1; columns in characters.
struct TextPosition {
    int line = 1;
    int column = 1;
};

// Where the byte of that number stands, counted from 0; behind the text when it has not so many.
TextPosition PositionOf(const std::string& text, std::size_t byte);

// A value, and what is in it down to the third level: the members of an object, the elements of an array.
struct JsonPart {
    std::string name;  // of a member
    TextPosition namePosition;
    TextPosition position;
    bool isString = false;
    bool isObject = false;
    std::vector<JsonPart> parts;

    // The member of that name; null when there is none.
    const JsonPart* Member(const std::string& member) const;
};

// Of a text that is valid JSON; of any other, something.
JsonPart FindJsonParts(const std::string& text);

}  // namespace lofter::analyze
