// Runs libnftables (libnftables(3)) in a child process and reads its listing from a pipe.
#include "engines/linux/tables/RulesetJson.h"

#include <fcntl.h>
#include <nftables/libnftables.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include "api/BoundedText.h"
#include "api/Error.h"

namespace vxi {

namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned kListingWaitS = 20;
constexpr std::size_t kListingSizeMax = std::size_t{1} << 30;

// The last byte that the child writes: before it is the listing, or the reason why there is none.
// Neither contains these bytes.
constexpr char kListed = '\0';
constexpr char kRefused = '\1';

// The child's end of the pipe: the first descriptor after the standard streams.
constexpr int kOutput = 3;

// ---- in the child ---------------------------------------------------------------

// Drops what belongs to the parent: its signal handlers, standard streams and open files (among
// them the writing end of another thread's pipe). No core of its memory may be written either.
void LeaveParentBehind(int output)
{
    struct sigaction standard = {};
    standard.sa_handler = SIG_DFL;
    for (int number : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGPIPE, SIGTERM, SIGALRM}) {
        sigaction(number, &standard, nullptr);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    prctl(PR_SET_DUMPABLE, 0);
    dup2(output, kOutput);
    const int nothing = open("/dev/null", O_RDWR);
    for (int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        dup2(nothing, stream);
    }
    close_range(kOutput + 1, ~0U, 0);
    alarm(kListingWaitS);
}

void WriteAll(const char* bytes, std::size_t size)
{
    while (size > 0) {
        const ssize_t written = write(kOutput, bytes, size);
        if (written < 0 && errno != EINTR) {
            _exit(1);
        }
        const std::size_t done = written > 0 ? static_cast<std::size_t>(written) : 0;
        bytes += done;
        size -= done;
    }
}

[[noreturn]] void ListRules(int output)
{
    LeaveParentBehind(output);
    nft_ctx* context = nft_ctx_new(NFT_CTX_DEFAULT);
    if (!context || nft_ctx_buffer_output(context) != 0 || nft_ctx_buffer_error(context) != 0) {
        _exit(1);
    }
    nft_ctx_output_set_flags(context, NFT_CTX_OUTPUT_JSON);
    const bool listed = nft_run_cmd_from_buffer(context, "list ruleset") == 0;
    const char* result =
        listed ? nft_ctx_get_output_buffer(context) : nft_ctx_get_error_buffer(context);
    WriteAll(result, strlen(result));
    WriteAll(listed ? &kListed : &kRefused, 1);
    _exit(0);
}

// ---- in the parent --------------------------------------------------------------

int MillisecondsUntil(Clock::time_point deadline)
{
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

[[noreturn]] void ThrowListing(int status)
{
    ThrowError(status, "listing the rules: %s", DescribeStatus(status).c_str());
}

// Everything until the child closes its end of the pipe.
std::string ReadAll(int input)
{
    constexpr std::size_t kChunk = std::size_t{64} * 1024;
    const auto deadline = Clock::now() + std::chrono::seconds(kListingWaitS);
    std::string output;
    while (output.size() < kListingSizeMax) {
        pollfd readable = {input, POLLIN, 0};
        const int ready = poll(&readable, 1, MillisecondsUntil(deadline));
        if (ready == 0) {
            ThrowListing(-ETIMEDOUT);
        }
        const std::size_t used = output.size();
        output.resize(used + kChunk);
        const ssize_t got = ready > 0 ? read(input, &output[used], kChunk) : -1;
        if (got < 0 && errno != EINTR && errno != EAGAIN) {
            ThrowListing(-errno);
        }
        output.resize(used + (got > 0 ? static_cast<std::size_t>(got) : 0));
        if (got == 0) {
            return output;
        }
    }
    ThrowListing(-EFBIG);
}

// The child's wait status; 0 if the host reaps all its children and has reaped it. Then only
// the last byte of the output shows whether it finished.
int Reap(pid_t child)
{
    int status = 0;
    pid_t reaped;
    do {
        reaped = waitpid(child, &status, 0);
    } while (reaped < 0 && errno == EINTR);
    return reaped == child ? status : 0;
}

[[noreturn]] void ThrowEndedEarly(int wait_status)
{
    if (WIFSIGNALED(wait_status)) {
        ThrowError(-EIO, "libnftables cannot list the rules: it ended with signal %d%s",
                   WTERMSIG(wait_status),
                   WTERMSIG(wait_status) == SIGABRT ? " (a name that is not UTF-8?)" : "");
    }
    throw Error(-EIO, "libnftables cannot list the rules: it ended early");
}

// The listing in the child's output, or an Error for what else it ends with.
std::string Listing(std::string output, int wait_status)
{
    const char last = output.empty() ? '\n' : output.back();
    if (last != kListed && last != kRefused) {
        ThrowEndedEarly(wait_status);
    }
    output.pop_back();
    while (!output.empty() && output.back() == '\n') {
        output.pop_back();
    }
    if (last == kRefused) {
        char reason[160];
        BoundedText(reason).Escaped(output);
        ThrowError(-EIO, "libnftables cannot list the rules: %s", reason);
    }
    return output;
}

// Reads the child's output, then waits for its end; on failure kills it first.
std::string Collect(int input, pid_t child)
{
    std::string output;
    try {
        output = ReadAll(input);
    } catch (...) {
        kill(child, SIGKILL);
        Reap(child);
        throw;
    }
    return Listing(std::move(output), Reap(child));
}

// A pipe whose ends are closed at the end of their scope.
struct Pipe {
    Pipe()
    {
        if (pipe2(ends, O_CLOEXEC) < 0) {
            ThrowListing(-errno);
        }
    }
    ~Pipe()
    {
        close(ends[0]);
        CloseOutput();
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    void CloseOutput()
    {
        if (ends[1] >= 0) {
            close(ends[1]);
            ends[1] = -1;
        }
    }

    int ends[2];
};

}  // namespace

std::string RulesetJson()
{
    Pipe pipe;
    const pid_t child = fork();
    if (child == 0) {
        ListRules(pipe.ends[1]);
    }
    if (child < 0) {
        ThrowListing(-errno);
    }
    pipe.CloseOutput();
    return Collect(pipe.ends[0], child);
}

}  // namespace vxi
