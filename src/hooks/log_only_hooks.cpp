// select, pselect and setsockopt are observed, never recorded as traffic: they are logged, and
// the recorder is told that select and pselect were used.
#include <errno.h>

#include "base/name_tables.h"
#include "diag/debug_log.h"
#include "hooks/handler_support.h"
#include "hooks/handlers.h"
#include "real/dlsym_bootstrap.h"
#include "real/real_functions.h"
#include "transport/agent_interface.h"

namespace {

// Time stamps and a ticket are drawn and dropped: the ticket sequence advances for every
// observed call, recorded or not, so tickets still order all calls.
int beginObservedCall() { return beginCall().cpt; }

// The real function, looked up once more if still unknown; a C library that lacks it answers as a
// system without the call does (-1, ENOSYS), where calling the null pointer would kill the host.
template <class Function, class... Arguments>
int callObserved(Function& pointer, const char* name, Arguments... arguments) {
  if (pointer == nullptr) fillFromNext(pointer, name);
  if (pointer == nullptr) {
    errno = ENOSYS;
    return -1;
  }
  return pointer(arguments...);
}

// Anything but 0 is logged as an error, ready descriptors included: logs compare line for line
// with those of earlier recordings, which read this way.
void logOutcome(const char* name, int cpt, int result, int error) {
  if (result != 0) {
    x_disp(DMK_RET, "[%d]%s (SOCKET ERROR : %d %s : %s):", cpt, name, error, getSocketErrorKind(error),
           getSocketErrorMsg(error));
  } else {
    x_disp(DMK_RET, "[%d]%s (OK): %d", cpt, name, 0);
  }
}

}  // namespace

int Myselect(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, timeval* timeout) {
  const int cpt = beginObservedCall();
  x_disp(DMK_CALL, "[%d]select(%s=>%d,%s=>%p,%s=>%p,%s=>%p,%s=>%p)", cpt, "nfds", nfds, "readfds",
         static_cast<void*>(readfds), "writefds", static_cast<void*>(writefds), "exceptfds",
         static_cast<void*>(exceptfds), "timeout", static_cast<void*>(timeout));
  x_disp(DMK_INFO, "<NOT_RECORDED_HOOK> %s", "select");
  const int result = callObserved(select_ptr, "select", nfds, readfds, writefds, exceptfds, timeout);
  const int error = readErrorCode();
  logOutcome("select", cpt, result, error);
  sendNotHookedInfo("select");
  restoreErrorCode(error);
  return result;
}

int Mypselect(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, const timespec* timeout,
              const sigset_t* sigmask) {
  const int cpt = beginObservedCall();
  x_disp(DMK_CALL, "[%d]pselect(%s=>%d,%s=>%p,%s=>%p,%s=>%p,%s=>%p,%s=>%p)", cpt, "nfds", nfds, "readfds",
         static_cast<void*>(readfds), "writefds", static_cast<void*>(writefds), "exceptfds",
         static_cast<void*>(exceptfds), "timeout", static_cast<const void*>(timeout), "sigmask",
         static_cast<const void*>(sigmask));
  x_disp(DMK_INFO, "<NOT_RECORDED_HOOK> %s", "pselect");
  const int result = callObserved(pselect_ptr, "pselect", nfds, readfds, writefds, exceptfds, timeout, sigmask);
  const int error = readErrorCode();
  logOutcome("pselect", cpt, result, error);
  sendNotHookedInfo("pselect");
  restoreErrorCode(error);
  return result;
}

int Mysetsockopt(int fd, int level, int optname, const void* optval, socklen_t optlen) {
  const int cpt = beginObservedCall();
  // The descriptor in hexadecimal and "0x%p" (the prefix twice) are how these lines always read.
  x_disp(DMK_CALL, "[%d]setsockopt(%s=>%x ,%s=>%d ,%s=>%d ,%s=>0x%p ,%s=>%d)", cpt, "__fd",
         static_cast<unsigned>(fd), "__level", level, "__optname", optname, "__optval", optval, "__optlen",
         static_cast<int>(optlen));
  x_disp(DMK_INFO, "<NOT_RECORDED_HOOK> %s", "setsockopt");
  const int result = callObserved(setsockopt_ptr, "setsockopt", fd, level, optname, optval, optlen);
  const int error = readErrorCode();
  logOutcome("setsockopt", cpt, result, error);
  restoreErrorCode(error);
  return result;
}
