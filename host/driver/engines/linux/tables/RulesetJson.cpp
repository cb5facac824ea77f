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

#include "api/Message.h"

namespace vxi {

namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned kListingWaitS = 20;
constexpr std::size_t kListingSizeMax = std::size_t{1} << 30;

// The last byte that the child writes: what stands before is the listing, or why there is
// none. Neither can hold these bytes.
constexpr char kListed = '\0';
constexpr char kRefused = '\1';

// ---- in the child ---------------------------------------------------------------

// Nothing of the parent's is to be touched: its handlers, standard streams, open files (the
// writing end of another thread's pipe among them), and no core of it is to be written.
void LeaveParentBehind(int output)
{
    constexpr int kEpt = 3;
    struct sigaction standard = {};
    standard.sa_handler = SIG_DFL;
    for (int number : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGPIPE, SIGTERM, SIGALRM}) {
        sigaction(number, &standard, nullptr);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    prctl(PR_SET_DUMPABLE, 0);
    dup2(output, kEpt);
    const int nothing = open("/dev/null", O_RDWR);
    for (int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        dup2(nothing, stream);
    }
    close_range(kEpt + 1, ~0U, 0);
    alarm(kListingWaitS);
}

void WriteAll(const char* text, std::size_t size)
{
    constexpr int kOutput = 3;
    while (size > 0) {
        const ssize_t written = write(kOutput, text, size);
        if (written < 0 && errno != EINTR) {
            _exit(1);
        }
        const std::size_t done = written > 0 ? static_cast<std::size_t>(written) : 0;
        text += done;
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
    const bool good = nft_run_cmd_from_buffer(context, "list ruleset") == 0;
    const char* text =
        good ? nft_ctx_get_output_buffer(context) : nft_ctx_get_error_buffer(context);
    WriteAll(text, strlen(text));
    WriteAll(good ? &kListed : &kRefused, 1);
    _exit(0);
}

// ---- in the parent --------------------------------------------------------------

int WaitMs(Clock::time_point deadline)
{
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

// Until the child closes its end; 0 or a negated errno.
int read_all(int input, std::string& text)
{
    constexpr std::size_t kChunk = 64 * 1024;
    const auto deadline = Clock::now() + std::chrono::seconds(kListingWaitS);
    while (text.size() < kListingSizeMax) {
        pollfd readable = {input, POLLIN, 0};
        const int ready = poll(&readable, 1, WaitMs(deadline));
        if (ready == 0) {
            return -ETIMEDOUT;
        }
        const std::size_t used = text.size();
        text.resize(used + kChunk);
        const ssize_t got = ready > 0 ? read(input, &text[used], kChunk) : -1;
        text.resize(used + (got > 0 ? static_cast<std::size_t>(got) : 0));
        if (got == 0) {
            return 0;
        }
        if (got < 0 && errno != EINTR && errno != EAGAIN) {
            return -errno;
        }
    }
    return -EFBIG;
}

// How the child ended. A host that reaps all its children may have been faster: then the
// last byte alone tells whether it came to its end.
int Reap(pid_t child)
{
    int status = 0;
    pid_t reaped;
    do {
        reaped = waitpid(child, &status, 0);
    } while (reaped < 0 && errno == EINTR);
    return reaped == child ? status : 0;
}

Outcome ended_early(int wait_status)
{
    if (WIFSIGNALED(wait_status)) {
        return Failure(-EIO, "libnftables cannot list the rules: it ended with signal %d%s",
                       WTERMSIG(wait_status),
                       WTERMSIG(wait_status) == SIGABRT ? " (a name that is no UTF-8?)" : "");
    }
    return Failure(-EIO, "libnftables cannot list the rules: it ended early");
}

Outcome Judge(int read_status, int wait_status, std::string& text)
{
    if (read_status < 0) {
        return Failure(read_status, "listing the rules: %s", DescribeStatus(read_status).c_str());
    }
    const char last = text.empty() ? '\n' : text.back();
    if (last != kListed && last != kRefused) {
        return ended_early(wait_status);
    }
    text.pop_back();
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    if (last == kListed) {
        return {};
    }
    char reason[160];
    BoundedText(reason).Escaped(text);
    return Failure(-EIO, "libnftables cannot list the rules: %s", reason);
}

// Takes its text from the child while it writes.
Outcome Collect(int input, pid_t child, std::string& text)
{
    int read_status = -ENOMEM;
    try {
        read_status = read_all(input, text);
    } catch (const std::exception&) {
        // The child is to be ended and reaped in any case.
    }
    if (read_status < 0) {
        kill(child, SIGKILL);
    }
    const int wait_status = Reap(child);
    return Judge(read_status, wait_status, text);
}

}  // namespace

Outcome RulesetJson(std::string& json)
{
    json.clear();
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) < 0) {
        return Failure(-errno, "listing the rules: %s", DescribeStatus(-errno).c_str());
    }
    const pid_t child = fork();
    if (child == 0) {
        ListRules(ends[1]);
    }
    const int status = -errno;
    close(ends[1]);
    const Outcome outcome =
        child > 0 ? Collect(ends[0], child, json)
                  : Failure(status, "listing the rules: %s", DescribeStatus(status).c_str());
    close(ends[0]);
    return outcome;
}

}  // namespace vxi
