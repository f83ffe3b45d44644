// A process on a pseudo-terminal, and the operator who sits in front of it.
//
// The process runs one function and hands its result over; the operator types, and sees every byte that was written.
// Whatever is waited for is waited for with a bound; past it, WaitFor… fail the test. The process is killed and reaped
// in the end.
#pragma once

#include <functional>
#include <string>

#include <sys/types.h>
#include <termios.h>

#include "posix/Descriptor.h"

namespace lofter::test {

// Hands every byte on as it was written: line ends are not translated.
class PseudoTerminal {
  public:
    PseudoTerminal();

    int Operator() const { return master.Get(); }
    int Device() const { return slave.Get(); }
    std::string Name() const;
    termios Modes() const;
    void CloseOperator() { master.Reset(); }
    void CloseDevice() { slave.Reset(); }

  private:
    posix::Descriptor master;
    posix::Descriptor slave;
};

class TerminalProcess {
  public:
    explicit TerminalProcess(std::function<std::string()> body);
    ~TerminalProcess();
    TerminalProcess(const TerminalProcess&) = delete;
    TerminalProcess& operator=(const TerminalProcess&) = delete;

    void Type(const std::string& text) const;

    // Reads on until the text has been written after what was waited for before, and returns what was written up to its
    // end.
    std::string WaitForText(const std::string& text);

    // Until single keys are read (lines off), or no longer are.
    void WaitForKeys() const;
    void WaitForLines() const;

    // What the function returned, once it has. Everything that was written since the last wait is then in rest.
    std::string WaitForResult(std::string* rest = nullptr);

    // How the process ended, as waitpid tells.
    int WaitForEnd(std::string* rest = nullptr);

    // Until the process has given the processor up of its own accord so often, as it does where it waits.
    void WaitForPauses(int count) const;

    PseudoTerminal terminal;
    const termios initialModes = terminal.Modes();  // before the process could change them
    pid_t Id() const { return process; }

  private:
    bool ReadsLines() const;
    bool ReadSome(int milliseconds);
    void Run(const std::function<std::string()>& body);

    posix::Descriptor result;
    pid_t process = -1;
    bool reaped = false;
    std::string unseen;
};

}  // namespace lofter::test
