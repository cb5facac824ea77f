#include "log/LogSink.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <deque>
#include <iterator>
#include <mutex>
#include <utility>

#include "files/File.h"
#include "files/Text.h"

namespace VxaCore {

namespace {

constexpr std::size_t kCaptureLimit = 10000;

struct Sink {
    std::mutex mutex;
    std::string path;
    int fd = -1;
    bool torn = false;  // the file's last line has no end: the next record begins a new one
    bool capture = false;
    std::deque<Host::LogRecord> captured;
    std::uint64_t dropped = 0;
};

// Never destroyed: libraries log from static destructors too.
Sink& GlobalSink()
{
    static Sink& instance = *new Sink;
    return instance;
}

void WriteToStandardError(const std::string& text)
{
    // Nowhere is left to report a failure to.
    (void)WriteFully(STDERR_FILENO, text);
}

// With the sink's lock. A record cut short by a full disk stays as it is: taking back
// bytes from a file that others append to as well could take theirs.
void WriteToFile(Sink& to, const Host::LogRecord& record)
{
    const std::string line = (to.torn ? "\n" : "") + JsonLine(record);
    ssize_t written;
    do written = ::write(to.fd, line.data(), line.size());
    while (written < 0 && errno == EINTR);
    if (written == static_cast<ssize_t>(line.size())) {
        to.torn = false;
        return;
    }
    const std::string reason = written < 0 ? ErrorText(errno) : "only part of it was taken";
    to.torn = to.torn || written > 0;
    WriteToStandardError("not in log file " + to.path + " (" + reason +
                         "): " + ReadableLine(record));
}

void Capture(Sink& to, Host::LogRecord&& record)
{
    if (to.captured.size() == kCaptureLimit) {
        to.captured.pop_front();
        ++to.dropped;
    }
    to.captured.push_back(std::move(record));
}

bool EndsInsideALine(int fd)
{
    struct stat status;
    char last = '\n';
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode) || status.st_size == 0) return false;
    return pread(fd, &last, 1, status.st_size - 1) == 1 && last != '\n';
}

std::string ClockText(double time_s)
{
    const auto seconds = static_cast<time_t>(time_s);
    const auto milliseconds = static_cast<int>((time_s - static_cast<double>(seconds)) * 1e3);
    tm local;
    char text[32];
    localtime_r(&seconds, &local);
    const std::size_t length = strftime(text, sizeof text, "%H:%M:%S", &local);
    std::snprintf(text + length, sizeof text - length, ".%03d ", milliseconds);
    return text;
}

}  // namespace

void ReportLostRecord(const char* reason) noexcept
{
    char text[128];
    const int length = std::snprintf(text, sizeof text, "log record lost: %.80s\n", reason);
    (void)WriteFully(STDERR_FILENO, {text, static_cast<std::size_t>(length)});
}

std::string JsonLine(const Host::LogRecord& record)
{
    std::string line = "{\"time\":";
    const auto text = [&](const char* name, const std::string& value) {
        line.append(",\"").append(name).append("\":");
        AppendJsonString(line, value);
    };
    AppendTime(line, record.time_s);
    text("kind", record.trace ? "trace" : "log");
    text(record.trace ? "category" : "level", record.label);
    if (record.trace) {
        text("file", record.file);
        line += ",\"line\":" + std::to_string(record.line);
        text("function", record.function);
    }
    text("message", record.message);
    return line += "}\n";
}

std::string ReadableLine(const Host::LogRecord& record)
{
    std::string line = ClockText(record.time_s);
    if (record.trace) {
        AppendReadable(line, record.label + " " + record.file + ":" + std::to_string(record.line) +
                                 " " + record.function + ": ");
    } else {
        line += record.label + ": ";
    }
    AppendReadable(line, record.message);
    return line += "\n";
}

void WriteRecord(Host::LogRecord record)
{
    Sink& to = GlobalSink();
    const std::lock_guard<std::mutex> lock(to.mutex);
    if (to.fd >= 0) WriteToFile(to, record);
    if (to.capture)
        Capture(to, std::move(record));
    else if (to.fd < 0)
        WriteToStandardError(ReadableLine(record));
}

namespace Host {

bool LogTo(const std::string& path, std::string& error)
{
    int fd = -1;
    if (!path.empty()) {
        // A pipe that nobody reads loses records, to standard error, but holds up nobody.
        constexpr int kFlags = O_APPEND | O_CREAT | O_NONBLOCK | O_CLOEXEC | O_NOCTTY;
        // Readable as well, to see how the last line ends; a pipe or terminal may not be.
        fd = open(path.c_str(), O_RDWR | kFlags, 0640);
        if (fd < 0) fd = open(path.c_str(), O_WRONLY | kFlags, 0640);
        if (fd < 0) {
            error = "cannot write log file " + path + ": " + ErrorText(errno);
            return false;
        }
    }
    Sink& to = GlobalSink();
    const std::lock_guard<std::mutex> lock(to.mutex);
    if (to.fd >= 0) close(to.fd);
    to.fd = fd;
    to.path = path;
    to.torn = fd >= 0 && EndsInsideALine(fd);
    return true;
}

void CaptureLog(bool on)
{
    Sink& to = GlobalSink();
    const std::lock_guard<std::mutex> lock(to.mutex);
    to.capture = on;
}

std::vector<LogRecord> TakeCaptured(std::uint64_t& dropped)
{
    Sink& to = GlobalSink();
    const std::lock_guard<std::mutex> lock(to.mutex);
    std::vector<LogRecord> taken(std::make_move_iterator(to.captured.begin()),
                                 std::make_move_iterator(to.captured.end()));
    to.captured.clear();
    dropped = std::exchange(to.dropped, 0);
    return taken;
}

}  // namespace Host

}  // namespace VxaCore
