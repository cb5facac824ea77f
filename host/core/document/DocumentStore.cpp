// Host documents in memory and in state directories.
#include <errno.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <deque>
#include <exception>
#include <mutex>
#include <optional>
#include <stdexcept>

#include "document/StateDirectory.h"
#include "text/Json.h"
#include "vxa_core/document.h"
#include "vxa_core/files.h"
#include "vxa_core/text.h"

namespace VxaCore {

using Host::DocumentValue;
using Host::Event;
using Host::EventList;

// For the functions: with the mutex held.
struct CDom::Store::State {
    void CheckOpen() const;
    void StoreDocument();
    void StoreEvents();

    std::mutex mutex;
    JsonItem document;
    std::unique_ptr<StateDirectory> directory;  // null: in memory
    std::deque<Event> events;   // without a directory all of them, else those not yet stored
    bool is_unwritten = false;  // the document has changed since it was last stored
    bool is_closed = false;
    std::exception_ptr close_error;  // what Close throws; null if everything is stored
};

namespace {

JsonItem CheckMemory(cJSON* item)
{
    if (!item) throw std::bad_alloc();
    return JsonItem(item);
}

// Numbers are kept as strings in their shortest exact form: cJSON writes a double with 15
// digits where that comes close enough, which would change large counts.
std::string FormatNumber(double number)
{
    char text[32];
    return {text, std::to_chars(text, text + sizeof text, number).ptr};
}

double ParseNumber(const cJSON* item)
{
    double number = 0;
    std::from_chars(item->valuestring, item->valuestring + std::strlen(item->valuestring), number);
    return number;
}

// Replaces the numbers in a list or object, nested ones included.
void KeepNumbersExact(cJSON* parent)
{
    for (cJSON* item = parent->child; item; item = item->next) {
        if (cJSON_IsNumber(item)) {
            const std::string text = FormatNumber(item->valuedouble);
            item->valuestring = static_cast<char*>(cJSON_malloc(text.size() + 1));
            if (!item->valuestring) throw std::bad_alloc();
            std::memcpy(item->valuestring, text.c_str(), text.size() + 1);
            item->type = (item->type & cJSON_StringIsConst) | cJSON_Raw;
        }
        KeepNumbersExact(item);
    }
}

JsonItem ReadDocument(const StateDirectory& directory)
{
    const std::string text = directory.ReadDocument().value_or("");
    const std::string name = directory.Path() + "/document.json";
    if (text.empty()) return CheckMemory(cJSON_CreateObject());
    ParsedJson parsed = ParseJson(text);
    if (!parsed.item) {
        const JsonPosition at = PositionAt(text, parsed.stop);
        // Does not quote the content: the user who sees the message may not be allowed to read it.
        throw std::runtime_error(name + ": not valid JSON at line " + std::to_string(at.line) +
                                 ", column " + std::to_string(at.column));
    }
    if (!cJSON_IsObject(parsed.item.get()))
        throw std::runtime_error(name + " is not a JSON object");
    KeepNumbersExact(parsed.item.get());
    return std::move(parsed.item);
}

DocumentValue ToValue(const cJSON* item)
{
    if (!item || cJSON_IsNull(item)) return std::monostate();
    if (cJSON_IsBool(item)) return static_cast<bool>(cJSON_IsTrue(item));
    if (cJSON_IsRaw(item)) return ParseNumber(item);
    if (cJSON_IsString(item)) return std::string(item->valuestring);
    return Host::NestedValue();
}

struct ToItem {
    cJSON* operator()(std::monostate) const { return nullptr; }
    cJSON* operator()(bool value) const { return cJSON_CreateBool(value); }
    cJSON* operator()(double value) const { return cJSON_CreateRaw(FormatNumber(value).c_str()); }
    cJSON* operator()(const std::string& value) const { return cJSON_CreateString(value.c_str()); }
    cJSON* operator()(const Host::NestedValue&) const { return nullptr; }
};

// Throws if no document can hold the pair.
void CheckPair(const std::string& key, const DocumentValue& value)
{
    const auto refuse = [&](const char* problem) {
        throw std::runtime_error("the value of " + key + " must be " + problem);
    };
    if (!Host::IsPlainUtf8(key))
        throw std::runtime_error("key must be valid UTF-8 without NUL bytes");
    if (const auto* text = std::get_if<std::string>(&value); text && !Host::IsPlainUtf8(*text))
        refuse("valid UTF-8 without NUL bytes");
    if (const auto* number = std::get_if<double>(&value); number && !std::isfinite(*number))
        refuse("a finite number");
    if (std::holds_alternative<Host::NestedValue>(value)) refuse("a boolean, number or string");
}

bool IsSame(const DocumentValue& a, const DocumentValue& b)
{
    if (a.index() != b.index()) return false;
    if (const auto* text = std::get_if<std::string>(&a)) return *text == std::get<std::string>(b);
    if (const auto* number = std::get_if<double>(&a)) return *number == std::get<double>(b);
    if (const auto* truth = std::get_if<bool>(&a)) return *truth == std::get<bool>(b);
    return true;
}

void Replace(cJSON* document, const std::string& key, const DocumentValue& value)
{
    const bool is_removed = std::holds_alternative<std::monostate>(value);
    JsonItem item = is_removed ? JsonItem() : CheckMemory(std::visit(ToItem(), value));
    cJSON_DeleteItemFromObjectCaseSensitive(document, key.c_str());
    if (!item) return;
    if (!cJSON_AddItemToObject(document, key.c_str(), item.get())) throw std::bad_alloc();
    (void)item.release();
}

std::string Print(const cJSON* document)
{
    const std::unique_ptr<char, void (*)(void*)> text(cJSON_Print(document), cJSON_free);
    if (!text) throw std::bad_alloc();
    return std::string(text.get()) + "\n";
}

std::string EventLine(const Event& event)
{
    std::string line = "{\"time\":";
    AppendJsonTime(line, event.time_s);
    line += ",\"id\":" + std::to_string(event.id) + ",\"text\":";
    AppendJsonString(line, event.text);
    return line += "}\n";
}

// Returns nullopt for a line that is not an event.
std::optional<Event> ParseEvent(const std::string& line)
{
    const JsonItem item = ParseJson(line).item;
    const cJSON* time = cJSON_GetObjectItemCaseSensitive(item.get(), "time");
    const cJSON* id = cJSON_GetObjectItemCaseSensitive(item.get(), "id");
    const cJSON* text = cJSON_GetObjectItemCaseSensitive(item.get(), "text");
    if (!cJSON_IsNumber(time) || !cJSON_IsNumber(id) || !cJSON_IsString(text)) return std::nullopt;
    return Event{time->valuedouble, id->valueint, text->valuestring};
}

EventList ParseEvents(const std::string& text)
{
    EventList list;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = std::min(text.find('\n', start), text.size());
        if (auto event = ParseEvent(text.substr(start, end - start)))
            list.events.push_back(*std::move(event));
        else
            ++list.unreadable;
        start = end + 1;
    }
    return list;
}

// Calls the function; keeps the first failure.
template <typename Function>
void KeepError(std::exception_ptr& first_error, Function function)
try {
    function();
} catch (const std::runtime_error&) {
    if (!first_error) first_error = std::current_exception();
}

}  // namespace

void CDom::Store::State::CheckOpen() const
{
    if (is_closed) throw Host::FileError(EBADF, "the document is closed");
}

void CDom::Store::State::StoreDocument()
{
    if (!directory || !is_unwritten) return;
    directory->ReplaceDocument(Print(document.get()));
    is_unwritten = false;
}

void CDom::Store::State::StoreEvents()
{
    for (; directory && !events.empty(); events.pop_front())
        directory->AppendEvent(EventLine(events.front()));
}

CDom::Store::Store(std::unique_ptr<State> state) : m_state(std::move(state)) {}
CDom::Store::~Store() = default;

std::unique_ptr<CDom::Store> CDom::Store::InMemory()
{
    auto state = std::make_unique<State>();
    state->document = CheckMemory(cJSON_CreateObject());
    return std::unique_ptr<Store>(new Store(std::move(state)));
}

std::unique_ptr<CDom::Store> CDom::Store::InDirectory(const std::string& path)
{
    auto state = std::make_unique<State>();
    state->directory = std::make_unique<StateDirectory>(path);
    state->document = ReadDocument(*state->directory);
    return std::unique_ptr<Store>(new Store(std::move(state)));
}

DocumentValue CDom::Store::Get(const std::string& key) const
{
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    return ToValue(cJSON_GetObjectItemCaseSensitive(m_state->document.get(), key.c_str()));
}

void CDom::Store::Set(const std::string& key, const DocumentValue& value)
{
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->CheckOpen();
    CheckPair(key, value);
    cJSON* document = m_state->document.get();
    if (!IsSame(ToValue(cJSON_GetObjectItemCaseSensitive(document, key.c_str())), value)) {
        Replace(document, key, value);
        m_state->is_unwritten = true;
    }
    m_state->StoreDocument();
}

void CDom::Store::WriteEvent(int id, const std::string& utf8)
{
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->CheckOpen();
    m_state->events.push_back({SecondsSinceEpoch(), id, utf8});
    m_state->StoreEvents();
}

EventList CDom::Store::Events() const
{
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->CheckOpen();
    const std::deque<Event>& in_memory = m_state->events;
    EventList list;
    if (m_state->directory) list = ParseEvents(m_state->directory->ReadEvents());
    list.events.insert(list.events.end(), in_memory.begin(), in_memory.end());
    return list;
}

void CDom::Store::Close()
{
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    if (!m_state->is_closed) {
        KeepError(m_state->close_error, [&] { m_state->StoreDocument(); });
        KeepError(m_state->close_error, [&] { m_state->StoreEvents(); });
        m_state->is_closed = true;
        m_state->directory.reset();
    }
    if (m_state->close_error) std::rethrow_exception(m_state->close_error);
}

}  // namespace VxaCore
