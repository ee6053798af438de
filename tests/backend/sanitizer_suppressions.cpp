// Suppressions the sanitizers read from the test executable. ONNX Runtime is not instrumented.
//  - ThreadSanitizer: its thread pool hands work over with atomics the sanitizer cannot see, so
//    the memcpy calls it makes from its own threads look like races. Races with a frame of ONNX
//    Runtime on the stack are dropped; everything of ours stays checked.
//  - LeakSanitizer: it leaks a few bytes once per process when its first environment is made.
extern "C" const char* __tsan_default_suppressions() { return "race:libonnxruntime.so.1\n"; }
extern "C" const char* __lsan_default_suppressions() { return "leak:libonnxruntime.so.1\n"; }
