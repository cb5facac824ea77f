// fake_machine COMMAND ARGUMENT...: runs a command with a fake machine in its environment.

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "FakeMachine.h"

int main(int argc, char** argv)
{
    if (argc < 2) return 2;
    const FakeMachine machine;
    const pid_t child = fork();
    if (child == 0) {
        execvp(argv[1], argv + 1);
        std::perror(argv[1]);
        _exit(127);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child) {
        std::perror(argv[1]);
        return 1;
    }
    if (WIFSIGNALED(status)) std::fprintf(stderr, "%s\n", strsignal(WTERMSIG(status)));
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
