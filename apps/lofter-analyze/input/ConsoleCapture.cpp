#include "input/ConsoleCapture.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <optional>
#include <unordered_map>
#include <utility>

#include "input/Lines.h"

namespace lofter::analyze {

namespace {

// The logs in which a plugin's beginning or end may stand, each of them once.
enum Log : std::size_t { kKernelLog, kOwnLog, kTrace, kLogCount };

struct Event {
    enum class Kind { Launch, Begin, End, Skip };

    Kind kind;
    Log log;
    std::string_view plugin;
    std::optional<std::string_view> failure;  // its reason, of an end that is one
};

bool TakeEnd(std::string_view& text, std::string_view end) {
    const bool isThere = text.ends_with(end);
    text.remove_suffix(isThere ? end.size() : 0);
    return isThere;
}

// Takes the text up to the first mark, and the mark.
std::optional<std::string_view> TakeUntil(std::string_view& text, std::string_view mark) {
    const std::size_t end = text.find(mark);
    if (end == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view taken = text.substr(0, end);
    text.remove_prefix(end + mark.size());
    return taken;
}

std::optional<Event> ParseKernelMessage(std::string_view text) {
    if (Take(text, "Activating Lofter plugin ")) {
        return TakeEnd(text, ".") ? std::optional(Event{Event::Kind::Begin, kKernelLog, text, std::nullopt})
                                  : std::nullopt;
    }
    if (!Take(text, "Lofter plugin ")) {
        return std::nullopt;
    }
    if (const std::optional<std::string_view> plugin = TakeUntil(text, " activation failed: ")) {
        return Event{Event::Kind::End, kKernelLog, *plugin, text};
    }
    return TakeEnd(text, " activated.") ? std::optional(Event{Event::Kind::End, kKernelLog, text, std::nullopt})
                                        : std::nullopt;
}

std::optional<Event> ParseTrace(std::string_view text) {
    if (Take(text, "starting execution of plugin: ")) {
        return Event{Event::Kind::Begin, kTrace, text, std::nullopt};
    }
    const std::size_t time = text.rfind(" (took ");
    if (Take(text, "completed execution of plugin: ") && time != std::string_view::npos) {
        return Event{Event::Kind::End, kTrace, text.substr(0, text.rfind(" (took ")), {}};
    }
    return std::nullopt;
}

std::optional<Event> ParseFailure(std::string_view text) {
    if (Take(text, "Method invocation failed: ")) {
        const std::string_view reason = text;
        for (const std::string_view method : {"->start() failed: ", "->apply_host_profile() failed: "}) {
            if (const std::optional<std::string_view> plugin = TakeUntil(text, method)) {
                return Event{Event::Kind::End, kOwnLog, *plugin, reason};
            }
        }
        return std::nullopt;
    }
    if (Take(text, "unhandled exception whilst processing ")) {
        const std::optional<std::string_view> plugin = TakeUntil(text, ": ");
        return plugin ? std::optional(Event{Event::Kind::End, kOwnLog, *plugin, text}) : std::nullopt;
    }
    if (Take(text, "ignoring unknown exception whilst processing ") && TakeEnd(text, " ...")) {
        return Event{Event::Kind::End, kOwnLog, text, "unknown exception"};
    }
    return std::nullopt;
}

std::optional<Event> ParseOwnMessage(std::string_view text) {
    if (text == "Launching Executor") {
        return Event{Event::Kind::Launch, kOwnLog, {}, std::nullopt};
    }
    if (Take(text, "executing start plugin: ") || Take(text, "executing host profile plugin: ")) {
        return Event{Event::Kind::Begin, kOwnLog, text, std::nullopt};
    }
    if (Take(text, "skipping plugin ") && TakeEnd(text, " (interactive mode request)")) {
        return Event{Event::Kind::Skip, kOwnLog, text, std::nullopt};
    }
    return ParseFailure(text);
}

std::optional<Event> ParseMessage(std::string_view text) {
    for (const auto parse : {&ParseKernelMessage, &ParseOwnMessage, &ParseTrace}) {
        if (const std::optional<Event> event = parse(text)) {
            return event;
        }
    }
    return std::nullopt;
}

// Behind "lofter: " or "lofter[<process>]: ", which may stand more than once in a line: a name may hold it, and two
// writers may have mixed their lines.
std::optional<Event> FindEvent(std::string_view line) {
    constexpr std::string_view kProgram = "lofter";
    for (std::size_t at = line.find(kProgram); at != std::string_view::npos; at = line.find(kProgram, at + 1)) {
        std::string_view text = line.substr(at + kProgram.size());
        if (Take(text, "[")) {
            const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
            text.remove_prefix(digits);
            if (!Take(text, "]")) {
                continue;
            }
        }
        if (Take(text, ": ")) {
            if (const std::optional<Event> event = ParseMessage(text)) {
                return event;
            }
        }
    }
    return std::nullopt;
}

// "Linux version 6.1.0 ...", with or without a time before it.
bool IsKernelBanner(std::string_view line) {
    const std::size_t at = line.find("Linux version ");
    if (at == std::string_view::npos) {
        return false;
    }
    const std::string_view before = line.substr(0, at);
    return before.empty() || before.ends_with("] ") || before.ends_with("kernel: ") || before.ends_with(";");
}

// Without carriage returns at its end, and without the colours that tools give to it.
std::string PlainLine(std::string_view line) {
    line = line.substr(0, line.find_last_not_of('\r') + 1);
    std::string plain;
    while (!line.empty()) {
        const std::size_t escape = std::min(line.find("\x1b["), line.size());
        plain += line.substr(0, escape);
        line.remove_prefix(escape);
        if (!line.empty()) {
            const std::size_t end = line.find_first_not_of("0123456789;", 2);
            line.remove_prefix(end == std::string_view::npos ? line.size() : end + 1);
        }
    }
    return plain;
}

// With every "\xNN" as the byte that it stands for.
std::string UnescapedOnce(std::string_view text) {
    std::string plain;
    while (!text.empty()) {
        const std::size_t escape = std::min(text.find("\\x"), text.size());
        plain += text.substr(0, escape);
        text.remove_prefix(escape);
        constexpr std::size_t kLength = 4;
        const std::string_view digits = text.substr(0, kLength).substr(std::min<std::size_t>(text.size(), 2));
        unsigned char byte = 0;
        const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
        if (digits.size() == 2 && error == std::errc() && end == digits.data() + digits.size()) {
            plain += static_cast<char>(byte);
            text.remove_prefix(kLength);
        } else {
            plain += text.substr(0, 1);
            text.remove_prefix(std::min<std::size_t>(text.size(), 1));
        }
    }
    return plain;
}

// A name as it is: lofter spells out what would disturb a terminal, and readers of the kernel's log what is no ASCII,
// and the backslash.
std::string Unescaped(std::string_view name) {
    return UnescapedOnce(UnescapedOnce(name));
}

// What a capture says about the plugins of one name.
struct Mentions {
    std::string name;
    std::array<std::size_t, kLogCount> begun{};
    std::array<std::size_t, kLogCount> ended{};
    std::size_t skipped = 0;
    std::array<std::vector<std::string>, kLogCount> failures;

    std::size_t Ended() const { return *std::max_element(ended.begin(), ended.end()) + skipped; }
    std::size_t Begun() const { return std::max(*std::max_element(begun.begin(), begun.end()) + skipped, Ended()); }
};

// The boot that a capture ends with.
class CaptureReader {
  public:
    // How many plugins there are of each name.
    explicit CaptureReader(const std::vector<BootPlugin>& plugins) {
        for (const BootPlugin& plugin : plugins) {
            ++known[Unescaped(plugin.Name())];
        }
    }

    void ReadLine(std::string_view text) {
        const std::string line = PlainLine(text);
        if (const std::optional<Event> event = FindEvent(line)) {
            Add(*event);
        } else if (IsKernelBanner(line)) {
            StartAgain();
        }
    }

    const std::vector<Mentions>& All() const { return mentions; }
    bool SaysEnds() const { return saysEnds; }
    const std::string& LastToBegin() const { return lastToBegin; }

  private:
    void StartAgain() {
        mentions.clear();
        places.clear();
        saysEnds = isLaunching = false;
    }

    Mentions& Of(const std::string& name) {
        const auto [place, isNew] = places.emplace(name, mentions.size());
        if (isNew) {
            mentions.emplace_back().name = name;
        }
        return mentions[place->second];
    }

    void Add(const Event& event) {
        if (event.kind == Event::Kind::Launch) {
            isLaunching = true;  // another run may come to nothing, such as one that dumps the graph
            return;
        }
        const std::string name = Unescaped(event.plugin);
        saysEnds = saysEnds || event.log != kOwnLog;
        if (event.kind == Event::Kind::Begin) {
            AddBegin(name, event.log);
            return;
        }
        Mentions& its = Of(name);
        const bool counts = CountUp(event.kind == Event::Kind::Skip ? its.skipped : its.ended[event.log], name);
        if (counts && event.failure) {
            its.failures[event.log].emplace_back(*event.failure);
        }
    }

    // False when as many plugins of the name as there are were counted before.
    bool CountUp(std::size_t& count, const std::string& name) const {
        if (count == MostOf(name)) {
            return false;
        }
        ++count;
        return true;
    }

    std::size_t MostOf(const std::string& name) const {
        const auto found = known.find(name);
        return found == known.end() ? 1 : found->second;
    }

    void AddBegin(const std::string& name, Log log) {
        if (isLaunching || Of(name).begun[log] == MostOf(name)) {
            StartAgain();
            saysEnds = log != kOwnLog;
        }
        ++Of(name).begun[log];
        lastToBegin = name;
    }

    std::unordered_map<std::string, std::size_t> known;
    std::vector<Mentions> mentions;  // in the order of the first one
    std::unordered_map<std::string, std::size_t> places;
    bool saysEnds = false;
    bool isLaunching = false;
    std::string lastToBegin;
};

// Puts what a capture says to the plugins.
class Completion {
  public:
    explicit Completion(std::vector<BootPlugin> plugins) {
        boot.plugins = std::move(plugins);
        boot.progress.resize(boot.plugins.size(), Progress::NotBegun);
        for (const bool runs : {true, false}) {
            for (PluginIndex index = 0; index < boot.plugins.size(); ++index) {
                if (boot.plugins[index].Runs() == runs) {
                    ofName[Unescaped(boot.plugins[index].Name())].push_back(index);
                }
            }
        }
    }

    void Add(const Mentions& mentions) {
        for (std::size_t number = 0; number < mentions.Begun(); ++number) {
            const PluginIndex plugin = Begin(mentions.name, number);
            boot.progress[plugin] = number < mentions.Ended() ? Progress::Over : Progress::Running;
        }
        const auto& fullest =
            *std::max_element(mentions.failures.begin(), mentions.failures.end(),
                              [](const auto& left, const auto& right) { return left.size() < right.size(); });
        for (std::size_t number = 0; number < fullest.size(); ++number) {
            boot.failures.push_back({ofName[mentions.name][number], fullest[number]});
        }
    }

    // Whatever began before the last one to begin is over.
    void EndAllBut(const std::string& lastToBegin) {
        const std::vector<PluginIndex>& last = ofName[lastToBegin];
        std::optional<PluginIndex> stillRunning;
        for (const PluginIndex plugin : last) {
            if (boot.progress[plugin] == Progress::Running) {
                stillRunning = plugin;
            }
        }
        for (PluginIndex plugin = 0; plugin < boot.plugins.size(); ++plugin) {
            if (boot.progress[plugin] == Progress::Running && plugin != stillRunning) {
                boot.progress[plugin] = Progress::Over;
            }
        }
    }

    CapturedBoot Take() { return std::move(boot); }

  private:
    PluginIndex Begin(const std::string& name, std::size_t number) {
        boot.hasBegun = true;
        std::vector<PluginIndex>& plugins = ofName[name];
        if (number >= plugins.size()) {
            plugins.push_back(boot.plugins.size());
            boot.plugins.emplace_back(PluginDescription(PluginKind::Native, name)).isKindKnown = false;
            boot.progress.push_back(Progress::NotBegun);
            boot.strangers.push_back(name);
        } else if (!boot.plugins[plugins[number]].Runs()) {
            boot.plugins[plugins[number]].keptOutBy.clear();
            boot.strangers.push_back(name);
        }
        return plugins[number];
    }

    CapturedBoot boot;
    std::unordered_map<std::string, std::vector<PluginIndex>> ofName;  // first those that run
};

}  // namespace

CapturedBoot ParseConsoleCapture(std::string_view content, std::vector<BootPlugin> plugins, bool isParallel) {
    CaptureReader reader(plugins);
    ForEachLine(content, [&](int, std::string_view line) { reader.ReadLine(line); });
    Completion completion(std::move(plugins));
    for (const Mentions& mentions : reader.All()) {
        completion.Add(mentions);
    }
    if (!isParallel && !reader.SaysEnds()) {
        completion.EndAllBut(reader.LastToBegin());
    }
    return completion.Take();
}

}  // namespace lofter::analyze
