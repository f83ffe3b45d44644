#include "input/JsonPlaces.h"

#include <algorithm>
#include <string_view>

#include <nlohmann/json.hpp>

namespace lofter::analyze {

namespace {

constexpr int kDeepest = 3;

// Goes over a text from its start, and knows where it is.
class Walk {
  public:
    explicit Walk(std::string_view walked) : text(walked) {}

    bool IsAtEnd() const { return at >= text.size(); }
    char Next() const { return IsAtEnd() ? '\0' : text[at]; }
    bool IsBefore(std::string_view beginning) const { return text.substr(at).starts_with(beginning); }
    std::size_t At() const { return at; }
    TextPosition Position() const { return position; }

    void Advance(std::size_t bytes = 1) {
        for (; bytes > 0 && !IsAtEnd(); --bytes) {
            if (text[at] == '\n') {
                position = {position.line + 1, 1};
            } else if ((text[at] & 0xc0) != 0x80) {
                ++position.column;
            }
            ++at;
        }
    }
    void AdvanceBehind(std::string_view end) {
        while (!IsAtEnd() && !IsBefore(end)) {
            Advance();
        }
        Advance(end.size());
    }

  private:
    std::string_view text;
    std::size_t at = 0;
    TextPosition position;
};

class Scanner {
  public:
    explicit Scanner(const std::string& scanned) : text(scanned), walk(scanned) {}

    JsonPart Value(int depth) {
        SkipBlanks();
        JsonPart part;
        part.position = walk.Position();
        part.isString = walk.Next() == '"';
        part.isObject = walk.Next() == '{';
        const bool isList = part.isObject || walk.Next() == '[';
        if (isList && depth < kDeepest) {
            Parts(part, depth);
        } else {
            Skip();
        }
        return part;
    }

  private:
    void SkipBlanks() {
        for (;;) {
            if (walk.IsBefore("//")) {
                walk.AdvanceBehind("\n");
            } else if (walk.IsBefore("/*")) {
                walk.AdvanceBehind("*/");
            } else if (!walk.IsAtEnd() && std::string_view(" \t\r\n").find(walk.Next()) != std::string_view::npos) {
                walk.Advance();
            } else {
                return;
            }
        }
    }

    void Parts(JsonPart& whole, int depth) {
        walk.Advance();
        for (;;) {
            SkipBlanks();
            if (walk.Next() == ',') {
                walk.Advance();
                continue;
            }
            if (walk.IsAtEnd() || walk.Next() == ']' || walk.Next() == '}') {
                walk.Advance();
                return;
            }
            const TextPosition namePosition = walk.Position();
            std::string name = whole.isObject ? Name() : "";
            whole.parts.push_back(Value(depth + 1));
            whole.parts.back().name = std::move(name);
            whole.parts.back().namePosition = namePosition;
        }
    }

    // Takes the colon behind it as well.
    std::string Name() {
        const std::size_t start = walk.At();
        String();
        const nlohmann::json name =
            nlohmann::json::parse(std::string_view(text).substr(start, walk.At() - start), nullptr, false);
        SkipBlanks();
        if (walk.Next() == ':') {
            walk.Advance();
        }
        return name.is_string() ? name.get<std::string>() : "";
    }

    void String() {
        walk.Advance();
        while (!walk.IsAtEnd() && walk.Next() != '"') {
            walk.Advance(walk.Next() == '\\' ? 2 : 1);
        }
        walk.Advance();
    }

    // A value with all that is in it, without calling itself: it may be nested as deep as it is long.
    void Skip() {
        int open = 0;
        do {
            SkipBlanks();
            const char next = walk.Next();
            if (next == '"') {
                String();
                continue;
            }
            open += next == '{' || next == '[' ? 1 : next == '}' || next == ']' ? -1 : 0;
            walk.Advance();
        } while (!walk.IsAtEnd() && (open > 0 || !IsEndOfValue()));
    }

    bool IsEndOfValue() const {
        return walk.IsBefore("/") || std::string_view(" \t\r\n,]}").find(walk.Next()) != std::string_view::npos;
    }

    const std::string& text;
    Walk walk;
};

}  // namespace

TextPosition PositionOf(const std::string& text, std::size_t byte) {
    Walk walk(text);
    walk.Advance(byte);
    return walk.Position();
}

const JsonPart* JsonPart::Member(const std::string& member) const {
    const auto found =
        std::find_if(parts.begin(), parts.end(), [&](const JsonPart& part) { return part.name == member; });
    return isObject && found != parts.end() ? &*found : nullptr;
}

JsonPart FindJsonParts(const std::string& text) {
    return Scanner(text).Value(0);
}

}  // namespace lofter::analyze
