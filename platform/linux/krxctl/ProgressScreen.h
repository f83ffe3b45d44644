// The progress screen: one line of the console that is redrawn in place, "Activating Lofter Plugins [3] net".
//
// The line shows the progress text, the number of steps when there were any, and the status text, cut to the console's
// width. The cursor is left at its start, so that whatever else is printed there overwrites it. When there is nothing
// to show the line is erased, and nothing is written until there is something again.
//
// Where the console is no terminal, or fails, each text that is not empty becomes a log line instead, unless it was
// only taken away and put back. A terminal that was hung up is opened again. One that takes no output, for instance
// because it was stopped, misses redraws and holds up nobody. Any thread may call it; nothing but std::bad_alloc is
// thrown.
#pragma once

#include <mutex>
#include <string>

#include "posix/Descriptor.h"

namespace platform {

inline constexpr char kConsole[] = "/dev/console";

class ProgressScreen {
  public:
    explicit ProgressScreen(const char* consolePath);

    void ProgressText(const std::string& text);
    void StatusText(const std::string& text);
    void Step();

  private:
    struct Text {
        std::string shown;
        std::string logged;  // the last that was
    };
    void Open();
    void Show(Text& text, const std::string& next);
    bool Redraw();
    bool Draw(const std::string& line);
    std::string Line() const;

    const std::string path;
    std::mutex lock;
    posix::Descriptor console;  // owns nothing when there is no terminal
    Text progress;
    Text status;
    unsigned long steps = 0;
    bool isShowing = false;
};

}  // namespace platform
