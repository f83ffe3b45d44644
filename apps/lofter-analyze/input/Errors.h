// Why there is no answer, each with an exit status of its own. The text is one line, without the program's name.
#pragma once

#include "base/Exception.h"

namespace lofter::analyze {

enum ExitStatus : int { kFine = 0, kFindings = 1, kWrongUsage = 2, kUnreadableInput = 3, kNoAnswer = 4 };

// Options or arguments that make no sense together.
class UsageError : public Exception {
  public:
    using Exception::Exception;
};

// An input that cannot be read: which, and why.
class InputError : public Exception {
  public:
    InputError(const std::string& input, const std::string& reason) : Exception(input + ": " + reason) {}
};

// A question that the inputs do not answer: no log, a plugin that is unknown.
class NoAnswerError : public Exception {
  public:
    using Exception::Exception;
};

}  // namespace lofter::analyze
