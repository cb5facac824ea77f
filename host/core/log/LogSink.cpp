// Where the records of both logs go.
#include "log/LogSink.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <mutex>
#include <string_view>
#include <utility>

#include <wx/log.h>

#include "files/File.h"
#include "text/Json.h"
#include "text/Printable.h"
#include "text/Utf8.h"

namespace VxaCore {

namespace {

constexpr std::size_t kMostCaptured = 10000;

struct Sink {
    std::mutex mutex;
    std::string path;
    FileDescriptor file;
    bool ends_inside_line = false;  // the next record begins a new one
    bool is_capturing = false;
    Host::CapturedRecords captured;
};

// Never destroyed: static destructors of other libraries log, too.
Sink& GlobalSink()
{
    static Sink& instance = *new Sink;
    return instance;
}

// There is nowhere to report a failure.
void WriteToStandardError(std::string_view text) noexcept
{
    ssize_t written = 0;
    while (!text.empty() && (written >= 0 || errno == EINTR)) {
        written = write(STDERR_FILENO, text.data(), text.size());
        if (written > 0) text.remove_prefix(static_cast<std::size_t>(written));
    }
}

// With the mutex held. A record cut short by a full disk stays: truncating a file that others
// append to could remove their records.
void WriteToFile(Sink& sink, const Host::LogRecord& record)
{
    const std::string line = (sink.ends_inside_line ? "\n" : "") + JsonLine(record);
    ssize_t written;
    do written = write(sink.file.Get(), line.data(), line.size());
    while (written < 0 && errno == EINTR);
    if (written == static_cast<ssize_t>(line.size())) {
        sink.ends_inside_line = false;
        return;
    }
    const std::string reason = written < 0 ? ErrorText(errno) : "only part of it was written";
    sink.ends_inside_line = sink.ends_inside_line || written > 0;
    WriteToStandardError("not in log file " + sink.path + " (" + reason +
                         "): " + ReadableLine(record));
}

void Capture(Host::CapturedRecords& captured, Host::LogRecord&& record)
{
    if (captured.records.size() == kMostCaptured) {
        captured.records.pop_front();
        ++captured.dropped;
    }
    captured.records.push_back(std::move(record));
}

bool EndsInsideLine(int fd)
{
    struct stat status;
    char last = '\n';
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode) || status.st_size == 0) return false;
    return pread(fd, &last, 1, status.st_size - 1) == 1 && last != '\n';
}

// O_NONBLOCK: a full pipe makes records go to standard error instead of blocking. Readable too,
// to find out how the last line ends; a pipe or terminal may not be.
FileDescriptor OpenLogFile(const std::string& path)
{
    constexpr int kFlags = O_APPEND | O_CREAT | O_NONBLOCK | O_CLOEXEC | O_NOCTTY;
    FileDescriptor file(open(path.c_str(), O_RDWR | kFlags, 0640));
    if (!file) file = FileDescriptor(open(path.c_str(), O_WRONLY | kFlags, 0640));
    if (!file) ThrowErrno("cannot write log file " + path);
    return file;
}

std::string FormatClock(double time_s)
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
    WriteToStandardError({text, static_cast<std::size_t>(length)});
}

void LogError(const char* label, const char* message)
{
    wxLogError("%s: %s", label, FromUtf8(message));
}

std::string JsonLine(const Host::LogRecord& record)
{
    std::string line = "{\"time\":";
    const auto text = [&](const char* name, const std::string& value) {
        line.append(",\"").append(name).append("\":");
        AppendJsonString(line, value);
    };
    AppendJsonTime(line, record.time_s);
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
    std::string line = FormatClock(record.time_s);
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
    Sink& sink = GlobalSink();
    const std::lock_guard<std::mutex> lock(sink.mutex);
    if (sink.file) WriteToFile(sink, record);
    if (sink.is_capturing)
        Capture(sink.captured, std::move(record));
    else if (!sink.file)
        WriteToStandardError(ReadableLine(record));
}

namespace Host {

void LogTo(const std::string& path)
{
    FileDescriptor file = path.empty() ? FileDescriptor() : OpenLogFile(path);
    Sink& sink = GlobalSink();
    const std::lock_guard<std::mutex> lock(sink.mutex);
    sink.path = path;
    sink.file = std::move(file);
    sink.ends_inside_line = sink.file && EndsInsideLine(sink.file.Get());
}

void CaptureLog(bool on)
{
    Sink& sink = GlobalSink();
    const std::lock_guard<std::mutex> lock(sink.mutex);
    sink.is_capturing = on;
}

CapturedRecords TakeCaptured()
{
    Sink& sink = GlobalSink();
    const std::lock_guard<std::mutex> lock(sink.mutex);
    return std::exchange(sink.captured, {});
}

}  // namespace Host

}  // namespace VxaCore
