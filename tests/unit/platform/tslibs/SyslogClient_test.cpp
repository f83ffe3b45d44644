#include "tslibs/SyslogClient.h"

#include <chrono>
#include <memory>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/ForkedChild.h"
#include "support/OpenDescriptors.h"
#include "support/SyslogSocket.h"
#include "support/TemporaryDirectory.h"

namespace platform {
namespace {

using lofter::test::ForkedChild;
using lofter::test::OpenDescriptors;
using lofter::test::SyslogSocket;

class SyslogClientTest : public testing::Test {
  protected:
    const lofter::test::TemporaryDirectory directory;
    const std::string path = directory / "log";
    SyslogClient client{path};
};

TEST_F(SyslogClientTest, SendsHeadAndTextAsOneRecord) {
    SyslogSocket daemon(path);
    client.Send("<30>head: ", "the text");
    EXPECT_EQ(daemon.Receive(), "<30>head: the text");
    client.Send("<30>head: ", "");
    EXPECT_EQ(daemon.Receive(), "<30>head: ");
    EXPECT_TRUE(daemon.IsQuiet());
}

TEST_F(SyslogClientTest, DropsRecordsUntilThereIsADaemonAndThenFindsIt) {
    client.Send("", "early");
    SyslogSocket daemon(path);
    client.Send("", "in time");
    EXPECT_EQ(daemon.Receive(), "in time");
    EXPECT_TRUE(daemon.IsQuiet());
}

TEST_F(SyslogClientTest, FindsADaemonThatWasRestarted) {
    auto daemon = std::make_unique<SyslogSocket>(path);
    client.Send("", "first");
    daemon.reset();
    client.Send("", "nobody listens");
    daemon = std::make_unique<SyslogSocket>(path);
    client.Send("", "second");
    EXPECT_EQ(daemon->Receive(), "second");
    daemon = nullptr;
    daemon = std::make_unique<SyslogSocket>(path);
    client.Send("", "third, sent over a connection to the former daemon");
    EXPECT_EQ(daemon->Receive(), "third, sent over a connection to the former daemon");
}

TEST_F(SyslogClientTest, ConnectsAgainInAChildThatClosedEveryDescriptor) {
    SyslogSocket daemon(path);
    client.Send("", "parent");
    ForkedChild child([this] {
        ::close_range(3, ~0U, 0);
        client.Send("", "child");
        return 0;
    });
    EXPECT_EQ(child.Wait(), 0);
    EXPECT_EQ(daemon.Receive(), "parent");
    EXPECT_EQ(daemon.Receive(), "child");
    client.Send("", "parent again");
    EXPECT_EQ(daemon.Receive(), "parent again");
}

TEST_F(SyslogClientTest, LeavesADescriptorAloneThatHasTakenItsNumber) {
    const std::string other = directory / "other";
    SyslogSocket daemon(path);
    client.Send("", "parent");
    ForkedChild child([&] {
        const int highest = ::open("/dev/null", O_RDONLY);
        ::close_range(3, ~0U, 0);
        for (int number = 3; number < highest; ++number) {
            if (::open(other.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600) != number) {
                return 1;
            }
        }
        client.Send("", "child");
        for (int number = 3; number < highest; ++number) {
            if (::fcntl(number, F_GETFD) < 0) {
                return 2;
            }
        }
        return 0;
    });
    EXPECT_EQ(child.Wait(), 0);
    EXPECT_EQ(daemon.Receive(), "parent");
    EXPECT_EQ(daemon.Receive(), "child");
    EXPECT_EQ(directory.Read("other"), "");
}

TEST_F(SyslogClientTest, NeverTakesTheNumberOfAStandardStream) {
    SyslogSocket daemon(path);
    ForkedChild child([this] {
        ::close_range(0, 2, 0);
        client.Send("", "child");
        int open = 0;
        for (int number = 0; number < 3; ++number) {
            open += ::fcntl(number, F_GETFD) < 0 ? 0 : 1;
        }
        return open;
    });
    EXPECT_EQ(child.Wait(), 0);
    EXPECT_EQ(daemon.Receive(), "child");
}

TEST_F(SyslogClientTest, IsNotInheritedByOtherPrograms) {
    SyslogSocket daemon(path);
    const std::set<int> before = OpenDescriptors();
    client.Send("", "connected");
    std::set<int> opened = OpenDescriptors();
    for (const int number : before) {
        opened.erase(number);
    }
    ASSERT_EQ(opened.size(), 1U);
    EXPECT_EQ(::fcntl(*opened.begin(), F_GETFD), FD_CLOEXEC);
}

TEST_F(SyslogClientTest, CutsARecordThatIsTooLongAtTheEndOfASymbol) {
    SyslogSocket daemon(path);
    std::string text = "x";
    while (text.size() < 900'000) {
        text += "\xc3\xa4";
    }
    client.Send("head: ", text);
    const std::string record = daemon.Receive();
    EXPECT_EQ(record.substr(0, 9), "head: x\xc3\xa4");
    EXPECT_GT(record.size(), 50'000U);
    EXPECT_LT(record.size(), text.size());
    EXPECT_EQ(record.substr(record.size() - 2), "\xc3\xa4");
    client.Send("", "next");
    EXPECT_EQ(daemon.Receive(), "next");
}

TEST_F(SyslogClientTest, WaitsOnceForADaemonThatHangs) {
    SyslogSocket daemon(path);
    const int waiting = daemon.Fill(path);
    const auto start = std::chrono::steady_clock::now();
    for (int count = 0; count < 200; ++count) {
        client.Send("", "dropped");
    }
    // Each wait would be a fifth of a second.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    for (int count = 0; count < waiting; ++count) {
        EXPECT_EQ(daemon.Receive(), "other");
    }
    EXPECT_TRUE(daemon.IsQuiet());
    client.Send("", "awake");
    EXPECT_EQ(daemon.Receive(), "awake");
}

TEST_F(SyslogClientTest, LeavesADaemonThatHangsForItsSuccessor) {
    SyslogSocket hanging(path);
    client.Send("", "before");
    hanging.Fill(path);
    client.Send("", "dropped");
    SyslogSocket successor(path);
    client.Send("", "taken");
    EXPECT_EQ(successor.Receive(), "taken");
}

TEST_F(SyslogClientTest, SpeaksToAStreamSocketToo) {
    using namespace std::string_literals;
    auto daemon = std::make_unique<SyslogSocket>(path, SOCK_STREAM);
    client.Send("head: ", "first");
    EXPECT_EQ(daemon->Receive(), "head: first\0"s);
    client.Send("head: ", "second");
    EXPECT_EQ(daemon->Receive(), "head: second\0"s);
    // Would raise SIGPIPE, which ends this test.
    daemon.reset();
    client.Send("", "nobody listens");
    client.Send("", "nobody listens");
    daemon = std::make_unique<SyslogSocket>(path);
    client.Send("", "a datagram");
    EXPECT_EQ(daemon->Receive(), "a datagram");
}

TEST_F(SyslogClientTest, WaitsOnceForAStreamDaemonThatAcceptsNobody) {
    const SyslogSocket daemon(path, SOCK_STREAM);
    std::vector<std::unique_ptr<SyslogClient>> clients;
    const auto start = std::chrono::steady_clock::now();
    for (int count = 0; count < 4; ++count) {  // fill the queue of connections
        clients.push_back(std::make_unique<SyslogClient>(path, std::chrono::milliseconds(20)));
        clients.back()->Send("", "queued");
    }
    for (int count = 0; count < 200; ++count) {
        client.Send("", "dropped");
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST_F(SyslogClientTest, LeavesNoDescriptorBehind) {
    const auto before = OpenDescriptors();
    {
        SyslogSocket daemon(path);
        SyslogClient passing(path);
        passing.Send("", "text");
        EXPECT_EQ(daemon.Receive(), "text");
    }
    client.Send("", "nobody listens");
    SyslogClient("/" + std::string(200, 'x')).Send("", "nowhere");
    SyslogClient(directory / "missing/log").Send("", "nowhere");
    EXPECT_EQ(OpenDescriptors(), before);
}

}  // namespace
}  // namespace platform
