#include "report/Dot.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "analysis/Cycles.h"
#include "report/Text.h"

namespace lofter::analyze {

namespace {

constexpr std::size_t kMostFoldedLinks = 10'000;  // of one barrier

constexpr char kMissingStyle[] = R"(style="filled", fillcolor="#ffe3b3", color="#b35900")";
constexpr char kLoopStyle[] = R"(color="#cc0000", fontcolor="#cc0000", penwidth=2)";
constexpr char kKeptOutStyle[] = R"(style="dashed", color="#808080", fontcolor="#808080")";

// As a quoted string of the language holds it. A label knows escapes and entities.
std::string Escaped(std::string_view name) {
    std::string escaped;
    for (const char letter : Shown(name)) {
        if (letter == '&') {
            escaped += "&amp;";
            continue;
        }
        if (letter == '"' || letter == '\\') {
            escaped += '\\';
        }
        escaped += letter;
    }
    return escaped;
}

// Quoted names of nodes, each given once: a second "plugin net" becomes "plugin net (2)".
class Identifiers {
  public:
    std::string Make(const std::string& kind, std::string_view name) {
        const std::string first = kind + ' ' + Escaped(name);
        std::string identifier = first;
        while (!given.insert(identifier).second) {
            identifier = first + " (" + std::to_string(++repetitions[first] + 1) + ')';
        }
        return '"' + identifier + '"';
    }

  private:
    std::set<std::string> given;
    std::map<std::string, std::size_t> repetitions;
};

class Drawing {
  public:
    Drawing(const Boot& drawn, const DotView& itsView, std::ostream& stream);
    void Write();

  private:
    using Loop = std::optional<std::size_t>;  // which of the knots

    bool IsOnLoop(PluginIndex plugin, BarrierIndex barrier) const {
        return loopOfPlugin[plugin] && loopOfPlugin[plugin] == loopOfBarrier[barrier];
    }
    bool IsLinkDrawn(PluginIndex plugin, BarrierIndex barrier) const {
        return isDrawn[plugin] && (!view.isLoopsOnly || IsOnLoop(plugin, barrier));
    }
    bool IsMissing(BarrierIndex barrier) const;
    bool IsFolded(BarrierIndex barrier) const;
    bool IsBarrierDrawn(BarrierIndex barrier) const;

    void FindLoops();
    void NameNodes();
    void WritePlugin(PluginIndex index);
    void WriteBarrier(BarrierIndex index);
    // The plugins on a barrier's side whose links are drawn, by name.
    std::vector<PluginIndex> Linked(const std::vector<PluginIndex>& side, BarrierIndex barrier) const;
    void WriteLinksOf(BarrierIndex index);
    void WriteFoldedLinksFrom(PluginIndex provider);
    void WriteLegend();
    std::string SecondLineOf(const BootPlugin& plugin) const;

    const Boot& boot;
    const DotView& view;
    std::ostream& output;
    PluginSet isDrawn;
    std::vector<Loop> loopOfPlugin;
    std::vector<Loop> loopOfBarrier;
    std::vector<PluginIndex> plugins;  // those that are drawn, by name
    std::vector<std::size_t> placeOf;  // of a plugin among them
    std::vector<std::string> pluginNodes;
    std::vector<std::string> barrierNodes;  // empty for those that are not drawn
    bool hasBarriers = false;
    bool hasMissing = false;
    bool hasLoops = false;
    bool hasKeptOut = false;
};

Drawing::Drawing(const Boot& drawn, const DotView& itsView, std::ostream& stream)
    : boot(drawn),
      view(itsView),
      output(stream),
      isDrawn(view.plugins),
      loopOfPlugin(boot.plugins.size()),
      loopOfBarrier(boot.barriers.size()),
      placeOf(boot.plugins.size()) {
    FindLoops();
    for (PluginIndex plugin = 0; plugin < boot.plugins.size(); ++plugin) {
        isDrawn[plugin] = isDrawn[plugin] && (!view.isLoopsOnly || loopOfPlugin[plugin]);
        if (isDrawn[plugin]) {
            plugins.push_back(plugin);
        }
    }
    std::stable_sort(plugins.begin(), plugins.end(), [this](PluginIndex left, PluginIndex right) {
        return boot.plugins[left].Name() < boot.plugins[right].Name();
    });
    for (std::size_t place = 0; place < plugins.size(); ++place) {
        placeOf[plugins[place]] = place;
    }
    NameNodes();
}

// What is kept out misses nothing.
bool Drawing::IsMissing(BarrierIndex barrier) const {
    const std::vector<PluginIndex>& requirers = boot.barriers[barrier].requirers;
    return boot.barriers[barrier].providers.empty() &&
           std::any_of(requirers.begin(), requirers.end(),
                       [this](PluginIndex plugin) { return boot.plugins[plugin].Runs(); });
}

// A barrier without a provider has no link to put its name on.
bool Drawing::IsFolded(BarrierIndex barrier) const {
    const BootBarrier& folded = boot.barriers[barrier];
    return view.foldsBarriers && !folded.providers.empty() &&
           (folded.requirers.empty() || folded.providers.size() <= kMostFoldedLinks / folded.requirers.size());
}

bool Drawing::IsBarrierDrawn(BarrierIndex barrier) const {
    const auto isTied = [&](const std::vector<PluginIndex>& side) {
        return side.empty() ? !view.isLoopsOnly : std::any_of(side.begin(), side.end(), [&](PluginIndex plugin) {
            return IsLinkDrawn(plugin, barrier);
        });
    };
    return !IsFolded(barrier) && isTied(boot.barriers[barrier].providers) && isTied(boot.barriers[barrier].requirers);
}

void Drawing::FindLoops() {
    const std::vector<Knot> knots = FindKnots(boot);
    for (std::size_t knot = 0; knot < knots.size(); ++knot) {
        for (const PluginIndex plugin : knots[knot].plugins) {
            loopOfPlugin[plugin] = knot;
        }
        for (const BarrierIndex barrier : knots[knot].barriers) {
            loopOfBarrier[barrier] = knot;
        }
    }
}

void Drawing::NameNodes() {
    Identifiers identifiers;
    pluginNodes.resize(boot.plugins.size());
    barrierNodes.resize(boot.barriers.size());
    for (const PluginIndex plugin : plugins) {
        pluginNodes[plugin] = identifiers.Make("plugin", boot.plugins[plugin].Name());
    }
    for (BarrierIndex barrier = 0; barrier < boot.barriers.size(); ++barrier) {
        if (IsBarrierDrawn(barrier)) {
            barrierNodes[barrier] = identifiers.Make("barrier", boot.barriers[barrier].name);
        }
    }
}

std::string Drawing::SecondLineOf(const BootPlugin& plugin) const {
    if (!plugin.Runs()) {
        return "\\nkept out";
    }
    if (!boot.run) {
        return "";
    }
    if (!plugin.timing) {
        return "\\ndid not run";
    }
    return plugin.timing->end ? "\\n" + ShownDuration(*plugin.timing->end - plugin.timing->start) : "\\nskipped";
}

void Drawing::WritePlugin(PluginIndex index) {
    const BootPlugin& plugin = boot.plugins[index];
    output << "  " << pluginNodes[index] << " [label=\"" << Escaped(plugin.Name()) << SecondLineOf(plugin) << '"';
    if (loopOfPlugin[index]) {
        output << ", " << kLoopStyle;
        hasLoops = true;
    } else if (!plugin.Runs()) {
        output << ", " << kKeptOutStyle;
        hasKeptOut = true;
    }
    output << "];\n";
}

void Drawing::WriteBarrier(BarrierIndex index) {
    output << "  " << barrierNodes[index] << " [shape=box, label=\"" << Escaped(boot.barriers[index].name) << '"';
    if (IsMissing(index)) {
        output << ", " << kMissingStyle;
        hasMissing = true;
    } else {
        output << (loopOfBarrier[index] ? std::string(", ") + kLoopStyle : "");
        hasBarriers = true;
    }
    output << "];\n";
}

std::vector<PluginIndex> Drawing::Linked(const std::vector<PluginIndex>& side, BarrierIndex barrier) const {
    std::vector<PluginIndex> linked;
    std::copy_if(side.begin(), side.end(), std::back_inserter(linked),
                 [&](PluginIndex plugin) { return IsLinkDrawn(plugin, barrier); });
    std::sort(linked.begin(), linked.end(),
              [this](PluginIndex left, PluginIndex right) { return placeOf[left] < placeOf[right]; });
    return linked;
}

void Drawing::WriteLinksOf(BarrierIndex index) {
    const auto write = [&](PluginIndex plugin, const std::string& from, const std::string& to) {
        output << "  " << from << " -> " << to;
        output << (IsOnLoop(plugin, index) ? std::string(" [") + kLoopStyle + "]" : "") << ";\n";
    };
    for (const PluginIndex provider : Linked(boot.barriers[index].providers, index)) {
        write(provider, pluginNodes[provider], barrierNodes[index]);
    }
    for (const PluginIndex requirer : Linked(boot.barriers[index].requirers, index)) {
        write(requirer, barrierNodes[index], pluginNodes[requirer]);
    }
}

void Drawing::WriteFoldedLinksFrom(PluginIndex provider) {
    struct Link {
        std::set<BarrierIndex> barriers;
        bool isOnLoop = false;
    };
    std::map<std::size_t, Link> links;  // by the place of what waits
    for (const BarrierIndex barrier : boot.plugins[provider].providedBarriers) {
        if (!IsFolded(barrier) || !IsLinkDrawn(provider, barrier)) {
            continue;
        }
        for (const PluginIndex requirer : boot.barriers[barrier].requirers) {
            if (IsLinkDrawn(requirer, barrier)) {
                Link& link = links[placeOf[requirer]];
                link.barriers.insert(barrier);
                link.isOnLoop |= IsOnLoop(provider, barrier) && IsOnLoop(requirer, barrier);
            }
        }
    }
    for (const auto& [place, link] : links) {
        std::string label;
        for (const BarrierIndex barrier : link.barriers) {
            label += (label.empty() ? "" : "\\n") + Escaped(boot.barriers[barrier].name);
        }
        output << "  " << pluginNodes[provider] << " -> " << pluginNodes[plugins[place]] << " [label=\"" << label << '"'
               << (link.isOnLoop ? std::string(", ") + kLoopStyle : "") << "];\n";
    }
}

// What the file has, and no more.
void Drawing::WriteLegend() {
    output << "  legend [shape=plain, label=<<table border=\"0\" cellborder=\"1\" cellspacing=\"0\" cellpadding=\"4\">";
    const auto row = [this](const char* attributes, const char* mark, const char* text) {
        output << "\n    <tr><td" << attributes << ">" << mark << R"(</td><td align="left">)" << text << "</td></tr>";
    };
    row("", "ellipse", boot.run ? "plugin, how long it ran" : "plugin");
    if (hasBarriers) {
        row("", "box", "barrier: opens when all plugins in front of it have ended");
    }
    row("", "arrow", view.foldsBarriers ? "leads to what waits, with the barrier's name" : "leads to what waits");
    if (hasMissing) {
        row(R"( bgcolor="#ffe3b3")", "box", "barrier that nobody provides");
    }
    if (hasLoops) {
        row(R"( bgcolor="#cc0000")", " ", "plugins that wait for each other for ever");
    }
    if (hasKeptOut) {
        row(R"( style="dashed")", "ellipse", "plugin that is kept out: counts as run");
    }
    output << "\n  </table>>];\n";
}

void Drawing::Write() {
    output << "digraph boot {\n"
              "  graph [fontname=\"sans-serif\"];\n"
              "  node [fontname=\"sans-serif\"];\n"
              "  edge [fontname=\"sans-serif\", fontsize=10];\n";
    for (const PluginIndex plugin : plugins) {
        WritePlugin(plugin);
    }
    for (BarrierIndex barrier = 0; barrier < boot.barriers.size(); ++barrier) {
        if (!barrierNodes[barrier].empty()) {
            WriteBarrier(barrier);
        }
    }
    for (BarrierIndex barrier = 0; barrier < boot.barriers.size(); ++barrier) {
        if (!barrierNodes[barrier].empty()) {
            WriteLinksOf(barrier);
        }
    }
    for (const PluginIndex plugin : plugins) {
        WriteFoldedLinksFrom(plugin);
    }
    WriteLegend();
    output << "}\n";
}

}  // namespace

void WriteDot(const Boot& boot, const DotView& view, std::ostream& output) {
    Drawing(boot, view, output).Write();
}

}  // namespace lofter::analyze
