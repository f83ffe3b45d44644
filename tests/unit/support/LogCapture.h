// Records every message that is logged while it lives, of whatever level, without its trailing line end.
//
// Messages of all threads are recorded in the order in which they were logged. What a forked child logs stays in the
// child.
#pragma once

#include <string>
#include <vector>

struct LogOutput;

namespace lofter::test {

class LogCapture {
  public:
    struct Entry {
        int level;
        std::string text;
        bool operator==(const Entry&) const = default;
    };

    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<std::string> Lines() const;
    std::vector<std::string> Lines(int level) const;
    std::vector<Entry> Entries() const;

    // The messages that went out as the host's alert.
    std::vector<std::string> Alerts() const;

    // Forgets what was recorded so far.
    void Clear();

  private:
    struct Recorder;
    Recorder* recorder;  // owned by the logging library while this lives
};

// The level by its name, and the text: "info text".
std::string TextOf(const LogCapture::Entry& entry);

// For failure texts of assertions.
void PrintTo(const LogCapture::Entry& entry, std::ostream* stream);

}  // namespace lofter::test
