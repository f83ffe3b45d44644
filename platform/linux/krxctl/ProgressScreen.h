// The progress screen: one line of the console that is redrawn in place, "Activating Lofter Plugins [3] net".
//
// The line shows the progress text, the number of steps when there were any, and the status text, cut to the console's
// width. The cursor is left at its start, so that whatever else is printed there takes its place; once it has
// nothing to show it is erased, and nothing is written until it has something again. Where the console is no terminal,
// each text that is not empty becomes a log line instead, but for one that was only taken away and put back; so does
// the rest once the console fails. One that was hung up is opened again. A console that takes no output, for instance
// because it was stopped, misses redraws and holds up nobody. Any thread may call it; nothing throws but for want of
// memory.
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
