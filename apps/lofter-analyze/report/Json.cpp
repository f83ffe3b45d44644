#include "report/Json.h"

namespace lofter::analyze {

Json Answer(const std::string& command) {
    return {{"schema", "lofter-analyze/1"}, {"command", command}};
}

void Print(const Json& answer, std::ostream& output) {
    constexpr int kIndent = 2;
    output << answer.dump(kIndent, ' ', false, Json::error_handler_t::replace) << '\n';
}

}  // namespace lofter::analyze
