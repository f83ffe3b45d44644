// Log lines on an open descriptor, standard output or error as a rule: "2026-11-21 01:39:08.123 info lofter: text".
//
// Each message is one write that ends in one line end. It writes to the descriptor itself, past the C library's
// streams, so it needs no lock of theirs; it never raises SIGPIPE; a line that cannot be written is dropped.
#pragma once

#include <string>
#include <string_view>

#include "tslibs/LogOutput.h"

namespace platform {

struct StreamOutput final : LogOutput {
    struct Form {
        int finestLevel = kInfoLevel;
        bool timeStamps = true;
        bool milliseconds = true;
    };

    // The descriptor is not owned.
    StreamOutput(int descriptor, std::string identifier, Form form);

    void Write(int level, std::string_view message) override;

  private:
    const int descriptor;
    const std::string identifier;
    const Form form;
    bool stuck = false;  // a non-blocking descriptor took nothing for a whole wait, and nothing since
};

}  // namespace platform
