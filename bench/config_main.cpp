#include <stdio.h>
#include <sys/resource.h>

#include "tarnwick/config/config.h"

int main() {
  create_map_from_config();
  confirm_model_source(select_model_name(kProvisioningRun), kProvisioningRun);
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  printf("%ld\n", usage.ru_maxrss);
  return 0;
}
