#include "media/MediaTestUtil.h"

#include <csignal>
#include <fstream>

#include <sys/resource.h>

namespace QMediaTest {

void writeText(const fs::path& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary);
    out << text;
}

FileSizeLimit::FileSizeLimit(long bytes) {
    std::signal(SIGXFSZ, SIG_IGN);  // a write past the limit fails instead of killing us
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    previous_ = static_cast<long long>(limit.rlim_cur);
    limit.rlim_cur = static_cast<rlim_t>(bytes);
    setrlimit(RLIMIT_FSIZE, &limit);
}

FileSizeLimit::~FileSizeLimit() {
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = static_cast<rlim_t>(previous_);
    setrlimit(RLIMIT_FSIZE, &limit);
}

}  // namespace QMediaTest
