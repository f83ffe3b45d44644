#include "input/DotFile.h"

#include <charconv>
#include <cstdint>
#include <optional>
#include <unordered_map>
#include <utility>

#include "input/Errors.h"
#include "input/LineWarnings.h"
#include "input/Lines.h"

namespace lofter::analyze {

namespace {

using Identifier = std::uint64_t;

std::optional<Identifier> TakeIdentifier(std::string_view& text) {
    Identifier identifier = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), identifier);
    if (error != std::errc()) {
        return std::nullopt;
    }
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return identifier;
}

bool TakeFromEnd(std::string_view& text, std::string_view end) {
    const bool isThere = text.ends_with(end);
    text.remove_suffix(isThere ? end.size() : 0);
    return isThere;
}

class DotReader {
  public:
    explicit DotReader(std::string shownName) : file(std::move(shownName)) {}

    // False for a line that is none of a dump.
    bool ReadLine(int number, std::string_view text) {
        if (text == "digraph g {") {
            hasBegun = true;
            return true;
        }
        if (text == "}") {
            hasEnded = true;
            return true;
        }
        const std::optional<Identifier> identifier = TakeIdentifier(text);
        if (!identifier) {
            return text.empty();
        }
        if (Take(text, " [label=\"")) {
            return AddNode(number, *identifier, text);
        }
        return Take(text, " -> ") && AddEdge(number, *identifier, text);
    }

    bool HasBegun() const { return hasBegun; }
    bool HasEnded() const { return hasEnded; }

    // Edges are looked at last: they lead to nodes whose statements come behind them. Calls with the line of each edge
    // that ties no plugin to a barrier.
    template <typename Refuse>
    std::vector<BootPlugin> TakePlugins(const Refuse& refuse) {
        for (const Edge& edge : edges) {
            if (!Link(edge)) {
                refuse(edge.line);
            }
        }
        return std::move(made);
    }

  private:
    struct Edge {
        int line;
        Identifier from;
        Identifier to;
    };

    // Names are dumped as they are, quotes included.
    bool AddNode(int number, Identifier identifier, std::string_view text) {
        const bool isBarrier = TakeFromEnd(text, "\" shape=box];") || TakeFromEnd(text, "\" shape=trapezium];");
        if ((!isBarrier && !TakeFromEnd(text, "\"];")) || plugins.contains(identifier) ||
            barriers.contains(identifier)) {
            return false;
        }
        if (isBarrier) {
            barriers.emplace(identifier, text);
        } else {
            AddPlugin(identifier, std::string(text), {file, number, 0});
        }
        return true;
    }

    bool AddEdge(int number, Identifier from, std::string_view text) {
        const std::optional<Identifier> to = TakeIdentifier(text);
        if (!to || text != ";") {
            return false;
        }
        edges.push_back({number, from, *to});
        return true;
    }

    BootPlugin& AddPlugin(Identifier identifier, std::string name, Place place) {
        plugins.emplace(identifier, made.size());
        BootPlugin& plugin = made.emplace_back(PluginDescription(PluginKind::Native, std::move(name)));
        plugin.isKindKnown = false;
        plugin.place = std::move(place);
        return plugin;
    }

    BootPlugin& PluginOf(Identifier identifier, int line) {
        const auto found = plugins.find(identifier);
        if (found != plugins.end()) {
            return made[found->second];
        }
        BootPlugin& plugin = AddPlugin(identifier, std::to_string(identifier), {file, line, 0});
        plugin.keptOutBy = "kept out when the graph was dumped";
        return plugin;
    }

    bool Link(const Edge& edge) {
        const auto from = barriers.find(edge.from);
        const auto to = barriers.find(edge.to);
        if (from != barriers.end() && to != barriers.end()) {
            return true;  // groups of priorities in their order, which their plugins' own edges say as well
        }
        if (from != barriers.end()) {
            PluginOf(edge.to, edge.line).description.Require(from->second);
            return true;
        }
        if (to != barriers.end()) {
            PluginOf(edge.from, edge.line).description.Provide(to->second);
            return true;
        }
        return false;
    }

    const std::string file;
    bool hasBegun = false;
    bool hasEnded = false;
    std::vector<BootPlugin> made;
    std::unordered_map<Identifier, std::size_t> plugins;
    std::unordered_map<Identifier, std::string> barriers;
    std::vector<Edge> edges;
};

}  // namespace

std::vector<BootPlugin> ParseDotFile(std::string_view content, const std::string& shownName,
                                     std::ostream& warningOutput) {
    LineWarnings warnings(shownName, warningOutput);
    const auto refuse = [&](int number) {
        warnings.AddLine(number, "not a line of a dependency dump");
    };
    DotReader reader(shownName);
    ForEachLine(content, [&](int number, std::string_view text) {
        if (!reader.ReadLine(number, text)) {
            refuse(number);
        }
    });
    if (!reader.HasBegun()) {
        throw InputError(shownName, "not a dependency dump");
    }
    if (!reader.HasEnded()) {
        warnings.AddWhole("the dump breaks off");
    }
    return reader.TakePlugins(refuse);
}

}  // namespace lofter::analyze
