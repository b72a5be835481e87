/* A 32-bit program that crashes on purpose, built with its symbols exported so that a backtrace
 * can name its functions. The first call is a socket call, which starts the agent. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

volatile int sink;

__attribute__((noinline)) void crash_here(void) {
  sink = *(volatile int*)16;
}

__attribute__((noinline)) void crash_level2(void) {
  crash_here();
  sink++;
}

/* Not a tail call: the addition after the call keeps every frame on the stack. */
__attribute__((noinline)) int crash_recurse(int depth) {
  if (depth == 0) {
    crash_here();
    return 0;
  }
  return crash_recurse(depth - 1) + 1;
}

int main(int argc, char** argv) {
  setvbuf(stdout, NULL, _IONBF, 0);
  int s = socket(AF_INET, SOCK_STREAM, 0);
  printf("socket valid=%d\n", s >= 0);
  if (argc >= 3 && strcmp(argv[1], "recurse") == 0) return crash_recurse(atoi(argv[2]));
  crash_level2();
  printf("not reached\n");
  return 1;
}
