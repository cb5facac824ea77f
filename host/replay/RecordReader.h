// Reads records of a run, as `vxa run --record` writes them; docs/record.md has the format.
//
// The file is read in pieces: memory does not grow with it. A last line without its newline is
// ignored, because it is still being written, or was when the run was killed.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Metrics.h"
#include "vxa_core/files.h"

namespace replay {

// A cycle.
struct Row {
    std::uint64_t time_us;  // since the epoch
    int action;             // fc::Action
    bool activated;         // in fail-open after the cycle
    int port;               // 0: none monitored
    std::array<double, fc::kMetricCount> values;
    std::uint32_t known;      // bit 1 << fc::Metric: the value is known; otherwise it is 0
    bool count_failed;        // the errors say that the driver could not count connections
    std::string_view errors;  // as in the file, perhaps quoted; valid until the next call of Next

    bool Knows(std::size_t metric) const { return (known >> metric & 1) != 0; }
    bool IsMeasured() const;  // the cycle sampled the machine and judged it
};

class RecordReader {
public:
    enum class Event {
        kRestart,  // a run starts: its state begins with "Deactivated"
        kHeading,  // Text() describes the run: "version 1.0.0, ..."; IntervalS() is its interval
        kPolicy,   // Text() is the settings in force from now on, in JSON
        kRow,      // CurrentRow() is a cycle
        kEnd
    };

    // Throws FileError if the file cannot be opened.
    explicit RecordReader(const std::string& path);

    // Returns what comes next. Throws std::runtime_error with file, line and what is wrong there,
    // FileError if the file cannot be read.
    Event Next();

    const Row& CurrentRow() const { return m_row; }
    std::string_view Text() const { return m_text; }  // valid until the next call of Next
    double IntervalS() const { return m_intervalS; }
    std::uint64_t Line() const { return m_line; }  // number of the line read last, from 1

    // How much has been read, from 0 to 1.
    double Progress() const;

    // Throws std::runtime_error with file and line in front of the message.
    [[noreturn]] void Fail(const std::string& message) const;

private:
    bool ReadLine();
    bool FillBuffer();
    bool ParseComment(Event* event);
    bool TakeStart(std::string_view start);
    void CheckIsRecord() const;
    void ParseHeading();
    void ParseColumns();
    void ParseRow();
    std::string_view TakeField(const char* column);
    [[noreturn]] void FailField(const char* column, std::string_view field,
                                const char* expected) const;
    void ParseTime();
    void ParseAction();
    void ParseState();
    void ParsePort();
    void ParseValue(std::size_t metric);

    VxaCore::Host::InputFile m_file;
    std::vector<char> m_buffer;
    std::size_t m_begin = 0, m_end = 0;  // what is read and not yet parsed
    std::string_view m_text;             // the line, or what is left of it
    std::uint64_t m_line = 0;
    std::uint64_t m_bytesParsed = 0;
    bool m_hasColumns = false;
    double m_intervalS = 0;
    Row m_row{};
};

}  // namespace replay
