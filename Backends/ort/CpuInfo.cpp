#include "CpuInfo.h"

#include <sched.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <thread>
#include <utility>

namespace ML::OrtBackend {

namespace {

std::string trim(const std::string& text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string::npos) return {};
    const auto last = text.find_last_not_of(" \t\r");
    return text.substr(first, last - first + 1);
}

// Splits "key\t: value" lines; false at the end of the file.
bool nextField(std::istream& in, std::string& key, std::string& value) {
    std::string line;
    if (!std::getline(in, line)) return false;
    const auto colon = line.find(':');
    key = trim(line.substr(0, colon));
    value = colon == std::string::npos ? std::string() : trim(line.substr(colon + 1));
    return true;
}

int usableLogicalCpus() {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof(set), &set) == 0) {
        const int count = CPU_COUNT(&set);
        if (count > 0) return count;
    }
    return std::max(1u, std::thread::hardware_concurrency());
}

}  // namespace

std::string cpuModelName() {
    std::ifstream in("/proc/cpuinfo");
    std::string key, value;
    while (nextField(in, key, value)) {
        // x86 says "model name"; some other architectures only "Hardware" or "cpu model".
        if ((key == "model name" || key == "cpu model" || key == "Hardware") && !value.empty()) return value;
    }
    return "CPU";
}

int physicalCoreCount() {
    std::ifstream in("/proc/cpuinfo");
    std::set<std::pair<std::string, std::string>> cores;
    std::string key, value, package = "0";
    while (nextField(in, key, value)) {
        if (key == "physical id") package = value;
        if (key == "core id") cores.emplace(package, value);
    }
    const int logical = usableLogicalCpus();
    if (cores.empty()) return logical;
    return std::max(1, std::min(static_cast<int>(cores.size()), logical));
}

}  // namespace ML::OrtBackend
