/* A program built with AddressSanitizer, as test engineers run them: the sanitizer's runtime starts
 * before anything else and looks functions up through dlsym, the agent's, while it does. */
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include "probe_support.h"

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  int s = socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in a = loopback(atoi(argv[1]));
  report("connect", connect(s, (struct sockaddr*)&a, sizeof a));
  report("send", send(s, "asan", 4, 0));
  char echo[4];
  report("recv", recv(s, echo, sizeof echo, MSG_WAITALL));
  report("close", close(s));
  return 0;
}
