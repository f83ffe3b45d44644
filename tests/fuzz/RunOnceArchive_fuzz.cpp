// The first byte says what the rest is: the bytes of the archive itself; or, compressed here into a valid archive, its
// whole text, or its text behind the right beginning.
//
// A text has the names that its plain splitting gives, and names that were read are written and read back as they were.
#include <exception>
#include <set>

#include <boost/iostreams/device/back_inserter.hpp>
#include <boost/iostreams/filter/gzip.hpp>
#include <boost/iostreams/filtering_streambuf.hpp>

#include "support/Bytes.h"
#include "support/MemoryFile.h"
#include "support/Require.h"
#include "util/RunOnceRecord.h"

namespace lofter::fuzz {
namespace {

constexpr char kBeginning[] = "lofter.run-once=";

using Names = std::set<std::string>;

std::string Compressed(const std::string& text) {
    std::string archive;
    boost::iostreams::filtering_ostreambuf output;
    output.push(boost::iostreams::gzip_compressor());
    output.push(boost::iostreams::back_inserter(archive));
    output.sputn(text.data(), static_cast<std::streamsize>(text.size()));
    output.reset();
    return archive;
}

Names NamesIn(const std::string& text) {
    const std::string white = " \t\n\v\f\r";
    Names names;
    if (!text.starts_with(kBeginning)) {
        return names;
    }
    Bytes rest(reinterpret_cast<const std::uint8_t*>(text.data()) + sizeof kBeginning - 1,
               text.size() - (sizeof kBeginning - 1));
    while (!rest.Empty()) {
        const std::string field = rest.TextUntil(',');
        const std::size_t first = field.find_first_not_of(white);
        if (first != std::string::npos) {
            names.insert(field.substr(first, field.find_last_not_of(white) + 1 - first));
        }
    }
    return names;
}

Names Read(const MemoryFile& file) {
    Names names;
    ReadRunOnceRecord(file.Path(), names);
    return names;
}

void ReadHostile(const MemoryFile& file, Names& names) {
    try {
        ReadRunOnceRecord(file.Path(), names);
    } catch (const std::exception&) {
        names.clear();  // no whole archive: whoever reads it says so
    }
}

}  // namespace
}  // namespace lofter::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lofter::fuzz;
    static const MemoryFile file;
    Bytes bytes(data, size);
    const std::size_t kind = bytes.Below(3);
    Names names;
    if (kind == 0) {
        file.Replace(bytes.Rest());
        ReadHostile(file, names);
    } else {
        const std::string text = (kind == 1 ? kBeginning : "") + bytes.Rest();
        file.Replace(Compressed(text));
        names = Read(file);
        Require(names == NamesIn(text), "the names of the text");
    }
    lofter::WriteRunOnceRecord(file.Path(), names);
    Require(Read(file) == names, "names are read back as they were written");
    return 0;
}
