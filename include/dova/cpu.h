#ifndef DOVA_CPU_H_
#define DOVA_CPU_H_

namespace dova::cpu {

// Pins the calling thread to one CPU (0-based).
// Throws std::system_error when the CPU does not exist or the kernel refuses.
void setaffinity(int cpu);

}  // namespace dova::cpu

#endif  // DOVA_CPU_H_
