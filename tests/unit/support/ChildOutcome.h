// Runs a piece of a test in a forked child: what changes the process for good stays there.
#pragma once

#include <functional>
#include <string>

namespace lofter::test {

// What the action returned in the child, or how the child ended instead: "exited with status 3", "killed by signal 6",
// or "threw: " and the exception's text. The child may close every descriptor and enter another root.
std::string InForkedChild(const std::function<std::string()>& action);

// For use in such a child: makes the directory the root of the file system, as root or, where the system lets an
// ordinary user have that, in a user namespace of its own. Throws std::runtime_error where it cannot be done.
void EnterRoot(const std::string& directory);

// For use in such a child: from here on no file can be made longer than that, and writing beyond fails with EFBIG.
void LimitFileSize(unsigned long bytes);

// For use in such a child: from here on no process can be created.
void ForbidProcesses();

}  // namespace lofter::test
