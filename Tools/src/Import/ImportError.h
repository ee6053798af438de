#pragma once
// The one error of the importer: every failure to read or convert a network ends in it, with a
// message that names the file, the node or the weight at fault.
#include <stdexcept>
#include <string>

namespace qpkg::tfjs {

struct ImportError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

}  // namespace qpkg::tfjs
