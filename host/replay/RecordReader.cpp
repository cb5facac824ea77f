// Reads records of a run.
#include "RecordReader.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <stdexcept>

#include "SystemHealth/FailOpen.h"

namespace replay {

namespace {

// Far beyond any row; the errors of a cycle are a few hundred bytes.
constexpr std::size_t kMostLineBytes = 262144;
constexpr double kLongestIntervalS = 1e9;  // keeps times in microseconds in range
constexpr std::string_view kRestart = "# vxa record ";
constexpr char kColumns[] =
    "time,action,state,port,rqpct,refusalpct,estab,scanmb,frepct,delta_t,errors";

// At most `most_bytes` of a string from the file, for a message.
std::string Quoted(std::string_view text)
{
    constexpr std::size_t kMostBytes = 40;
    const bool is_long = text.size() > kMostBytes;
    return '\'' + std::string(text.substr(0, kMostBytes)) + (is_long ? "..." : "") + '\'';
}

template <typename Number>
bool Parse(std::string_view text, Number* number)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *number);
    return error == std::errc() && end == text.data() + text.size();
}

bool IsAction(int number)
{
    constexpr int kActions[] = {fc::kActionNormal, fc::kActionFailOpen, fc::kActionDisabled,
                                fc::kActionNoLoad, fc::kActionBadCall,  fc::kActionNoMemory};
    return std::find(std::begin(kActions), std::end(kActions), number) != std::end(kActions);
}

// ---- times -----------------------------------------------------------------------------

constexpr char kTimePattern[] = "0000-00-00 00:00:00.000000";

bool IsDigit(char c)
{
    return c >= '0' && c <= '9';
}

bool MatchesTimePattern(std::string_view text)
{
    if (text.size() != sizeof kTimePattern - 1) return false;
    for (std::size_t i = 0; i < text.size(); ++i)
        if (IsDigit(kTimePattern[i]) ? !IsDigit(text[i]) : text[i] != kTimePattern[i]) return false;
    return true;
}

std::uint64_t Digits(std::string_view text, std::size_t at, std::size_t count)
{
    std::uint64_t number = 0;
    for (const char digit : text.substr(at, count))
        number = number * 10 + static_cast<unsigned int>(digit - '0');
    return number;
}

// Days from 1970-01-01 to a date of the Gregorian calendar. Counting years from March puts the
// leap day at a year's end.
std::uint64_t DaysSinceEpoch(std::uint64_t year, std::uint64_t month, std::uint64_t day)
{
    constexpr std::uint64_t kDaysToEpoch = 719468;  // from 0000-03-01
    if (month <= 2) --year;
    const std::uint64_t month_from_march = (month + 9) % 12;
    const std::uint64_t day_of_year = (153 * month_from_march + 2) / 5 + day - 1;
    return 365 * year + year / 4 - year / 100 + year / 400 + day_of_year - kDaysToEpoch;
}

bool ParseTimeUs(std::string_view text, std::uint64_t* time_us)
{
    if (!MatchesTimePattern(text)) return false;
    const auto year = Digits(text, 0, 4), month = Digits(text, 5, 2), day = Digits(text, 8, 2);
    const auto hour = Digits(text, 11, 2), minute = Digits(text, 14, 2),
               second = Digits(text, 17, 2);
    if (year < 1970 || month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 ||
        second > 59)
        return false;
    const std::uint64_t hours = DaysSinceEpoch(year, month, day) * 24 + hour;
    *time_us = ((hours * 60 + minute) * 60 + second) * 1000000 + Digits(text, 20, 6);
    return true;
}

}  // namespace

bool Row::IsMeasured() const
{
    return action == fc::kActionNormal || action == fc::kActionFailOpen;
}

// ---- lines -----------------------------------------------------------------------------

RecordReader::RecordReader(const std::string& path) : m_file(path), m_buffer(kMostLineBytes) {}

double RecordReader::Progress() const
{
    const auto size = static_cast<double>(std::max<std::uint64_t>(m_file.Size(), 1));
    return std::min(static_cast<double>(m_bytesParsed) / size, 1.0);
}

void RecordReader::Fail(const std::string& message) const
{
    throw std::runtime_error(m_file.Path() + ": line " + std::to_string(m_line) + ": " + message);
}

// Returns false at the end of the file.
bool RecordReader::FillBuffer()
{
    if (m_begin > 0) {
        std::memmove(m_buffer.data(), m_buffer.data() + m_begin, m_end - m_begin);
        m_end -= m_begin;
        m_begin = 0;
    }
    if (m_end == m_buffer.size()) {
        ++m_line;
        if (m_line == 1) CheckIsRecord();
        Fail("longer than " + std::to_string(m_buffer.size()) + " bytes");
    }
    const std::size_t got = m_file.Read(m_buffer.data() + m_end, m_buffer.size() - m_end);
    m_end += got;
    return got != 0;
}

// Returns false at the end of the file.
bool RecordReader::ReadLine()
{
    std::size_t searched = 0;
    for (;;) {
        const char* const rest = m_buffer.data() + m_begin + searched;
        const auto* const newline =
            static_cast<const char*>(std::memchr(rest, '\n', m_end - m_begin - searched));
        if (newline) {
            m_text = {m_buffer.data() + m_begin,
                      static_cast<std::size_t>(newline - m_buffer.data()) - m_begin};
            break;
        }
        searched = m_end - m_begin;
        if (!FillBuffer()) return false;
    }
    m_begin += m_text.size() + 1;
    m_bytesParsed += m_text.size() + 1;
    ++m_line;
    // Spreadsheets save CRLF. No field of a row ends in CR.
    if (!m_text.empty() && m_text.back() == '\r') m_text.remove_suffix(1);
    return true;
}

RecordReader::Event RecordReader::Next()
{
    m_row.errors = m_text = {};
    while (ReadLine()) {
        Event event{};
        if (m_line == 1) CheckIsRecord();
        if (!m_text.empty() && m_text.front() == '#') {
            if (ParseComment(&event)) return event;
        } else if (m_hasColumns) {
            ParseRow();
            return Event::kRow;
        } else {
            ParseColumns();
        }
    }
    if (m_line == 0) CheckIsRecord();
    m_text = {};
    return Event::kEnd;
}

// ---- comments --------------------------------------------------------------------------

void RecordReader::CheckIsRecord() const
{
    if (m_text.substr(0, kRestart.size()) == kRestart) return;
    throw std::runtime_error(m_file.Path() + ": not a record of vxa run --record");
}

// If the line begins like this, leaves only the rest of it.
bool RecordReader::TakeStart(std::string_view start)
{
    if (m_text.substr(0, start.size()) != start) return false;
    m_text.remove_prefix(start.size());
    return true;
}

// Returns false for a comment without meaning.
bool RecordReader::ParseComment(Event* event)
{
    if (TakeStart(kRestart)) {
        if (m_text != "1") Fail("record format " + Quoted(m_text) + " is not known");
        *event = Event::kRestart;
    } else if (TakeStart("# policy ")) {
        *event = Event::kPolicy;
    } else if (TakeStart("# ") && m_text.substr(0, 8) == "version ") {
        ParseHeading();
        *event = Event::kHeading;
    } else {
        return false;
    }
    return true;
}

// The interval is last: a host name can contain anything.
void RecordReader::ParseHeading()
{
    constexpr std::string_view kInterval = ", interval ", kUnit = " s";
    const std::size_t at = m_text.rfind(kInterval);
    std::string_view rest = at == m_text.npos ? "" : m_text.substr(at + kInterval.size());
    const std::size_t unit = rest.find(kUnit);
    const bool ends_in_unit = unit != rest.npos && unit + kUnit.size() == rest.size();
    if (!ends_in_unit || !Parse(rest.substr(0, unit), &m_intervalS) ||
        !(m_intervalS > 0 && m_intervalS <= kLongestIntervalS))
        Fail("the heading does not end in ', interval SECONDS s'");
}

// ---- rows ------------------------------------------------------------------------------

void RecordReader::ParseColumns()
{
    if (m_text != kColumns) Fail(std::string("the columns are expected here: ") + kColumns);
    m_hasColumns = true;
}

// Takes the next field, of the column of this name.
std::string_view RecordReader::TakeField(const char* column)
{
    const std::size_t comma = m_text.find(',');
    if (comma == m_text.npos) Fail(std::string("no field after ") + column);
    const std::string_view field = m_text.substr(0, comma);
    m_text.remove_prefix(comma + 1);
    return field;
}

void RecordReader::FailField(const char* column, std::string_view field, const char* expected) const
{
    Fail(std::string(column) + " is " + Quoted(field) + ", expected " + expected);
}

void RecordReader::ParseTime()
{
    const std::string_view field = TakeField("time");
    if (!ParseTimeUs(field, &m_row.time_us)) FailField("time", field, "YYYY-MM-DD hh:mm:ss.uuuuuu");
}

void RecordReader::ParseAction()
{
    const std::string_view field = TakeField("action");
    if (!Parse(field, &m_row.action) || !IsAction(m_row.action))
        FailField("action", field, "0, 1, 2, 5, 6 or 7");
}

void RecordReader::ParseState()
{
    const std::string_view field = TakeField("state");
    m_row.activated = field == "Activated";
    if (!m_row.activated && field != "Deactivated")
        FailField("state", field, "Activated or Deactivated");
}

void RecordReader::ParsePort()
{
    constexpr int kMost = 65535;
    const std::string_view field = TakeField("port");
    m_row.port = 0;
    if (field.empty()) return;
    if (!Parse(field, &m_row.port) || m_row.port < 0 || m_row.port > kMost)
        FailField("port", field, "a number from 0 to 65535");
}

void RecordReader::ParseValue(std::size_t metric)
{
    const char* const column = kMetrics[metric].column;
    const std::string_view field = TakeField(column);
    double& value = m_row.values[metric];
    value = 0;
    if (field.empty()) return;
    if (!Parse(field, &value)) FailField(column, field, "a number or nothing");
    m_row.known |= 1u << metric;
}

void RecordReader::ParseRow()
{
    if (m_intervalS == 0) Fail("there is no heading above this row");
    ParseTime();
    ParseAction();
    ParseState();
    ParsePort();
    m_row.known = 0;
    for (std::size_t metric = 0; metric < fc::kMetricCount; ++metric) ParseValue(metric);
    if (m_text.substr(0, 1) != "\"" && m_text.find(',') != m_text.npos)
        Fail("has more fields than there are columns");
    m_row.errors = m_text;
    m_row.count_failed = m_text.find("get_scan_metrics() failed") != m_text.npos;
}

}  // namespace replay
