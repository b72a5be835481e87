/* A program built with a sanitizer, as test engineers run them: the sanitizer's runtime starts
 * before anything else and looks functions up through dlsym, the agent's, while it does; its
 * interceptors (getaddrinfo, connect, send, ...) stand between the program and the agent. */
#include <netdb.h>
#include <stdio.h>
#include <string.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include "probe_support.h"

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  struct addrinfo hints;
  memset(&hints, 0, sizeof hints);
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  struct addrinfo* found = NULL;
  report("getaddrinfo", getaddrinfo("127.0.0.1", NULL, &hints, &found));
  if (found != NULL) freeaddrinfo(found);
  int s = socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in a = loopback(atoi(argv[1]));
  report("connect", connect(s, (struct sockaddr*)&a, sizeof a));
  report("send", send(s, "asan", 4, 0));
  char echo[4];
  report("recv", recv(s, echo, sizeof echo, MSG_WAITALL));
  report("close", close(s));
  return 0;
}
