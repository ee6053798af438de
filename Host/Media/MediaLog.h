#pragma once
// How much the media libraries (FFmpeg) may print on their own: nothing at verbosity 0 (their
// failures reach the caller as exceptions), errors at 1, warnings too at 2 and above.
namespace QMedia {

void setLogVerbosity(int verbosity);

}  // namespace QMedia
