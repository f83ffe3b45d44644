// Children that are forked while other threads log.
#include <atomic>
#include <map>
#include <sstream>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "posix/Descriptor.h"
#include "support/ForkedChild.h"
#include "support/SyslogSocket.h"
#include "support/TemporaryDirectory.h"
#include "tslibs/LogOutput.h"
#include "tslibs/StreamOutput.h"
#include "tslibs/SyslogOutput.h"
#include "tslibs/log.h"

namespace platform {
namespace {

constexpr int kThreads = 16;
constexpr int kChildren = 100;

// Threads that log, and one that reads what reaches the syslog socket, until the end of its life.
class Noise {
  public:
    Noise(const std::string& syslogPath, int file)
        : daemon(syslogPath),
          syslogOutput(new SyslogOutput(syslogPath, "lofter")),
          stream(new StreamOutput(file, "lofter", {kInfoLevel, false, false})) {
        Log_AddOutput(syslogOutput);
        Log_AddOutput(stream);
        for (int number = 0; number < kThreads; ++number) {
            threads.emplace_back([this, number] {
                do {  // at least once: a thread may not have had its turn when all is over
                    Log_Level(kInfoLevel, "thread %d\n", number);
                } while (!ended);
            });
        }
        reader = std::thread([this] {
            while (!ended || !daemon.IsQuiet()) {
                if (!daemon.IsQuiet()) {
                    ++received[daemon.Receive().substr(20)];
                }
            }
        });
    }
    // Returns how often each text reached the syslog socket.
    std::map<std::string, int> End() {
        ended = true;
        for (std::thread& thread : threads) {
            thread.join();
        }
        reader.join();
        RemoveLogOutput(syslogOutput);
        RemoveLogOutput(stream);
        return received;
    }

  private:
    lofter::test::SyslogSocket daemon;
    LogOutput* syslogOutput;
    LogOutput* stream;
    std::atomic<bool> ended = false;
    std::vector<std::thread> threads;
    std::thread reader;
    std::map<std::string, int> received;
};

TEST(LogFork, LetsEachChildLogAtOnceWhileThreadsOfTheParentLog) {
    const lofter::test::TemporaryDirectory directory;
    const posix::Descriptor file(
        ::open((directory / "lines").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    Noise noise(directory / "log", file.Get());
    for (int number = 0; number < kChildren; ++number) {
        lofter::test::ForkedChild child([number] {
            Log_Level(kInfoLevel, "child %d\n", number);
            return 7;
        });
        ASSERT_EQ(child.Wait(), 7) << number;
    }
    const std::map<std::string, int> received = noise.End();

    std::map<std::string, int> written;
    std::istringstream lines(directory.Read("lines"));
    for (std::string line; std::getline(lines, line);) {
        ASSERT_TRUE(line.starts_with("info lofter: thread ") || line.starts_with("info lofter: child ")) << line;
        ++written[line.substr(13)];
    }
    for (int number = 0; number < kChildren; ++number) {
        EXPECT_EQ(written["child " + std::to_string(number)], 1);
    }
    for (int number = 0; number < kThreads; ++number) {
        EXPECT_GT(written["thread " + std::to_string(number)], 0);
    }
    EXPECT_FALSE(received.empty());
}

}  // namespace
}  // namespace platform
