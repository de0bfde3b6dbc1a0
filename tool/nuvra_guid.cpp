// nuvra-guid: prints one freshly generated GUID and exits 0.
//
// Arguments, the environment and standard input are never read. Nothing is written to
// standard error, and a failed write to standard output (closed, full, or a pipe without a
// reader) does not change the exit status.

#include <csignal>
#include <iostream>
#include <string>

#include "nuvra/utils/random_source.h"
#include "nuvra/utils/uuid.h"

int main() {
    // A reader that has gone away makes the write fail like any other output failure, which
    // leaves the exit status alone; with SIGPIPE at its default it would end the process.
    // It cannot fail for SIGPIPE.
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    // Prepared for its side effect alone: without the random device it seeds rand() for
    // this thread. The printed value does not depend on it.
    const nuvra::utils::RandomSource randomSource;
    const std::string text = nuvra::utils::Uuid().toString();
    std::cout << text << std::endl;
    return 0;
}
