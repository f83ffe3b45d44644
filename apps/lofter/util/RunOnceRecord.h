// The gzip-compressed record of the plugins that ran once and must not run again.
//
// Decompressed it is "lofter.run-once=", then every name followed by a comma, in sorted order, then a line end. Names
// are stored as they are: one that holds a comma is read back as two.
#pragma once

#include <set>
#include <string>

namespace lofter {

// Adds the names of the record to the set, without the white space around them. A file that cannot be read, is empty
// or begins with another text adds nothing, and neither does what is no regular file. Throws a standard exception when
// the file is no whole gzip stream.
void ReadRunOnceRecord(const std::string& path, std::set<std::string>& names);

// Writes the record in place, unlike other files that outlive a boot; kept on purpose: it stays the same file, with its
// owner, mode and links, and needs no room for two on the boot bank. Throws std::runtime_error "unable to write
// '<path>': <reason>".
void WriteRunOnceRecord(const std::string& path, const std::set<std::string>& names);

}  // namespace lofter
