#include <iostream>

#include "cli/Cli.h"

int main(int argc, char** argv) {
    std::ios::sync_with_stdio(false);
    std::vector<std::string> args(argv + 1, argv + argc);
    return osv::cli::run(args, std::cin, std::cout, std::cerr);
}
