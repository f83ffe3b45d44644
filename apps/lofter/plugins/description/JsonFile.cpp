#include "plugins/description/JsonFile.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
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
    bool key(std::string& name) override {
        if (open.back().insert(name).second) {
            return true;
        }
        repeated = std::move(name);
        return false;
    }
    bool end_object() override {
        open.pop_back();
        return true;
    }
    bool parse_error(std::size_t bytesRead, const std::string&, const Json::exception&) override {
        errorBehind = bytesRead;
        return false;
    }

    // Why it did not take the text: a key that is there twice, or else so many bytes that are no beginning of one.
    const std::optional<std::string>& Repeated() const { return repeated; }
    std::size_t ErrorBehind() const { return errorBehind; }

  private:
    std::optional<std::string> repeated;
    std::size_t errorBehind = 0;
    std::vector<std::set<std::string>> open;  // the keys so far of every object around
};

// Twice over the text: a callback that watched the parse would make the reader look at all earlier members of an object
// again whenever one of them ends.
constexpr bool kWhole = true;
constexpr bool kThrowing = false;
constexpr bool kComments = true;

// Where the string starts whose last quote stands there.
std::size_t StartOfString(const std::string& text, std::size_t lastQuote) {
    std::size_t start = lastQuote;
    bool isEscaped = true;
    while (isEscaped && start > 0) {
        start = text.rfind('"', start - 1);
        const std::size_t before = start == 0 ? std::string::npos : text.find_last_not_of('\\', start - 1);
        isEscaped = (start - (before + 1)) % 2 != 0;
    }
    return start;
}

// The bytes of a text, counted as they are taken.
class CountedText {
  public:
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char*;
    using reference = const char&;

    CountedText(const char* first, std::size_t* taken) : next(first), count(taken) {}
    reference operator*() const { return *next; }
    CountedText& operator++() {
        ++next;
        ++*count;
        return *this;
    }
    CountedText operator++(int) {
        CountedText before = *this;
        ++*this;
        return before;
    }
    bool operator==(const CountedText& other) const { return next == other.next; }
    bool operator!=(const CountedText& other) const { return next != other.next; }

  private:
    const char* next;
    std::size_t* count;
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
    if (!Json::sax_parse(text, &keys, Json::input_format_t::json, kWhole, kComments)) {
        return Json(Json::value_t::discarded);
    }
    return Json::parse(text, nullptr, kThrowing, kComments);
}

std::optional<JsonFault> FindJsonFault(const std::string& text) {
    if (text.starts_with(kByteOrderMark)) {
        return JsonFault{0, "a byte order mark"};
    }
    if (const std::size_t zero = text.find('\0'); zero != std::string::npos) {
        return JsonFault{zero, "a NUL byte"};
    }
    KeyWatch keys;
    std::size_t taken = 0;
    const CountedText begin(text.data(), &taken);
    const CountedText end(text.data() + text.size(), &taken);
    if (Json::sax_parse(begin, end, &keys, Json::input_format_t::json, kWhole, kComments)) {
        return std::nullopt;
    }
    if (keys.Repeated()) {
        return JsonFault{StartOfString(text, taken - 1), "the member \"" + *keys.Repeated() + "\" a second time"};
    }
    return JsonFault{std::min(std::max<std::size_t>(keys.ErrorBehind(), 1) - 1, text.size()), "not valid JSON"};
}

}  // namespace lofter
