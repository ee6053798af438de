#pragma once
// What the processor is, from /proc/cpuinfo and the scheduler's affinity mask.
#include <string>

namespace ML::OrtBackend {

// "model name" of the first processor, or "CPU" when the system does not say.
std::string cpuModelName();

// Physical cores this process may use (hyper-threads counted once), at least 1.
int physicalCoreCount();

}  // namespace ML::OrtBackend
