#include "Host/Cli/ExitCodes.h"

namespace QCli {

int exitCodeForResult(int result) {
    switch (result) {
        case 0: return EXIT_OK;
        case 1: return EXIT_CANCELLED;
        case 2: return EXIT_HOST;
        case 3: return EXIT_BACKEND;
        default: return EXIT_FAILURE_OTHER;
    }
}

}  // namespace QCli
