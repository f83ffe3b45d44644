#include "support/LogCapture.h"

#include <memory>
#include <new>
#include <ostream>

#include "tslibs/LogOutput.h"
#include "tslibs/log.h"

namespace lofter::test {

struct LogCapture::Recorder : LogOutput {
    void Write(int level, std::string_view message) override {
        try {
            entries.push_back({level, std::string(message)});
        } catch (const std::bad_alloc&) {
            // The shortage that a test makes met this record of the line; logging itself needs no memory.
        }
    }
    void Alert(std::string_view message) override { alerts.emplace_back(message); }

    std::vector<Entry> entries;
    std::vector<std::string> alerts;
};

LogCapture::LogCapture() : recorder(new Recorder) {
    Log_AddOutput(recorder);
}

LogCapture::~LogCapture() {
    platform::RemoveLogOutput(recorder);
}

std::vector<std::string> LogCapture::Lines() const {
    std::vector<std::string> lines;
    for (const Entry& entry : Entries()) {
        lines.push_back(entry.text);
    }
    return lines;
}

std::vector<std::string> LogCapture::Lines(int level) const {
    std::vector<std::string> lines;
    for (const Entry& entry : Entries()) {
        if (entry.level == level) {
            lines.push_back(entry.text);
        }
    }
    return lines;
}

std::vector<LogCapture::Entry> LogCapture::Entries() const {
    const platform::LogLock held;
    return recorder->entries;
}

std::vector<std::string> LogCapture::Alerts() const {
    const platform::LogLock held;
    return recorder->alerts;
}

void LogCapture::Clear() {
    const platform::LogLock held;
    recorder->entries.clear();
    recorder->alerts.clear();
}

std::string TextOf(const LogCapture::Entry& entry) {
    for (const std::string name : {"error", "warning", "info"}) {
        int level = 0;
        if (platform::FindLevel(name, level) && level == entry.level) {
            return name + " " + entry.text;
        }
    }
    return std::to_string(entry.level) + " " + entry.text;
}

void PrintTo(const LogCapture::Entry& entry, std::ostream* stream) {
    *stream << '"' << TextOf(entry) << '"';
}

}  // namespace lofter::test
