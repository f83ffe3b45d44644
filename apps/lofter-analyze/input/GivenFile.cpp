#include "input/GivenFile.h"

#include <cerrno>
#include <cstring>
#include <optional>

#include <fcntl.h>
#include <unistd.h>

#include "input/Errors.h"
#include "posix/File.h"

namespace lofter::analyze {

std::string ReadGivenFile(const std::string& path) {
    const bool isStandardInput = path == "-";
    const posix::Descriptor file = isStandardInput ? posix::Descriptor(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0))
                                                   : posix::OpenFile(path, O_RDONLY);
    std::optional<std::string> content = file ? posix::ReadWhole(file) : std::nullopt;
    if (!content) {
        const int reason = errno;
        throw InputError(isStandardInput ? "standard input" : path, std::strerror(reason));
    }
    return *std::move(content);
}

}  // namespace lofter::analyze
