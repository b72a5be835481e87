/* A program that happens to export a variable named like the recorder core's clock. Where the
 * agent finds no recorder core, its lookup of the clock runs in the program's own scope. */
#include <stdio.h>
#include <sys/socket.h>
#include <unistd.h>

int currentTime[4] = {1, 2, 3, 4};

int main(void) {
  int s = socket(AF_INET, SOCK_STREAM, 0);
  printf("socket %s, clock variable %d\n", s >= 0 ? "ok" : "failed", currentTime[3]);
  close(s);
  return 0;
}
