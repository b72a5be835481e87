#include "syscall_filter.h"

#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <vector>

namespace talvex {

namespace {

// The x86-64 calls the tracer records. Reads and writes stop on every descriptor, since the
// filter cannot tell a socket; the tracer lets those on other descriptors go at once.
const unsigned kTraced[] = {SYS_socket,   SYS_connect,  SYS_accept,   SYS_accept4, SYS_sendto, SYS_recvfrom,
                            SYS_sendmsg,  SYS_recvmsg,  SYS_read,     SYS_write,   SYS_readv,  SYS_writev,
                            SYS_close,    SYS_sendfile, SYS_dup,      SYS_dup2,    SYS_dup3,   SYS_fcntl};

}  // namespace

bool installTracedCallsFilter() {
  std::vector<sock_filter> program;
  // Another ABI's calls (a 32-bit program the command runs) go untraced.
  program.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)));
  program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AUDIT_ARCH_X86_64, 1, 0));
  program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  program.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)));
  const unsigned count = sizeof kTraced / sizeof kTraced[0];
  for (unsigned i = 0; i < count; ++i) {
    // Matched: jump over the remaining comparisons and the allow, to the trace.
    program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kTraced[i], static_cast<unsigned char>(count - i), 0));
  }
  program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRACE));
  sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
  // Without no-new-privileges an unprivileged process may not install a filter; it also means
  // a setuid program the command runs does not gain its privileges, as under any tracer.
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return false;
  return prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

}  // namespace talvex
