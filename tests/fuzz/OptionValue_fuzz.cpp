// The first byte chooses an option that takes a value, the rest up to a NUL is the value.
//
// What becomes of it is worked out again here, in the plainest way: letter by letter, and numbers by hand.
#include <functional>
#include <limits>
#include <optional>

#include "support/Bytes.h"
#include "support/CommandLineOf.h"
#include "support/Require.h"

namespace lofter::fuzz {
namespace {

std::vector<std::string> Names(const std::string& list) {
    std::vector<std::string> names(1);
    for (const char letter : list) {
        if (letter != ',') {
            names.back() += letter;
        } else if (!names.back().empty()) {
            names.emplace_back();
        }
    }
    if (names.back().empty()) {
        names.pop_back();
    }
    return names;
}

std::set<std::string> NameSet(const std::string& list) {
    const std::vector<std::string> names = Names(list);
    return {names.begin(), names.end()};
}

// The digits' value; nothing when there are none, or something else, or more than 32 bits of them.
std::optional<std::int64_t> Magnitude(const std::string& digits) {
    std::int64_t value = 0;
    for (const char digit : digits) {
        if (digit < '0' || digit > '9') {
            return std::nullopt;
        }
        value = value * 10 + (digit - '0');
        if (value > std::numeric_limits<std::uint32_t>::max()) {
            return std::nullopt;
        }
    }
    return digits.empty() ? std::nullopt : std::optional(value);
}

std::int64_t Seed(const std::string& text, std::int64_t otherwise) {
    const bool isSigned = text.starts_with('-') || text.starts_with('+');
    const std::optional<std::int64_t> magnitude = Magnitude(text.substr(isSigned ? 1 : 0));
    const std::int64_t value = text.starts_with('-') ? -magnitude.value_or(0) : magnitude.value_or(0);
    const bool fits =
        value >= std::numeric_limits<std::int32_t>::min() && value <= std::numeric_limits<std::int32_t>::max();
    return magnitude && fits ? value : otherwise;
}

std::uint32_t Timeout(const std::string& text, std::uint32_t otherwise) {
    const bool isSigned = text.starts_with('-') || text.starts_with('+');
    const std::optional<std::int64_t> magnitude = Magnitude(text.substr(isSigned ? 1 : 0));
    if (!magnitude) {
        return otherwise;
    }
    return static_cast<std::uint32_t>(text.starts_with('-') ? -*magnitude : *magnitude);
}

struct OptionUnderTest {
    const char* name;
    std::function<void(const std::string& value, const CommandLine&, const Settings&, const Settings& before)> check;
};

const std::vector<OptionUnderTest> kOptions = {
    {"plugin-flags",
     [](const auto& value, const auto& line, const auto&, const auto&) {
         Require(line.options.pluginFlags == NameSet(value), "plugin flags");
     }},
    {"method",
     [](const auto& value, const auto&, const auto& settings, const auto&) {
         Require(settings.method == value, "method");
     }},
    {"plugin",
     [](const auto& value, const auto& line, const auto&, const auto&) {
         Require(line.options.plugins == Names(value), "plugins");
     }},
    {"randomize",
     [](const auto& value, const auto&, const auto& settings, const auto& before) {
         Require(settings.randomize && settings.randomSeed == Seed(value, before.randomSeed), "seed");
     }},
    {"run-once",
     [](const auto& value, const auto& line, const auto&, const auto&) {
         Require(line.options.runOnce == NameSet(value), "run-once set");
     }},
    {"disable-plugins",
     [](const auto& value, const auto&, const auto& settings, const auto&) {
         Require(settings.disabledPlugins == Names(value), "disabled plugins");
     }},
    {"plugin-directory",
     [](const auto& value, const auto& line, const auto&, const auto&) {
         Require(line.options.pluginDirectory == value, "plugin directory");
     }},
    {"dump-dependency-tree",
     [](const auto& value, const auto& line, const auto&, const auto&) {
         Require(line.options.dump && line.options.dumpPath == value, "dump path");
     }},
    {"interactive-mode-requires",
     [](const auto& value, const auto&, const auto& settings, const auto&) {
         Require(settings.interactiveModeRequirements == Names(value), "requirements of interactive mode");
     }},
    {"daemon",
     [](const auto& value, const auto& line, const auto& settings, const auto&) {
         Require(line.options.daemon && settings.daemonWait == (value == "wait"), "daemon wait");
     }},
    {"daemon-wait-timeout",
     [](const auto& value, const auto&, const auto& settings, const auto& before) {
         Require(settings.daemonWaitTimeout == Timeout(value, before.daemonWaitTimeout), "daemon wait time-out");
     }},
};

}  // namespace
}  // namespace lofter::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lofter::fuzz;
    Bytes bytes(data, size);
    const OptionUnderTest& option = kOptions[bytes.Below(kOptions.size())];
    const std::string value = bytes.TextUntil('\0');

    lofter::Settings settings;
    const lofter::Settings before = settings;
    const lofter::CommandLine line = Parse({std::string("--") + option.name + "=" + value}, settings);
    option.check(value, line, settings, before);
    return 0;
}
