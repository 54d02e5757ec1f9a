#include <stdio.h>
#include <sys/resource.h>

#include "tarnwick/fileutil/fileutil.h"

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  copy_file(argv[1], argv[2]);
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  printf("%ld\n", usage.ru_maxrss);
  return 0;
}
