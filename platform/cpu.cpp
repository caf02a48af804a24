#include "dova/cpu.h"

#include <pthread.h>
#include <sched.h>

#include <string>
#include <system_error>

namespace dova::cpu {

void setaffinity(int cpu) {
  if (cpu < 0 || cpu >= CPU_SETSIZE) {
    throw std::system_error(EINVAL, std::generic_category(),
                            "setaffinity: no CPU " + std::to_string(cpu));
  }
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(static_cast<size_t>(cpu), &set);
  const int error = pthread_setaffinity_np(pthread_self(), sizeof set, &set);
  if (error != 0) {
    throw std::system_error(error, std::generic_category(),
                            "setaffinity: cannot pin to CPU " + std::to_string(cpu));
  }
}

}  // namespace dova::cpu
