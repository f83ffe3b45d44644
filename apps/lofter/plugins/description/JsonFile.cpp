#include "plugins/description/JsonFile.h"

#include <set>
#include <vector>

#include <nlohmann/json.hpp>

#include "posix/File.h"

namespace lofter {

namespace {

using Json = nlohmann::json;

constexpr char kByteOrderMark[] = "\xEF\xBB\xBF";

// Takes a text for as long as it is valid and no object in it has the same key twice.
class KeyWatch : public Json::json_sax_t {
  public:
    bool null() override { return true; }
    bool boolean(bool) override { return true; }
    bool number_integer(Json::number_integer_t) override { return true; }
    bool number_unsigned(Json::number_unsigned_t) override { return true; }
    bool number_float(Json::number_float_t, const std::string&) override { return true; }
    bool string(std::string&) override { return true; }
    bool binary(Json::binary_t&) override { return true; }
    bool start_array(std::size_t) override { return true; }
    bool end_array() override { return true; }
    bool start_object(std::size_t) override {
        open.emplace_back();
        return true;
    }
    bool key(std::string& name) override { return open.back().insert(std::move(name)).second; }
    bool end_object() override {
        open.pop_back();
        return true;
    }
    bool parse_error(std::size_t, const std::string&, const Json::exception&) override { return false; }

  private:
    std::vector<std::set<std::string>> open;  // the keys so far of every object around
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
    // Twice over the text: a callback that watched the parse would make the reader look at all earlier members of an
    // object again whenever one of them ends.
    constexpr bool whole = true;
    constexpr bool throwing = false;
    constexpr bool comments = true;
    KeyWatch keys;
    if (!Json::sax_parse(text, &keys, Json::input_format_t::json, whole, comments)) {
        return Json(Json::value_t::discarded);
    }
    return Json::parse(text, nullptr, throwing, comments);
}

}  // namespace lofter
