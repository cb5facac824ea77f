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

constexpr std::uint64_t for_good = UINT64_MAX;

struct Fault {
    Call call;
    int status = 0;
    std::string text;
    std::uint64_t successes_first = 0;  // calls that must succeed before the fault applies
    std::uint64_t answers_left = for_good;
};

using Script = std::vector<Fault>;

struct State {
    std::mutex mutex;
    Script script;
    std::string environment_error;
    std::atomic<bool> environment_broken;  // spares every vxi_open the mutex

    State();
};

std::string known_calls()
{
    std::string names;
    for (const char* name : call_names) {
        names += std::string(names.empty() ? "" : ", ") + name;
    }
    return names;
}

// Reads a script front to back; after a failure `expected` is what should be at `position`.
class Reader {
public:
    explicit Reader(std::string_view text) : text_(text) {}

    bool read(Script& script);
    unsigned position() const { return static_cast<unsigned>(at_); }
    const std::string& expected() const { return expected_; }

private:
    bool fault(Fault& fault);
    bool operation(Fault& fault);
    bool status(Fault& fault);
    bool field(Fault& fault);
    bool count(std::size_t digits, std::uint64_t& value);
    std::string unescaped_field();
    bool failed(std::string expected)
    {
        expected_ = std::move(expected);
        return false;
    }
    bool take(char c)
    {
        const bool there = at_ < text_.size() && text_[at_] == c;
        at_ += there;
        return there;
    }
    void skip_blanks()
    {
        while (at_ < text_.size() && std::isspace(static_cast<unsigned char>(text_[at_]))) {
            ++at_;
        }
    }

    std::string_view text_;
    std::size_t at_ = 0;
    std::string expected_;
};

bool Reader::read(Script& script)
{
    skip_blanks();
    while (at_ < text_.size()) {
        script.emplace_back();
        if (!fault(script.back())) {
            return false;
        }
        skip_blanks();
        if (at_ < text_.size() && !take(',')) {
            return failed("\",\" or the end");
        }
        skip_blanks();
    }
    return true;
}

bool Reader::fault(Fault& fault)
{
    if (!operation(fault) || !status(fault)) {
        return false;
    }
    while (take(':')) {
        if (!field(fault)) {
            return false;
        }
    }
    return true;
}

bool Reader::operation(Fault& fault)
{
    const std::size_t end = std::min(text_.find_first_of("=,: \t\n", at_), text_.size());
    if (!find_call(text_.substr(at_, end - at_), fault.call)) {
        return failed("one of " + known_calls());
    }
    at_ = end;
    skip_blanks();
    return take('=') || failed("\"=\"");
}

bool Reader::status(Fault& fault)
{
    skip_blanks();
    const char* const begin = text_.data() + at_;
    const auto [end, error] = std::from_chars(begin, text_.data() + text_.size(), fault.status);
    if (error != std::errc()) {
        return failed("a status number");
    }
    // A success without the engine would hand the caller a record that nobody filled.
    if (fault.status == 0 && fault.call != Call::driver_available) {
        return failed("a status other than 0");
    }
    at_ += static_cast<std::size_t>(end - begin);
    return true;
}

// "once", "times=N" and "after=N" are settings, anything else is the text.
bool Reader::field(Fault& fault)
{
    const std::size_t begin = at_;
    const std::string words = unescaped_field();
    const std::size_t digits = words.find('=') + 1;
    const std::string_view name = std::string_view(words).substr(0, digits);
    if (words == "once") {
        fault.answers_left = 1;
        return true;
    }
    if (name == "times=" || name == "after=") {
        const std::size_t end = at_;
        at_ = begin + digits;
        return count(end, name == "times=" ? fault.answers_left : fault.successes_first);
    }
    if (!fault.text.empty()) {
        at_ = begin;
        return failed("once, times=N or after=N: this fault has a text already");
    }
    fault.text = words;
    return true;
}

bool Reader::count(std::size_t end, std::uint64_t& value)
{
    const char* const last = text_.data() + end;
    const auto [stop, error] = std::from_chars(text_.data() + at_, last, value);
    if (error != std::errc() || stop != last) {
        return failed("a whole number");
    }
    at_ = end;
    return true;
}

std::string Reader::unescaped_field()
{
    std::string field;
    std::size_t length = 0;
    for (; at_ < text_.size() && text_[at_] != ':' && text_[at_] != ','; ++at_) {
        const bool escaped = text_[at_] == '\\' && at_ + 1 < text_.size();
        at_ += escaped;
        field += text_[at_];
        if (escaped || !std::isspace(static_cast<unsigned char>(text_[at_]))) {
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
    if (!reader.read(script)) {
        script.clear();
        environment_error = "VXI_FAULT cannot be read at character " +
                            std::to_string(reader.position() + 1) + ": expected " +
                            reader.expected();
    }
    environment_broken = !environment_error.empty();
    scripted = !script.empty();
}

State& state()
{
    // Never destroyed: handles may be used until the process ends.
    static State& instance = *new State;
    return instance;
}

}  // namespace

bool environment_usable(std::string& error)
{
    State& all = state();
    if (!all.environment_broken) {
        return true;
    }
    const std::lock_guard<std::mutex> lock(all.mutex);
    error = all.environment_error;
    return error.empty();
}

bool next_answer(Call call, Answer& answer)
{
    State& all = state();
    const std::lock_guard<std::mutex> lock(all.mutex);
    for (Fault& each : all.script) {
        if (each.call != call || each.successes_first > 0 || each.answers_left == 0) {
            continue;
        }
        each.answers_left -= each.answers_left != for_good;
        answer.status = each.status;
        BoundedText(answer.text).plain(each.text);
        return true;
    }
    return false;
}

void note_success(Call call)
{
    State& all = state();
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
    if (!reader.read(faults)) {
        if (position) {
            *position = reader.position();
        }
        return -EINVAL;
    }
    vxi::fault::State& all = vxi::fault::state();
    const std::lock_guard<std::mutex> lock(all.mutex);
    all.script = std::move(faults);
    all.environment_error.clear();
    all.environment_broken = false;
    vxi::fault::scripted = !all.script.empty();
    return 0;
} catch (const std::bad_alloc&) {
    return -ENOMEM;
}
