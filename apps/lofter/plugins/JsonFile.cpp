#include "plugins/JsonFile.h"

#include <unordered_set>
#include <vector>

#include <nlohmann/json.hpp>

#include "posix/File.h"

namespace lofter {

namespace {

using Json = nlohmann::json;

constexpr char kByteOrderMark[] = "\xEF\xBB\xBF";

// Watches a parse for objects that have the same key twice.
class KeyWatch {
  public:
    bool FoundDuplicate() const { return duplicate; }

    void operator()(Json::parse_event_t event, const Json& parsed) {
        if (event == Json::parse_event_t::object_start) {
            open.emplace_back();
        } else if (event == Json::parse_event_t::object_end) {
            open.pop_back();
        } else if (event == Json::parse_event_t::key) {
            duplicate = !open.back().insert(parsed.get_ref<const std::string&>()).second || duplicate;
        }
    }

  private:
    std::vector<std::unordered_set<std::string>> open;  // the keys so far of every object around
    bool duplicate = false;
};

}  // namespace

std::optional<std::string> ReadFileContent(const std::string& path) {
    // Without O_NONBLOCK, opening a pipe waits for somebody to write to it.
    const posix::Descriptor file = posix::OpenFile(path, O_RDONLY | O_NONBLOCK);
    if (!file) {
        return std::nullopt;
    }
    return posix::IsRegularFile(file) ? posix::ReadWhole(file).value_or("") : "";
}

Json ParseJson(const std::string& text) {
    // The reader skips a byte order mark, and takes a NUL byte for the end.
    if (text.starts_with(kByteOrderMark) || text.find('\0') != std::string::npos) {
        return Json(Json::value_t::discarded);
    }
    KeyWatch keys;
    const auto watch = [&keys](int, Json::parse_event_t event, Json& parsed) {
        keys(event, parsed);
        return true;
    };
    constexpr bool throwing = false;
    constexpr bool comments = true;
    Json document = Json::parse(text, watch, throwing, comments);
    return keys.FoundDuplicate() ? Json(Json::value_t::discarded) : std::move(document);
}

}  // namespace lofter
