#include "plugins/description/DescriptionText.h"

#include <charconv>
#include <stdexcept>
#include <string_view>

#include "base/Exception.h"

namespace lofter {

namespace {

constexpr char kRequires = 'r';
constexpr char kProvides = 'p';
constexpr char kRequiredFlag = '+';
constexpr char kDisablingFlag = '-';

class Fields {
  public:
    explicit Fields(std::string_view text) : left(text) {}

    bool Empty() const { return left.empty(); }

    std::string_view Next() {
        const std::size_t end = left.find('\0');
        if (end == std::string_view::npos) {
            throw std::invalid_argument("a field without an end");
        }
        const std::string_view field = left.substr(0, end);
        left.remove_prefix(end + 1);
        return field;
    }

    int NextNumber() {
        const std::string_view field = Next();
        int number = 0;
        const auto [end, error] = std::from_chars(field.data(), field.data() + field.size(), number);
        if (error != std::errc() || end != field.data() + field.size()) {
            throw std::invalid_argument("a field without a number");
        }
        return number;
    }

  private:
    std::string_view left;
};

void Add(std::string_view field, PluginDescription& plugin) {
    const std::string text(field.substr(field.empty() ? 0 : 1));
    switch (field.empty() ? '\0' : field.front()) {
        case kRequires:
            plugin.Require(text);
            break;
        case kProvides:
            plugin.Provide(text);
            break;
        case kRequiredFlag:
            plugin.requiredFlags.insert(text);
            break;
        case kDisablingFlag:
            plugin.disablingFlags.insert(text);
            break;
        default:
            throw std::invalid_argument("a field of no kind");
    }
}

}  // namespace

std::string ToText(const PluginDescription& plugin) {
    std::string text;
    const auto add = [&text](std::string_view field) {
        text.append(field).push_back('\0');
    };
    add(TextOf(plugin.failure));
    add(std::to_string(plugin.version));
    add(std::to_string(static_cast<int>(plugin.hasHostProfileOperation)));
    add(std::to_string(static_cast<int>(plugin.runOnce)));
    add(plugin.release);
    for (const BarrierLink& link : plugin.links) {
        add((link.direction == BarrierLink::Direction::Requires ? kRequires : kProvides) + link.barrier);
    }
    for (const std::string& flag : plugin.requiredFlags) {
        add(kRequiredFlag + flag);
    }
    for (const std::string& flag : plugin.disablingFlags) {
        add(kDisablingFlag + flag);
    }
    return text;
}

void FromText(const std::string& text, PluginDescription& plugin) {
    Fields fields(text);
    if (const std::string_view failure = fields.Next(); !failure.empty()) {
        plugin.failure = std::make_exception_ptr(Exception(std::string(failure)));
    }
    plugin.version = fields.NextNumber();
    plugin.hasHostProfileOperation = fields.NextNumber() != 0;
    plugin.runOnce = fields.NextNumber() != 0;
    plugin.release = fields.Next();
    while (!fields.Empty()) {
        Add(fields.Next(), plugin);
    }
}

}  // namespace lofter
