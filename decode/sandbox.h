#pragma once

#include <cstdint>

namespace tarnbloom::decodehelper {

// Resource limits for the life of the helper: no core files, at most
// `memoryBytes` of private writable memory (skipped under AddressSanitizer,
// whose shadow memory alone exceeds any sensible limit), few descriptors.
void applyLimits(uint64_t memoryBytes);

// Lets the coming request use `seconds` more CPU time, over all threads;
// past it the kernel ends the process with SIGXCPU.
void allowCpuSeconds(uint64_t seconds);

// From here on: no new privileges, and a system-call filter that leaves
// memory, threads, time, the socket and memory files. Opening files fails
// with EPERM; exec, sockets, ptrace and new processes end the helper.
// Returns false when the kernel refused the filter.
bool lockDown();

}  // namespace tarnbloom::decodehelper
