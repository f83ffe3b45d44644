// Native calls of the host's kernel.
#pragma once

#include <sys/types.h>

#include <cstdint>

// How a process is started. The layout is the kernel's.
struct HostKernelSpawnRecord {
    std::uint32_t flags;
    std::uint32_t userId;
    std::uint32_t groupId;
    std::uint8_t reserved;
    pid_t* processId;  // where the kernel writes the child's process id
};

// Starts a program with the given working directory and with `standardStreams[0..2]` as its standard input, output and
// error; it inherits no other descriptor. Both vectors end in a null pointer. Returns 0 or a negated errno.
int HostKernel_ForkExec(const char* path, char* const arguments[], char* const environment[], int workingDirectory,
                        const int standardStreams[3], const HostKernelSpawnRecord* record);

// Processors that are online; at least 1.
unsigned HostKernel_ProcessorCount();
