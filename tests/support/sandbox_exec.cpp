// sandbox_exec COMMAND ARGUMENT...: runs a command in the sandbox. Exit status 77, which
// the test driver takes for "skipped", where this machine lacks what that needs.

#include <unistd.h>

#include <cstdio>

#include "Sandbox.h"

int main(int argc, char** argv)
{
    if (argc < 2) return 2;
    if (const std::string& lacking = sandbox::Enter(); !lacking.empty()) {
        std::printf("skipped: %s\n", lacking.c_str());
        return 77;
    }
    execvp(argv[1], argv + 1);
    std::perror(argv[1]);
    return 127;
}
