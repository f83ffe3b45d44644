// Log lines on an open descriptor, standard output or error as a rule: "2026-11-21 01:39:08.123 info lofter: text".
//
// Each message is one write that ends in one line end; what a reader's terminal would act on is spelled out (see
// Printable.h). It writes to the descriptor itself, past the C library's streams, so it needs no lock of theirs.
//
// A reader that stands still holds up a line for as long as the output is patient, and then nobody until it reads on:
// lines are dropped meanwhile. The first line after that has one in front of it which says how many there were: "...
// warning lofter: 530 log lines were lost while standard output took none". A line that went out in part is ended
// before anything else is written. A line that fails in another way, for instance on a full disk, counts as lost, too.
// A forked child says nothing of its parent's losses, and a descriptor that was redirected starts afresh.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include "tslibs/BoundedStream.h"
#include "tslibs/LogOutput.h"

namespace platform {

struct StreamOutput final : LogOutput {
    struct Form {
        int finestLevel = kInfoLevel;
        bool timeStamps = true;
        bool milliseconds = true;
    };

    // The descriptor is not owned.
    StreamOutput(int descriptor, std::string identifier, Form form, std::chrono::milliseconds patience = kPatience);

    void Write(int level, std::string_view message) override;
    void AfterFork() override;

  private:
    static constexpr std::chrono::seconds kPatience{1};

    bool ReportLoss(BoundedStream::Clock::time_point deadline);
    bool WriteLine(int level, std::string_view text, BoundedStream::Clock::time_point deadline);

    BoundedStream stream;
    const char* const name;
    const std::string identifier;
    const Form form;
    const std::chrono::milliseconds patience;
    bool isStuck = false;     // took nothing for a whole wait, and nothing since
    bool isLineOpen = false;  // something of a line went out, but not its end
    unsigned long lost = 0;   // lines since the last one that went out
};

}  // namespace platform
