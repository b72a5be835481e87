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

// The same calls in a 32-bit process (<asm/unistd_32.h>): socketcall (102) carries the socket
// calls of programs built before they had numbers of their own.
const unsigned kTracedI386[] = {102, 359, 362, 364, 369, 370, 371, 372, 3, 4, 145, 146, 6, 187, 239, 41, 63, 330, 55, 221};

// Loads the call's number, then traces it if it is one of `numbers`, and allows it otherwise.
void appendChecks(std::vector<sock_filter>& program, const unsigned* numbers, unsigned count) {
  program.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)));
  for (unsigned i = 0; i < count; ++i) {
    // Matched: jump over the remaining comparisons and the allow, to the trace.
    program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, numbers[i], static_cast<unsigned char>(count - i), 0));
  }
  program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRACE));
}

}  // namespace

bool installTracedCallsFilter() {
  std::vector<sock_filter> program;
  const unsigned count64 = sizeof kTraced / sizeof kTraced[0], count32 = sizeof kTracedI386 / sizeof kTracedI386[0];
  // x86-64 calls to the first list; i386 calls (a 32-bit program, or int 0x80) past it to the
  // second. x32's numbers (bit 30 set) match neither and run untraced.
  program.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)));
  program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AUDIT_ARCH_X86_64, 0, static_cast<unsigned char>(count64 + 3)));
  appendChecks(program, kTraced, count64);
  program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AUDIT_ARCH_I386, 1, 0));
  program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  appendChecks(program, kTracedI386, count32);
  sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
  // Without no-new-privileges an unprivileged process may not install a filter; it also means
  // a setuid program the command runs does not gain its privileges, as under any tracer.
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return false;
  return prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

}  // namespace talvex
