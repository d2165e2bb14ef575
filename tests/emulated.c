/* Runs PROGRAM, which is for 32-bit ARM, in qemu-arm with the libraries of ROOT. It passes on the name under which it
   was called itself, which a shell script could not: the service prints that name, and death tests execute it again. */
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

int main(int argc, char** argv) {
  char* head[] = {"qemu-arm", "-L", ROOT, "-0", argv[0], PROGRAM};
  const int head_count = sizeof head / sizeof *head;
  char** all = calloc((size_t)(head_count + argc), sizeof *all);
  if (all == NULL) {
    return 127;
  }
  for (int i = 0; i < head_count; ++i) {
    all[i] = head[i];
  }
  for (int i = 1; i < argc; ++i) {
    all[head_count + i - 1] = argv[i];
  }
  execvp(all[0], all);
  perror(all[0]);
  return 127;
}
