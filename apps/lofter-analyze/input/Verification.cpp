#include "input/Verification.h"

#include <utility>

#include "analysis/GraphFindings.h"
#include "input/BootInput.h"
#include "input/Host.h"

namespace lofter::analyze {

std::vector<Finding> Verify(const InputOptions& options, std::ostream& warnings) {
    if (options.graph) {
        return Sorted(FindInGraph(MakeBoot(ReadPlugins(options, warnings).plugins, std::nullopt), GraphSource::Dump));
    }
    Host host = ReadHost(options);
    std::vector<Finding> findings = FindInGraph(MakeBoot(std::move(host.plugins), std::nullopt), GraphSource::Host);
    findings.insert(findings.end(), std::make_move_iterator(host.findings.begin()),
                    std::make_move_iterator(host.findings.end()));
    return Sorted(std::move(findings));
}

}  // namespace lofter::analyze
