#include "krxctl/ProgressScreen.h"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "krxctl/KernelProgressScreenImpl.h"
#include "posix/File.h"
#include "posix/Printable.h"
#include "tslibs/LogOutput.h"
#include "tslibs/log.h"

namespace platform {

namespace {

constexpr unsigned kUsualColumns = 80;

// One column stays free: a full line would wrap.
std::size_t UsableColumns(int terminal) {
    winsize size{};
    const bool known = ::ioctl(terminal, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return (known ? size.ws_col : kUsualColumns) - 1;
}

void AppendWord(std::string& line, const std::string& word) {
    if (!line.empty() && !word.empty()) {
        line.push_back(' ');
    }
    line.append(word);
}

// One line of it.
std::string ForScreen(const std::string& text) {
    std::string shown = posix::Printable(text);
    std::replace_if(
        shown.begin(), shown.end(), [](char symbol) { return symbol == '\n' || symbol == '\t'; }, ' ');
    return shown;
}

// The process's one screen; never destroyed, since threads may report progress until the process is gone.
ProgressScreen& Screen() {
    static ProgressScreen& screen = *new ProgressScreen(kConsole);
    return screen;
}

}  // namespace

ProgressScreen::ProgressScreen(const char* consolePath) : path(consolePath) {
    Open();
}

void ProgressScreen::Open() {
    console = posix::OpenFile(path, O_WRONLY | O_NONBLOCK);
    if (console && ::isatty(console.Get()) == 0) {
        console.Reset();
    }
}

void ProgressScreen::ProgressText(const std::string& text) {
    Show(progress, text);
}

void ProgressScreen::StatusText(const std::string& text) {
    Show(status, text);
}

void ProgressScreen::Step() {
    const std::lock_guard held(lock);
    ++steps;
    Redraw();
}

void ProgressScreen::Show(Text& text, const std::string& next) {
    const std::lock_guard held(lock);
    const bool isBack = text.shown.empty() && next == text.logged;
    text.shown = ForScreen(next);
    if (!Redraw() && !next.empty() && !isBack) {
        Log_Level(kInfoLevel, "%s\n", next.c_str());
        text.logged = next;
    }
}

// Returns false when there is no terminal to draw on.
bool ProgressScreen::Redraw() {
    if (!console) {
        return false;
    }
    const std::string whole = Line();
    if (whole.empty() && !isShowing) {
        return true;
    }
    if (!Draw(whole)) {
        Open();
        if (console && !Draw(whole)) {
            console.Reset();
        }
    }
    return static_cast<bool>(console);
}

// Returns false when the console fails; one that takes no output now does not.
bool ProgressScreen::Draw(const std::string& line) {
    const std::string drawn = "\r\x1b[2K" + std::string(posix::Shortened(line, UsableColumns(console.Get()))) + "\r";
    if (::write(console.Get(), drawn.data(), drawn.size()) >= 0) {
        isShowing = !line.empty();
        return true;
    }
    return errno == EAGAIN || errno == EINTR;
}

std::string ProgressScreen::Line() const {
    std::string line = progress.shown;
    AppendWord(line, steps > 0 ? "[" + std::to_string(steps) + "]" : "");
    AppendWord(line, status.shown);
    return line;
}

}  // namespace platform

namespace KrxCtl::System {

void KernelProgressScreenImpl::ProgressText(const std::string& text) {
    platform::Screen().ProgressText(text);
}

void KernelProgressScreenImpl::StatusText(const std::string& text) {
    platform::Screen().StatusText(text);
}

void KernelProgressScreenImpl::Step() {
    platform::Screen().Step();
}

}  // namespace KrxCtl::System
