/* Runs a command and writes its wall time, CPU time (user + sys, its reaped
 * children included) and peak RSS to a file:
 *   zrx-bench-rusage OUT COMMAND [ARG...]
 * OUT gets one line "wall_s cpu_s maxrss_kib exit_code". The measuring
 * process is small, so the RSS that a child shows before its exec is not
 * that of the benchmark driver. */
#include <stdio.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static double seconds(struct timeval t) { return t.tv_sec + t.tv_usec / 1e6; }

int main(int argc, char** argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: zrx-bench-rusage OUT COMMAND [ARG...]\n");
    return 2;
  }
  struct timespec start, end;
  clock_gettime(CLOCK_MONOTONIC, &start);
  const pid_t child = fork();
  if (child < 0) return 2;
  if (child == 0) {
    execvp(argv[2], argv + 2);
    _exit(127);
  }
  int status = 0;
  struct rusage usage;
  if (wait4(child, &status, 0, &usage) != child) return 2;
  clock_gettime(CLOCK_MONOTONIC, &end);
  FILE* out = fopen(argv[1], "w");
  if (out == NULL) return 2;
  const double wall =
      (end.tv_sec - start.tv_sec) + (end.tv_nsec - start.tv_nsec) / 1e9;
  const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128;
  fprintf(out, "%.6f %.6f %ld %d\n", wall,
          seconds(usage.ru_utime) + seconds(usage.ru_stime), usage.ru_maxrss,
          code);
  return fclose(out) == 0 ? 0 : 2;
}
