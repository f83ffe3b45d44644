// The graph of a boot for people: a Graphviz file whose names do not change from run to run.
#pragma once

#include <ostream>

#include "analysis/Boot.h"
#include "analysis/Reach.h"

namespace lofter::analyze {

struct DotView {
    PluginSet plugins;           // those that are drawn
    bool isLoopsOnly = false;    // of them, and of barriers and links, what is on a loop alone
    bool foldsBarriers = false;  // barriers are names of the links between plugins
};

// A barrier is drawn when it ties drawn plugins together, and when the other side of it has nobody at all. Statements
// are ordered by name. Folded, a barrier that would become very many links stays what it is.
void WriteDot(const Boot& boot, const DotView& view, std::ostream& output);

}  // namespace lofter::analyze
