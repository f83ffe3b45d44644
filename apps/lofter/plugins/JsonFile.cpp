#include "plugins/JsonFile.h"

#include <array>
#include <cerrno>
#include <unordered_set>
#include <vector>

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>

#include "util/AcrossSignals.h"
#include "util/Descriptor.h"

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
    const Descriptor file(
        AcrossSignals([&] { return ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY); }));
    if (!file) {
        return std::nullopt;
    }
    struct stat status {};
    if (::fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return std::string();
    }
    std::string content;
    content.reserve(static_cast<std::size_t>(status.st_size));
    std::array<char, std::size_t{64} * 1024> buffer;
    for (;;) {
        const ssize_t length = ::read(file.Get(), buffer.data(), buffer.size());
        if (length > 0) {
            content.append(buffer.data(), static_cast<std::size_t>(length));
        } else if (length == 0) {
            return content;
        } else if (errno != EINTR) {
            return std::string();
        }
    }
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
