/* A statically linked program that the kernel tracer's tests run to see that tracing changes
 * nothing the program sees: its children's exit status, a signal that interrupts a call, a stop
 * and a continue from job control. Writes its pid to PIDFILE (whole, by a rename) where asked.
 *
 *   traced_host_probe child-status              forks a child that exits 7; prints what waitpid saw
 *   traced_host_probe interrupted-read PORT PIDFILE
 *                                               reads from a connection to PORT, which sends
 *                                               nothing, until SIGUSR1 (no SA_RESTART) interrupts
 *                                               it; prints the read's outcome
 *   traced_host_probe until-file FILE PIDFILE   waits (at most 30 s) until FILE exists; prints "done"
 *   traced_host_probe socket-on-zero PORT       a socket on descriptor 0, as inetd hands one: connects,
 *                                               writes "x", sets its flags with fcntl, closes it
 */
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static void writePid(const char* path) {
  char part[4096];
  snprintf(part, sizeof part, "%s.part", path);
  FILE* f = fopen(part, "w");
  if (f == NULL) exit(3);
  fprintf(f, "%d\n", (int)getpid());
  fclose(f);
  rename(part, path);
}

static void onSignal(int signal) { (void)signal; }

int main(int argc, char** argv) {
  if (argc >= 2 && strcmp(argv[1], "child-status") == 0) {
    const pid_t child = fork();
    if (child == 0) _exit(7);
    int status = 0;
    if (waitpid(child, &status, 0) != child) return 1;
    printf("child %s %d\n", WIFEXITED(status) ? "exited" : "ended", WIFEXITED(status) ? WEXITSTATUS(status) : -1);
    return 0;
  }
  if (argc >= 4 && strcmp(argv[1], "interrupted-read") == 0) {
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = onSignal;  /* no SA_RESTART: the read fails with EINTR */
    sigaction(SIGUSR1, &action, NULL);
    const int s = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in address;
    memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_port = htons((unsigned short)atoi(argv[2]));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(s, (struct sockaddr*)&address, sizeof address) != 0) return 1;
    writePid(argv[3]);
    char buffer[16];
    const ssize_t got = read(s, buffer, sizeof buffer);
    printf("read %zd %s\n", got, got < 0 ? strerror(errno) : "");
    return 0;
  }
  if (argc >= 4 && strcmp(argv[1], "until-file") == 0) {
    writePid(argv[3]);
    for (int i = 0; i < 3000 && access(argv[2], F_OK) != 0; ++i) {
      const struct timespec tenth = {0, 10 * 1000 * 1000};
      nanosleep(&tenth, NULL);
    }
    printf("done\n");
    return 0;
  }
  if (argc >= 3 && strcmp(argv[1], "socket-on-zero") == 0) {
    close(0);
    const int s = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in address;
    memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_port = htons((unsigned short)atoi(argv[2]));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (s != 0 || connect(s, (struct sockaddr*)&address, sizeof address) != 0) return 1;
    if (write(s, "x", 1) != 1) return 1;
    /* F_SETFL returns 0: a result that is no descriptor. */
    if (fcntl(s, F_SETFL, fcntl(s, F_GETFL) | O_NONBLOCK) != 0) return 1;
    close(s);
    return 0;
  }
  fprintf(stderr, "usage: traced_host_probe child-status | interrupted-read PORT PIDFILE | until-file FILE PIDFILE | socket-on-zero PORT\n");
  return 2;
}
