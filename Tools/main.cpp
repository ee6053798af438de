// quillon-pkg: writes model packages (configuration files and helper networks).
#include <iostream>

#include "Cli.h"

int main(int argc, char** argv) {
    return qpkg::runCli(std::vector<std::string>(argv + 1, argv + argc), std::cout, std::cerr);
}
