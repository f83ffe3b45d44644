#include "util/RunOnceRecord.h"

#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include <boost/algorithm/string/trim.hpp>
#include <boost/iostreams/device/back_inserter.hpp>
#include <boost/iostreams/filter/gzip.hpp>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "posix/File.h"
#include "posix/Reason.h"

namespace lofter {

namespace {

namespace io = boost::iostreams;

constexpr std::string_view kPrefix = "lofter.run-once=";
constexpr std::streamsize kBufferSize = 4096;

// Far more than any host's plugins need; a record that inflates beyond it is damaged or hostile.
constexpr std::size_t kLongestRecord = 64U << 20U;

std::string FileContent(const std::string& path) {
    const posix::Descriptor file = posix::OpenRegularFile(path, O_RDONLY);
    return file ? posix::ReadWhole(file).value_or("") : "";
}

// The filters are used by themselves. A stream around them reads from, or writes to, a device that it does not have yet
// when memory runs out while it is put together.

// The text behind the prefix; empty when the record begins with another text.
std::string Decompress(const std::string& compressed) {
    std::stringbuf source(compressed, std::ios_base::in);
    io::gzip_decompressor filter(io::zlib::default_window_bits, kBufferSize);

    std::string text(kPrefix.size(), '\0');
    for (std::size_t length = 0; length < text.size();) {  // a read ends with each member of the gzip stream
        const std::streamsize count =
            filter.read(source, text.data() + length, static_cast<std::streamsize>(text.size() - length));
        if (count <= 0) {
            return {};
        }
        length += static_cast<std::size_t>(count);
    }
    if (text != kPrefix) {
        return {};
    }
    text.clear();
    char buffer[kBufferSize];
    for (std::streamsize count = 0; (count = filter.read(source, buffer, sizeof buffer)) > 0;) {
        text.append(buffer, static_cast<std::size_t>(count));
        if (text.size() > kLongestRecord) {
            throw std::runtime_error("run-once record is too large");
        }
    }
    return text;
}

std::string Compress(const std::string& text) {
    std::string compressed;
    io::gzip_compressor filter(io::gzip_params(), kBufferSize);
    auto sink = io::back_inserter(compressed);
    filter.write(sink, text.data(), static_cast<std::streamsize>(text.size()));
    filter.close(sink, std::ios_base::out);  // finishes the gzip stream
    return compressed;
}

}  // namespace

void ReadRunOnceRecord(const std::string& path, std::set<std::string>& names) {
    const std::string compressed = FileContent(path);
    if (compressed.empty()) {
        return;
    }
    const std::string text = Decompress(compressed);
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find(',', begin), text.size());
        const std::string name = boost::algorithm::trim_copy(text.substr(begin, end - begin));
        if (!name.empty()) {
            names.insert(name);
        }
        begin = end + 1;
    }
}

void WriteRunOnceRecord(const std::string& path, const std::set<std::string>& names) {
    std::string text(kPrefix);
    for (const std::string& name : names) {
        text += name + ',';
    }
    text += '\n';
    const std::string compressed = Compress(text);

    constexpr mode_t kMode = S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH;  // less the umask
    const posix::Descriptor file = posix::OpenRegularFile(path, O_WRONLY | O_CREAT | O_TRUNC, kMode);
    if (!file || !posix::WriteWhole(file, compressed) || !posix::SyncToDisk(file)) {
        throw std::runtime_error(posix::WithReason("unable to write '" + path + "'"));
    }
}

}  // namespace lofter
