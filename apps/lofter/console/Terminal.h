// The operator's terminal, as seen through the standard streams: text out, keys in, and its return after a hang-up.
//
// Everything here works on the descriptors themselves. Nothing is buffered, so what is typed ahead stays where the next
// reader (the prompt, or a shell) finds it, and what is written appears between the log's lines in the order it was
// written.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

#include <signal.h>
#include <termios.h>
#include <unistd.h>

namespace lofter {

inline constexpr char kHideCursor[] = "\033[?25l";
inline constexpr char kShowCursor[] = "\033[?25h";

// Writes all of the text to standard output. A terminal that does not take it is nobody's failure.
void WriteToTerminal(std::string_view text);

// While one exists, a signal that ends the process (SIGHUP, SIGINT or SIGTERM) leaves a terminal behind that shows its
// cursor and what is typed, in lines. A terminal that is stopped delays the end by so many milliseconds at most. A
// signal that is ignored stays ignored. Not more than one at a time.
class UsableTerminalAtEnd {
  public:
    explicit UsableTerminalAtEnd(int patience = 1000);
    ~UsableTerminalAtEnd();
    UsableTerminalAtEnd(const UsableTerminalAtEnd&) = delete;
    UsableTerminalAtEnd& operator=(const UsableTerminalAtEnd&) = delete;

  private:
    static constexpr std::array kSignals{SIGHUP, SIGINT, SIGTERM};
    std::array<struct sigaction, kSignals.size()> before{};
};

// Single keys without an echo from standard input, for as long as it exists; afterwards lines and echo are on, whatever
// they were before. A terminal that refuses is logged and used as it is.
class KeyInput {
  public:
    KeyInput();
    ~KeyInput();
    KeyInput(const KeyInput&) = delete;
    KeyInput& operator=(const KeyInput&) = delete;

    // The next byte; none when the terminal has been hung up. Never returns at end of input of anything else: the boot
    // waits for an operator, not for a stream.
    std::optional<char> Read();

  private:
    bool Apply() const;

    termios modes{};
    bool known;
};

// A standard stream as it is now, and the way back to it.
//
// A session leader that ends takes its controlling terminal with it: every descriptor on that terminal is dead from
// then on. A stream that was such a terminal is opened again by its device's name. A stream that is no terminal is left
// alone.
class TerminalStream {
  public:
    explicit TerminalStream(int number);
    TerminalStream(int number, std::string deviceName);

    // Opens the stream again if it has been hung up, never as the controlling terminal, and gives the terminal its
    // earlier modes. A device that cannot be opened is logged, and the stream stays dead.
    void Restore() const;

    // As Restore, but leaves a stream that is not hung up as it is, and logs nothing. False, with the reason in errno,
    // when the device cannot be opened.
    bool Revive() const;

  private:
    bool Reopen() const;

    int descriptor;
    std::string device;  // its name; empty for a stream that is no terminal
    int statusFlags;
    termios modes{};
    bool isTerminal;
};

// All three standard streams as they are now.
class StandardStreams {
  public:
    // Restores each of them.
    void Restore() const;

    // Returns at once unless the terminal on standard input has been hung up. Else the streams that were hung up are
    // opened again, which may take until somebody has the line again: it is logged once for each stream, and waited
    // for.
    void AwaitTerminal() const;

  private:
    const std::array<TerminalStream, 3> streams{TerminalStream(STDIN_FILENO), TerminalStream(STDOUT_FILENO),
                                                TerminalStream(STDERR_FILENO)};
};

}  // namespace lofter
