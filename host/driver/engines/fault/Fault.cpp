#include "engines/fault/Fault.h"

#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "api/Message.h"
#include "vxi/engine.h"

namespace vxi::fault {

std::atomic<bool> scripted{false};

namespace {

constexpr std::uint64_t kForGood = UINT64_MAX;

struct Fault {
    Call call;
    int status = 0;
    std::string text;
    std::uint64_t successes_first = 0;  // calls that must succeed before the fault applies
    std::uint64_t answers_left = kForGood;
};

using Script = std::vector<Fault>;

struct State {
    std::mutex mutex;
    Script script;
    std::string environment_error;
    std::atomic<bool> environment_broken;  // spares every vxi_open the mutex

    State();
};

std::string KnownCalls()
{
    std::string names;
    for (const char* name : kCallNames) {
        names += std::string(names.empty() ? "" : ", ") + name;
    }
    return names;
}

// Reads a script front to back; after a failure `expected` is what should be at `position`.
class Reader {
public:
    explicit Reader(std::string_view text) : m_text(text) {}

    bool Read(Script& script);
    unsigned Position() const { return static_cast<unsigned>(m_at); }
    const std::string& Expected() const { return m_expected; }

private:
    bool ParseFault(Fault& fault);
    bool ParseOperation(Fault& fault);
    bool ParseStatus(Fault& fault);
    bool ParseField(Fault& fault);
    bool ParseCount(std::size_t digits, std::uint64_t& value);
    std::string UnescapedField();
    bool Failed(std::string expected)
    {
        m_expected = std::move(expected);
        return false;
    }
    bool Take(char c)
    {
        const bool there = m_at < m_text.size() && m_text[m_at] == c;
        m_at += there;
        return there;
    }
    void SkipBlanks()
    {
        while (m_at < m_text.size() && std::isspace(static_cast<unsigned char>(m_text[m_at]))) {
            ++m_at;
        }
    }

    std::string_view m_text;
    std::size_t m_at = 0;
    std::string m_expected;
};

bool Reader::Read(Script& script)
{
    SkipBlanks();
    while (m_at < m_text.size()) {
        script.emplace_back();
        if (!ParseFault(script.back())) {
            return false;
        }
        SkipBlanks();
        if (m_at < m_text.size() && !Take(',')) {
            return Failed("\",\" or the end");
        }
        SkipBlanks();
    }
    return true;
}

bool Reader::ParseFault(Fault& fault)
{
    if (!ParseOperation(fault) || !ParseStatus(fault)) {
        return false;
    }
    while (Take(':')) {
        if (!ParseField(fault)) {
            return false;
        }
    }
    return true;
}

bool Reader::ParseOperation(Fault& fault)
{
    const std::size_t end = std::min(m_text.find_first_of("=,: \t\n", m_at), m_text.size());
    if (!FindCall(m_text.substr(m_at, end - m_at), fault.call)) {
        return Failed("one of " + KnownCalls());
    }
    m_at = end;
    SkipBlanks();
    return Take('=') || Failed("\"=\"");
}

bool Reader::ParseStatus(Fault& fault)
{
    SkipBlanks();
    const char* const begin = m_text.data() + m_at;
    const auto [end, error] = std::from_chars(begin, m_text.data() + m_text.size(), fault.status);
    if (error != std::errc()) {
        return Failed("a status number");
    }
    // A success without the engine would hand the caller a record that nobody filled.
    if (fault.status == 0 && fault.call != Call::kDriverAvailable) {
        return Failed("a status other than 0");
    }
    m_at += static_cast<std::size_t>(end - begin);
    return true;
}

// "once", "times=N" and "after=N" are settings, anything else is the text.
bool Reader::ParseField(Fault& fault)
{
    const std::size_t begin = m_at;
    const std::string words = UnescapedField();
    const std::size_t digits = words.find('=') + 1;
    const std::string_view name = std::string_view(words).substr(0, digits);
    if (words == "once") {
        fault.answers_left = 1;
        return true;
    }
    if (name == "times=" || name == "after=") {
        const std::size_t end = m_at;
        m_at = begin + digits;
        return ParseCount(end, name == "times=" ? fault.answers_left : fault.successes_first);
    }
    if (!fault.text.empty()) {
        m_at = begin;
        return Failed("once, times=N or after=N: this fault has a text already");
    }
    fault.text = words;
    return true;
}

bool Reader::ParseCount(std::size_t end, std::uint64_t& value)
{
    const char* const last = m_text.data() + end;
    const auto [stop, error] = std::from_chars(m_text.data() + m_at, last, value);
    if (error != std::errc() || stop != last) {
        return Failed("a whole number");
    }
    m_at = end;
    return true;
}

std::string Reader::UnescapedField()
{
    std::string field;
    std::size_t length = 0;
    for (; m_at < m_text.size() && m_text[m_at] != ':' && m_text[m_at] != ','; ++m_at) {
        const bool escaped = m_text[m_at] == '\\' && m_at + 1 < m_text.size();
        m_at += escaped;
        field += m_text[m_at];
        if (escaped || !std::isspace(static_cast<unsigned char>(m_text[m_at]))) {
            length = field.size();
        }
    }
    field.resize(length);  // blanks in front of a separator are layout
    return field;
}

State::State()
{
    const char* text = std::getenv("VXI_FAULT");
    Reader reader(text ? text : "");
    if (!reader.Read(script)) {
        script.clear();
        environment_error = "VXI_FAULT cannot be read at character " +
                            std::to_string(reader.Position() + 1) + ": expected " +
                            reader.Expected();
    }
    environment_broken = !environment_error.empty();
    scripted = !script.empty();
}

State& GlobalState()
{
    // Never destroyed: handles may be used until the process ends.
    static State& instance = *new State;
    return instance;
}

}  // namespace

bool EnvironmentUsable(std::string& error)
{
    State& all = GlobalState();
    if (!all.environment_broken) {
        return true;
    }
    const std::lock_guard<std::mutex> lock(all.mutex);
    error = all.environment_error;
    return error.empty();
}

bool NextAnswer(Call call, Answer& answer)
{
    State& all = GlobalState();
    const std::lock_guard<std::mutex> lock(all.mutex);
    for (Fault& each : all.script) {
        if (each.call != call || each.successes_first > 0 || each.answers_left == 0) {
            continue;
        }
        each.answers_left -= each.answers_left != kForGood;
        answer.status = each.status;
        BoundedText(answer.text).Plain(each.text);
        return true;
    }
    return false;
}

void NoteSuccess(Call call)
{
    State& all = GlobalState();
    const std::lock_guard<std::mutex> lock(all.mutex);
    for (Fault& each : all.script) {
        each.successes_first -= each.call == call && each.successes_first > 0;
    }
}

}  // namespace vxi::fault

int vxi_fault_script(const char* script, unsigned int* position)
try {
    vxi::fault::Script faults;
    vxi::fault::Reader reader(script ? script : "");
    if (!reader.Read(faults)) {
        if (position) {
            *position = reader.Position();
        }
        return -EINVAL;
    }
    vxi::fault::State& all = vxi::fault::GlobalState();
    const std::lock_guard<std::mutex> lock(all.mutex);
    all.script = std::move(faults);
    all.environment_error.clear();
    all.environment_broken = false;
    vxi::fault::scripted = !all.script.empty();
    return 0;
} catch (const std::bad_alloc&) {
    return -ENOMEM;
}
