// Native calls of the host's kernel.
#pragma once

#include <cstdint>

#include <sys/types.h>

// How a process is started. The layout is the kernel's.
struct HostKernelSpawnRecord {
    std::uint32_t flags;
    std::uint32_t userId;   // the child's effective ids become these; they must be the caller's
    std::uint32_t groupId;  // real ones
    std::uint8_t reserved;
    pid_t* processId;  // where the kernel writes the child's process id
};

// Starts a program with the given working directory and with `standardStreams[0..2]` as its standard input, output and
// error; it inherits no other descriptor, and starts with default signal dispositions and none blocked. The streams may
// be any open descriptors, also equal ones, ones below 3 and ones marked close-on-exec. Both vectors end in a null
// pointer. Returns 0 or a negated errno: -EPERM for ids other than the caller's real ones.
int HostKernel_ForkExec(const char* path, char* const arguments[], char* const environment[], int workingDirectory,
                        const int standardStreams[3], const HostKernelSpawnRecord* record);

// Processors that are online; at least 1.
unsigned HostKernel_ProcessorCount();
