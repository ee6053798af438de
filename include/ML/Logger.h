#pragma once
#include "ML/Reference.h"

namespace ML {

// Receives finished log lines; the severity travels inside the line. Not reference counted.
class Logger {
public:
    virtual i32 getLogLevel() = 0;  // 0 error, 1 warning, 2 info, 3 verbose
    virtual void log(Ptr<StringT<char>> text) = 0;
    virtual ~Logger() = default;
};

}  // namespace ML
