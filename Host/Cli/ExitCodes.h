#pragma once
// Exit codes of the quillon command. Plug-in result codes of a render map onto them.

namespace QCli {

enum ExitCode : int {
    EXIT_OK = 0,
    EXIT_FAILURE_OTHER = 1,  // any other failure (plug-in result 4, unexpected errors)
    EXIT_USAGE = 2,          // bad command line: unknown option or target, bad value or syntax
    EXIT_HOST = 3,           // host-side failure: files, folders, package, plug-in library (result 2)
    EXIT_BACKEND = 4,        // backend internal error (plug-in result 3)
    EXIT_CANCELLED = 130,    // cancelled, by Ctrl-C or by the plug-in (result 1)
};

// The exit code for a result of mlMain other than 0.
int exitCodeForResult(int result);

}  // namespace QCli
