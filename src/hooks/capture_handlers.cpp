#include "hooks/capture_handlers.h"

#include <stdint.h>
#include <stdlib.h>
#include <unistd.h>

#include "base/name_tables.h"
#include "diag/debug_log.h"
#include "hooks/complete_capture_rules.h"
#include "hooks/data_messages.h"
#include "hooks/handler_support.h"
#include "hooks/handlers.h"
#include "hooks/host_vectors.h"
#include "real/capture_real_functions.h"
#include "real/real_functions.h"
#include "registry/socket_registry.h"

namespace {

// The host's vector list as a message header, for the vector reader: a count the C library
// refuses (negative) reads as one beyond every limit, so that no vector is read.
msghdr headerOf(const iovec* vectors, int count) {
  msghdr header = {};
  header.msg_iov = const_cast<iovec*>(vectors);
  header.msg_iovlen = count < 0 ? static_cast<size_t>(-1) : static_cast<size_t>(count);
  return header;
}

void logOutcome(SOCKETINFO* record, const char* name, int cpt, unsigned fd, ssize_t result, int error) {
  if (result == -1) {
    si_disp(record, DMK_WARNING, "[%d]%s (SOCKET ERROR : %d %s : %s):\tsocket : %lx", cpt, name, error,
            getSocketErrorKind(error), getSocketErrorMsg(error), static_cast<unsigned long>(fd));
  } else {
    si_disp(record, DMK_RET, "[%d]%s (OK):\tsocket : %lx\t result = %ld", cpt, name, static_cast<unsigned long>(fd),
            static_cast<long>(result));
  }
}

// The bytes a sendfile moved, read again from the file: from the offset the caller gave, or, when
// it gave none, from just before where the call left the file's position. Held on the heap for
// the message; null when they cannot be read again (the file shrank, or it is not seekable).
class FileBytes {
 public:
  FileBytes(int in, bool haveOffset, int64_t offset, ssize_t moved) : bytes_(nullptr) {
    if (moved <= 0) return;
    if (!haveOffset) {
      const off64_t position = lseek64(in, 0, SEEK_CUR);
      if (position < moved) return;
      offset = position - moved;
    }
    char* bytes = static_cast<char*>(malloc(static_cast<size_t>(moved)));
    if (bytes == nullptr) return;
    size_t got = 0;
    while (got < static_cast<size_t>(moved)) {
      const ssize_t n = pread64(in, bytes + got, static_cast<size_t>(moved) - got, offset + static_cast<off64_t>(got));
      if (n <= 0) break;
      got += static_cast<size_t>(n);
    }
    if (got == static_cast<size_t>(moved)) {
      bytes_ = bytes;
    } else {
      free(bytes);
    }
  }
  ~FileBytes() { free(bytes_); }
  FileBytes(const FileBytes&) = delete;
  FileBytes& operator=(const FileBytes&) = delete;
  const char* bytes() const { return bytes_; }

 private:
  char* bytes_;
};

template <class Offset>
ssize_t sendFile(const char* name, ssize_t (*real)(int, int, Offset*, size_t), int out, int in, Offset* offset,
                 size_t count) {
  const unsigned fd = static_cast<unsigned>(out);
  SOCKETINFO* record = socketForCall(fd);
  if (record == nullptr) return real(out, in, offset, count);
  const CallStart start = startDataCall(record, name, fd);
  Offset before = 0;
  const bool haveOffset = offset != nullptr && copyHostBytes(&before, offset, sizeof before, 0) == sizeof before;
  errno = start.callerErrno;
  const ssize_t result = real(out, in, offset, count);
  const int error = readErrorCode();
  logOutcome(record, name, start.cpt, fd, result, error);
  recordOrSayWhyNot(record, name, start.cpt, fd, error, [&] {
    const FileBytes sent(in, haveOffset, static_cast<int64_t>(before), result);
    if (result > 0 && sent.bytes() == nullptr) {
      si_disp(record, DMK_WARNING, "[%d]%s on %lx: the file's bytes could not be read again", start.cpt, name,
              static_cast<unsigned long>(fd));
    }
    recordSend(start, out, sent.bytes(), count, result, error);
  });
  return result;
}

}  // namespace

ssize_t Mywritev(int fd, const iovec* vectors, int count) {
  const unsigned descriptor = static_cast<unsigned>(fd);
  SOCKETINFO* record = socketForCall(descriptor);
  if (record == nullptr) return True_writev(fd, vectors, count);
  const CallStart start = startDataCall(record, "writev", descriptor);
  const ssize_t result = True_writev(fd, vectors, count);
  const int error = readErrorCode();
  logOutcome(record, "writev", start.cpt, descriptor, result, error);
  recordOrSayWhyNot(record, "writev", start.cpt, descriptor, error, [&] {
    const msghdr header = headerOf(vectors, count);
    const HostVectors list(&header, result);
    recordVectorSend(start, fd, list, result, error);
  });
  return result;
}

ssize_t Myreadv(int fd, const iovec* vectors, int count) {
  const unsigned descriptor = static_cast<unsigned>(fd);
  SOCKETINFO* record = socketForCall(descriptor);
  if (record == nullptr) return True_readv(fd, vectors, count);
  const CallStart start = startDataCall(record, "readv", descriptor);
  const ssize_t result = True_readv(fd, vectors, count);
  const int error = readErrorCode();
  logOutcome(record, "readv", start.cpt, descriptor, result, error);
  recordOrSayWhyNot(record, "readv", start.cpt, descriptor, error, [&] {
    if (receiveIsRecorded(0, error, result)) {
      const msghdr header = headerOf(vectors, count);
      const HostVectors list(&header, result);
      recordVectorReceive(start, fd, list, result, error);
    }
  });
  return result;
}

ssize_t Mysendfile(int out, int in, off_t* offset, size_t count) {
  return sendFile("sendfile", &True_sendfile, out, in, offset, count);
}

ssize_t Mysendfile64(int out, int in, off64_t* offset, size_t count) {
  return sendFile("sendfile64", &True_sendfile64, out, in, offset, count);
}

int Myaccept4(int fd, sockaddr* address, socklen_t* length, int flags) {
  return acceptConnection(fd, address, length, AcceptCall{true, flags});
}

// The fortified receives check the caller's length against its buffer's size and otherwise are
// the plain calls: a length that passes goes to the plain handler, one that does not goes to the
// C library, which ends the program as it would without the agent.
ssize_t My__recv_chk(int fd, void* buffer, size_t length, size_t bufferLength, int flags) {
  if (length > bufferLength) return True_recv_chk(fd, buffer, length, bufferLength, flags);
  return Myrecv(fd, buffer, length, flags);
}

ssize_t My__recvfrom_chk(int fd, void* buffer, size_t length, size_t bufferLength, int flags, sockaddr* address,
                         socklen_t* addressLength) {
  if (length > bufferLength) {
    return True_recvfrom_chk(fd, buffer, length, bufferLength, flags, address, addressLength);
  }
  return Myrecvfrom(fd, buffer, length, flags, address, addressLength);
}

ssize_t My__read_chk(int fd, void* buffer, size_t count, size_t bufferLength) {
  if (count > bufferLength) return True_read_chk(fd, buffer, count, bufferLength);
  return Myread(fd, buffer, count);
}
