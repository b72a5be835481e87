// The private directory that holds talvex-record's local socket: a name no other user can guess
// (mkdtemp, in $TMPDIR or /tmp), removed when the run ends. Every process of the command reaches
// the socket through the file system, whatever network namespace it runs in.
#pragma once

#include <string>

namespace talvex {

class SocketDirectory {
 public:
  SocketDirectory() = default;
  // Removes the directory, once the endpoint has removed its socket.
  ~SocketDirectory();
  SocketDirectory(const SocketDirectory&) = delete;
  SocketDirectory& operator=(const SocketDirectory&) = delete;

  bool create();
  // Where the endpoint is to listen.
  std::string socketPath() const { return directory_ + "/recorder.sock"; }
  // Lets the command's processes connect whichever user they run as (sudo -u, a service's own
  // user): the directory can be passed through but not listed, the socket written by anyone
  // who knows its name.
  void openToEveryUser() const;

 private:
  std::string directory_;
};

}  // namespace talvex
