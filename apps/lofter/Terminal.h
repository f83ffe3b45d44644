// The operator's terminal, as seen through the standard streams: text out, keys in, and its return after a hang-up.
//
// Everything here works on the descriptors themselves. Nothing is buffered, so what is typed ahead stays where the next
// reader (the prompt, or a shell) finds it, and what is written appears between the log's lines in the order it was
// written.
#pragma once

#include <string>
#include <string_view>

#include <termios.h>

namespace lofter {

// Writes all of the text to standard output. A terminal that does not take it is nobody's failure.
void WriteToTerminal(std::string_view text);

// Single keys without an echo from standard input, for as long as it exists; afterwards lines and echo are on, whatever
// they were before. A terminal that refuses is logged and used as it is.
class KeyInput {
  public:
    KeyInput();
    ~KeyInput();
    KeyInput(const KeyInput&) = delete;
    KeyInput& operator=(const KeyInput&) = delete;

    // The next byte. Never returns at end of input: the boot waits for an operator, not for a stream.
    char Read();

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

    // The name under which the device is opened again; empty for a stream that is no terminal.
    const std::string& Device() const { return device; }

  private:
    void Reopen() const;

    int descriptor;
    std::string device;
    int statusFlags;
    termios modes{};
    bool isTerminal;
};

}  // namespace lofter
