// Sends records to the syslog daemon's socket, whatever becomes of the daemon or of the connection.
//
// It connects when there is something to send and connects again when the daemon was restarted. A child that closed
// every descriptor may meanwhile use the number for something else; therefore each send first compares the identity of
// the socket behind the number, and a socket that is not its own is neither written to nor closed. While nobody
// listens, records are dropped. A daemon that hangs costs one bounded wait; after that, records are dropped without
// waiting until it takes one.
//
// Unlike syslog(3) it needs no lock of the C library, so that a child forked by a threaded process can use it. Not
// synchronised.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include <sys/types.h>

namespace platform {

class SyslogClient {
  public:
    // The longest wait is for each connection and each record.
    explicit SyslogClient(std::string socketPath, std::chrono::milliseconds longestWait = kPatience);
    ~SyslogClient();
    SyslogClient(const SyslogClient&) = delete;
    SyslogClient& operator=(const SyslogClient&) = delete;

    // Sends head and text as one record. A record that is too long for the socket loses the end of its text.
    void Send(std::string_view head, std::string_view text);

  private:
    static constexpr std::chrono::milliseconds kPatience{200};

    enum class Outcome { kSent, kTooLong, kBusy, kGone };

    bool Connect();
    bool ConnectAs(int type);
    bool IsConnected();
    void Disconnect();
    bool IsOwnSocket() const;
    Outcome SendCut(std::string_view head, std::string_view text) const;
    Outcome SendOnce(std::string_view head, std::string_view text) const;

    const std::string path;
    const std::chrono::milliseconds patience;
    int socket = -1;
    int socketType = 0;
    dev_t device = 0;  // identity of the socket, to know it by
    ino_t inode = 0;
    bool hung = false;
};

}  // namespace platform
