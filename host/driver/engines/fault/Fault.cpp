// Parses scripts of failures and answers calls from them.
#include "engines/fault/Fault.h"

#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "api/BoundedText.h"
#include "engines/TextParser.h"
#include "vxi/engine.h"

namespace vxi::fault {

std::atomic<bool> scripted{false};

namespace {

constexpr std::uint64_t kUnlimited = UINT64_MAX;

struct Fault {
    Call call{};
    int status = 0;
    std::string message;
    std::uint64_t successes_first = 0;  // calls that must succeed before the fault applies
    std::uint64_t answers_left = kUnlimited;
};

using Script = std::vector<Fault>;

std::string AllCallNames()
{
    std::string names;
    for (const char* name : kCallNames) {
        names += std::string(names.empty() ? "" : ", ") + name;
    }
    return names;
}

class ScriptParser : TextParser {
public:
    explicit ScriptParser(std::string_view text) : TextParser(text) {}

    Script Parse()
    {
        Script script;
        ParseList([&] { script.push_back(ParseFault()); });
        return script;
    }

private:
    Fault ParseFault();
    Call ParseCall();
    int ParseStatus(Call call);
    void ParseField(Fault& fault);
    std::uint64_t ParseCount(std::size_t begin, std::size_t end);
    std::string TakeField();
};

Fault ScriptParser::ParseFault()
{
    Fault fault;
    fault.call = ParseCall();
    SkipBlanks();
    Require('=');
    SkipBlanks();
    fault.status = ParseStatus(fault.call);
    while (Take(':')) {
        ParseField(fault);
    }
    if (fault.message.empty()) {
        fault.message = DescribeStatus(fault.status);
    }
    return fault;
}

Call ScriptParser::ParseCall()
{
    const std::size_t begin = m_at;
    const auto call = FindCall(TakeUntil("=,: \t\n"));
    if (!call) {
        Fail(begin, "one of " + AllCallNames());
    }
    return *call;
}

int ScriptParser::ParseStatus(Call call)
{
    const std::size_t begin = m_at;
    int status = 0;
    if (!TakeNumber(status)) {
        Fail(begin, "a status number");
    }
    // A success without the engine would return a record that nothing has filled.
    if (status == 0 && call != Call::kDriverAvailable) {
        Fail(begin, "a status other than 0");
    }
    return status;
}

// "once", "times=N" or "after=N"; anything else is the message.
void ScriptParser::ParseField(Fault& fault)
{
    const std::size_t begin = m_at;
    const std::string field = TakeField();
    const std::size_t digits = field.find('=') + 1;
    const std::string_view name = std::string_view(field).substr(0, digits);
    if (field == "once") {
        fault.answers_left = 1;
    } else if (name == "times=") {
        fault.answers_left = ParseCount(begin + digits, m_at);
    } else if (name == "after=") {
        fault.successes_first = ParseCount(begin + digits, m_at);
    } else if (fault.message.empty()) {
        fault.message = field;
    } else {
        Fail(begin, "once, times=N or after=N: this fault has a message already");
    }
}

std::uint64_t ScriptParser::ParseCount(std::size_t begin, std::size_t end)
{
    const char* const last = m_text.data() + end;
    std::uint64_t count = 0;
    const auto [stop, error] = std::from_chars(m_text.data() + begin, last, count);
    if (error != std::errc() || stop != last) {
        Fail(begin, "a whole number");
    }
    return count;
}

// Up to the next separator, with escapes resolved and trailing blanks removed.
std::string ScriptParser::TakeField()
{
    std::string field;
    std::size_t length = 0;
    for (; !AtEnd() && m_text[m_at] != ':' && m_text[m_at] != ','; ++m_at) {
        const bool escaped = m_text[m_at] == '\\' && m_at + 1 < m_text.size();
        m_at += escaped;
        field += m_text[m_at];
        if (escaped || !std::isspace(static_cast<unsigned char>(m_text[m_at]))) {
            length = field.size();
        }
    }
    field.resize(length);
    return field;
}

struct ScriptState {
    std::mutex mutex;
    Script script;
    std::string environment_error;  // empty: VXI_FAULT is a script, or has been replaced

    ScriptState();
    void Replace(Script replacement);
};

ScriptState::ScriptState()
{
    const char* const text = std::getenv("VXI_FAULT");
    try {
        Replace(ScriptParser(text ? text : "").Parse());
    } catch (const ParseError& error) {
        environment_error = std::string("VXI_FAULT ") + error.what();
    }
}

void ScriptState::Replace(Script replacement)
{
    script = std::move(replacement);
    environment_error.clear();
    scripted = !script.empty();
}

ScriptState& ProcessScript()
{
    // Never destroyed: handles may be used until the process ends.
    static ScriptState& instance = *new ScriptState;
    return instance;
}

}  // namespace

void CheckEnvironment()
{
    ScriptState& state = ProcessScript();
    const std::lock_guard<std::mutex> lock(state.mutex);
    if (!state.environment_error.empty()) {
        throw Error(-EINVAL, state.environment_error);
    }
}

std::optional<Answer> NextAnswer(Call call)
{
    if (!scripted.load(std::memory_order_acquire)) {
        return std::nullopt;
    }
    ScriptState& state = ProcessScript();
    const std::lock_guard<std::mutex> lock(state.mutex);
    for (Fault& fault : state.script) {
        if (fault.call != call || fault.successes_first > 0 || fault.answers_left == 0) {
            continue;
        }
        fault.answers_left -= fault.answers_left != kUnlimited;
        Answer answer{fault.status, ""};
        BoundedText(answer.message).Plain(fault.message);
        return answer;
    }
    return std::nullopt;
}

void NoteSuccess(Call call)
{
    if (!scripted.load(std::memory_order_acquire)) {
        return;
    }
    ScriptState& state = ProcessScript();
    const std::lock_guard<std::mutex> lock(state.mutex);
    for (Fault& fault : state.script) {
        fault.successes_first -= fault.call == call && fault.successes_first > 0;
    }
}

}  // namespace vxi::fault

int vxi_fault_script(const char* script, unsigned int* position)
{
    using namespace vxi::fault;
    return vxi::ApplySettings(position, [&] {
        Script parsed = ScriptParser(script ? script : "").Parse();
        ScriptState& state = ProcessScript();
        const std::lock_guard<std::mutex> lock(state.mutex);
        state.Replace(std::move(parsed));
    });
}
