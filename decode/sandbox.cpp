#include "sandbox.h"

#include <sched.h>
#include <seccomp.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include <cerrno>
#include <memory>

namespace tarnbloom::decodehelper {

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kAddressSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kAddressSanitizer = true;
#else
constexpr bool kAddressSanitizer = false;
#endif
#else
constexpr bool kAddressSanitizer = false;
#endif

void setLimit(int resource, rlim_t value) {
  const rlimit limit{value, value};
  ::setrlimit(resource, &limit);
}

}  // namespace

void applyLimits(uint64_t memoryBytes) {
  setLimit(RLIMIT_CORE, 0);
  setLimit(RLIMIT_NOFILE, 64);
  if (!kAddressSanitizer) setLimit(RLIMIT_DATA, memoryBytes);
}

void allowCpuSeconds(uint64_t seconds) {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  const uint64_t used = static_cast<uint64_t>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) + 1;
  const rlimit limit{used + seconds, RLIM_INFINITY};
  ::setrlimit(RLIMIT_CPU, &limit);
}

bool lockDown() {
  if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return false;
  std::unique_ptr<void, void (*)(scmp_filter_ctx)> filter(seccomp_init(SCMP_ACT_ERRNO(EPERM)),
                                                           seccomp_release);
  if (!filter) return false;
  scmp_filter_ctx ctx = filter.get();
  bool ok = true;
  const auto allow = [&](int syscall) {
    ok = ok && seccomp_rule_add(ctx, SCMP_ACT_ALLOW, syscall, 0) == 0;
  };
  // Memory, including memory files for the pixels.
  for (int s : {SCMP_SYS(brk), SCMP_SYS(mmap), SCMP_SYS(munmap), SCMP_SYS(mremap),
                SCMP_SYS(mprotect), SCMP_SYS(madvise), SCMP_SYS(memfd_create),
                SCMP_SYS(ftruncate), SCMP_SYS(fcntl)})
    allow(s);
  // Descriptors already open: the socket and the files handed over.
  for (int s : {SCMP_SYS(read), SCMP_SYS(pread64), SCMP_SYS(readv), SCMP_SYS(write),
                SCMP_SYS(writev), SCMP_SYS(lseek), SCMP_SYS(fstat), SCMP_SYS(newfstatat),
                SCMP_SYS(close), SCMP_SYS(sendmsg), SCMP_SYS(recvmsg), SCMP_SYS(poll),
                SCMP_SYS(ppoll)})
    allow(s);
  // A pipe reaches nothing outside; the sanitizers probe memory through one.
  for (int s : {SCMP_SYS(pipe), SCMP_SYS(pipe2)}) allow(s);
  // Threads (decoders run their own), signals, time and limits.
  for (int s : {SCMP_SYS(futex), SCMP_SYS(set_robust_list), SCMP_SYS(rseq),
                SCMP_SYS(set_tid_address), SCMP_SYS(sched_yield), SCMP_SYS(sched_getaffinity),
                SCMP_SYS(rt_sigaction), SCMP_SYS(rt_sigprocmask), SCMP_SYS(rt_sigreturn),
                SCMP_SYS(sigaltstack), SCMP_SYS(getpid), SCMP_SYS(gettid), SCMP_SYS(tgkill),
                SCMP_SYS(exit), SCMP_SYS(exit_group), SCMP_SYS(clock_gettime),
                SCMP_SYS(clock_getres), SCMP_SYS(clock_nanosleep), SCMP_SYS(nanosleep),
                SCMP_SYS(gettimeofday), SCMP_SYS(getrandom), SCMP_SYS(getrusage),
                SCMP_SYS(getrlimit), SCMP_SYS(setrlimit), SCMP_SYS(prlimit64),
                SCMP_SYS(prctl), SCMP_SYS(sysinfo), SCMP_SYS(uname)})
    allow(s);
  // New threads only: a clone without CLONE_THREAD would be a new process.
  ok = ok && seccomp_rule_add(ctx, SCMP_ACT_ALLOW, SCMP_SYS(clone), 1,
                              SCMP_A0(SCMP_CMP_MASKED_EQ, CLONE_THREAD, CLONE_THREAD)) == 0;
  // clone3 hides its flags in memory the filter cannot read; glibc falls
  // back to clone when it is missing.
  ok = ok && seccomp_rule_add(ctx, SCMP_ACT_ERRNO(ENOSYS), SCMP_SYS(clone3), 0) == 0;
  // What only a taken-over decoder would try ends the process at once.
  for (int s : {SCMP_SYS(execve), SCMP_SYS(execveat), SCMP_SYS(fork), SCMP_SYS(vfork),
                SCMP_SYS(socket), SCMP_SYS(socketpair), SCMP_SYS(connect), SCMP_SYS(bind),
                SCMP_SYS(ptrace), SCMP_SYS(process_vm_writev), SCMP_SYS(kill)})
    ok = ok && seccomp_rule_add(ctx, SCMP_ACT_KILL_PROCESS, s, 0) == 0;
  return ok && seccomp_load(ctx) == 0;
}

}  // namespace tarnbloom::decodehelper
