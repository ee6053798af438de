#include "Host/Cli/Commands.h"

int main(int argc, char** argv) { return QCli::runMain(argc, argv); }
