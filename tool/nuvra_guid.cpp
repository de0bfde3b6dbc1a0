// nuvra-guid: prints one freshly generated GUID and exits 0.
//
// Arguments, the environment and standard input are never read. Nothing is written to
// standard error, and a failed write to standard output does not change the exit status.

#include <iostream>
#include <string>

#include "nuvra/utils/uuid.h"

int main() {
    const std::string text = nuvra::utils::Uuid().toString();
    std::cout << text << std::endl;
    return 0;
}
