/* Opens the library that its argument names, as the first and only thing that it does, and prints
   the milliseconds and the KiB of memory of its own that this took. */
#include <dlfcn.h>
#include <stdio.h>
#include <time.h>

static double milliseconds(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (double)now.tv_sec * 1e3 + (double)now.tv_nsec / 1e6;
}

static long private_dirty(void) {
  char line[256];
  long kib = -1;
  FILE* file = fopen("/proc/self/smaps_rollup", "r");
  if (file == NULL) return -1;
  while (kib < 0 && fgets(line, sizeof line, file) != NULL)
    sscanf(line, "Private_Dirty: %ld", &kib);
  fclose(file);
  return kib;
}

int main(int argc, char** argv) {
  long before, after;
  double start, end;
  if (argc != 2) return 2;
  before = private_dirty();
  start = milliseconds();
  if (dlopen(argv[1], RTLD_NOW) == NULL) {
    fprintf(stderr, "%s\n", dlerror());
    return 1;
  }
  end = milliseconds();
  after = private_dirty();
  if (before < 0 || after < 0) return 1;
  printf("%f %ld\n", end - start, after - before);
  return 0;
}
