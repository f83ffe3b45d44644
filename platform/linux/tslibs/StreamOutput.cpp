#include "tslibs/StreamOutput.h"

#include <array>
#include <cstdio>
#include <new>
#include <vector>

#include <unistd.h>

#include "posix/Printable.h"
#include "tslibs/Gather.h"
#include "tslibs/TimeStamp.h"

namespace platform {

namespace {

using Clock = BoundedStream::Clock;

std::string_view LevelName(int level) {
    if (level <= kErrorLevel) {
        return "error ";
    }
    return level <= kWarningLevel ? "warning " : level <= kInfoLevel ? "info " : "trace ";
}

// A message as it is shown. Only one with control characters takes room, and only an uncommonly long one memory.
class Shown {
  public:
    explicit Shown(std::string_view message) : text(message) {
        if (posix::IsPrintable(message)) {
            return;
        }
        try {
            longer.resize(message.size() > kOrdinaryLength ? posix::PrintableLength(message.size()) : 0);
        } catch (const std::bad_alloc&) {
            // The message loses its end.
        }
        text = posix::Printable(message, longer.empty() ? std::span<char>(ordinary) : std::span<char>(longer));
    }
    std::string_view Text() const { return text; }

  private:
    std::array<char, posix::PrintableLength(kOrdinaryLength)> ordinary;
    std::vector<char> longer;
    std::string_view text;
};

}  // namespace

StreamOutput::StreamOutput(int descriptor, std::string itsIdentifier, Form lineForm,
                           std::chrono::milliseconds longestWait)
    : stream(descriptor),
      name(descriptor == STDERR_FILENO ? "standard error" : "standard output"),
      identifier(std::move(itsIdentifier)),
      form(lineForm),
      patience(longestWait) {}

void StreamOutput::Write(int level, std::string_view message) {
    if (level > form.finestLevel) {
        return;
    }
    const Shown shown(message);
    if (stream.Refresh()) {
        isStuck = isLineOpen = false;
        lost = 0;
    }
    const Clock::time_point now = Clock::now();
    const Clock::time_point deadline = isStuck ? now : now + patience;
    if (!ReportLoss(deadline) || !WriteLine(level, shown.Text(), deadline)) {
        ++lost;
    }
}

void StreamOutput::AfterFork() {
    stream.AfterFork();
    lost = 0;
}

// False when there is no room for that.
bool StreamOutput::ReportLoss(Clock::time_point deadline) {
    if (lost == 0) {
        return true;
    }
    std::array<char, 96> text{};
    std::snprintf(text.data(), text.size(),
                  lost == 1 ? "%lu log line was lost while %s took none" : "%lu log lines were lost while %s took none",
                  lost, name);
    if (!WriteLine(kWarningLevel, text.data(), deadline)) {
        return false;
    }
    lost = 0;
    return true;
}

// True when the text went out, even if its line end is still to come.
bool StreamOutput::WriteLine(int level, std::string_view text, Clock::time_point deadline) {
    TimeStamp stamp;
    if (form.timeStamps) {
        stamp = TimeStamp::Iso(TimeStamp::Clock::now(), form.milliseconds);
    }
    const std::string_view endOfTheOneBefore = isLineOpen ? "\n" : "";
    constexpr std::string_view kEnd = "\n";
    std::array parts{Part(endOfTheOneBefore),
                     Part(stamp.Text()),
                     Part(form.timeStamps ? " " : ""),
                     Part(LevelName(level)),
                     Part(identifier),
                     Part(": "),
                     Part(text),
                     Part(kEnd)};
    std::span<iovec> left(parts);
    const std::size_t whole = Length(left);
    isStuck = stream.Write(left, deadline) == BoundedStream::Outcome::kFull;
    const std::size_t missing = Length(left);
    if (whole - missing >= endOfTheOneBefore.size()) {
        isLineOpen = missing > 0 && whole - missing > endOfTheOneBefore.size();
    }
    return missing <= kEnd.size();
}

}  // namespace platform
