#include <iostream>
#include <string>
#include <vector>

#include "app/HelperApplication.h"

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    return velmora::runHelperApplication(args, std::cout, std::cerr);
}
