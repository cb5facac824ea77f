#include <charconv>
#include <cmath>
#include <cstring>
#include <mutex>
#include <stdexcept>

#include "document/Json.h"
#include "document/StateDirectory.h"
#include "files/Text.h"
#include "vxa_core/document.h"

namespace VxaCore {

using Host::DocumentValue;
using Host::Event;

struct CDom::Store::Content {
    std::mutex mutex;
    JsonItem document;
    std::unique_ptr<StateDirectory> directory;  // null: in memory
    std::vector<Event> events;                  // all of them in memory; else those not yet stored
    bool unwritten = false;                     // the document has changed since it was last stored
    bool closed = false;
    std::string close_problem;  // what Close returned
};

namespace {

constexpr char kClosed[] = "the document is closed";

JsonItem Checked(cJSON* item)
{
    if (!item) throw std::bad_alloc();
    return JsonItem(item);
}

// Numbers are kept as texts of their shortest exact form: cJSON writes doubles with 15
// digits when that comes close enough, and so would change large counts.
std::string NumberText(double number)
{
    char text[32];
    return {text, std::to_chars(text, text + sizeof text, number).ptr};
}

double NumberOf(const cJSON* item)
{
    double number = 0;
    std::from_chars(item->valuestring, item->valuestring + std::strlen(item->valuestring), number);
    return number;
}

// Replaces the numbers of a list or object, nested ones as well.
void KeepNumbersExact(cJSON* parent)
{
    for (cJSON* item = parent->child; item; item = item->next) {
        if (cJSON_IsNumber(item)) {
            const std::string text = NumberText(item->valuedouble);
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
    const std::string text = directory.ReadDocument();
    const std::string name = directory.Path() + "/document.json";
    if (text.empty()) return Checked(cJSON_CreateObject());
    std::size_t stop = 0;
    JsonItem document = ParseJson(text, stop);
    if (!document) {
        const JsonPlace place = PlaceOf(text, stop);
        // Nothing of the content: the file may be one that the reader of the message
        // must not read.
        throw std::runtime_error(name + ": not valid JSON at line " + std::to_string(place.line) +
                                 ", column " + std::to_string(place.column));
    }
    if (!cJSON_IsObject(document.get())) throw std::runtime_error(name + " holds no JSON object");
    KeepNumbersExact(document.get());
    return document;
}

DocumentValue ToValue(const cJSON* item)
{
    if (!item || cJSON_IsNull(item)) return std::monostate();
    if (cJSON_IsBool(item)) return static_cast<bool>(cJSON_IsTrue(item));
    if (cJSON_IsRaw(item)) return NumberOf(item);
    if (cJSON_IsString(item)) return std::string(item->valuestring);
    return Host::NestedValue();
}

struct ToItem {
    cJSON* operator()(std::monostate) const { return nullptr; }
    cJSON* operator()(bool value) const { return cJSON_CreateBool(value); }
    cJSON* operator()(double value) const { return cJSON_CreateRaw(NumberText(value).c_str()); }
    cJSON* operator()(const std::string& value) const { return cJSON_CreateString(value.c_str()); }
    cJSON* operator()(const Host::NestedValue&) const { return nullptr; }
};

// What keeps a pair out of any document; empty when nothing does.
std::string Unfit(const std::string& key, const DocumentValue& value)
{
    if (!IsPlainUtf8(key)) return "the key is no UTF-8 text without zero bytes";
    if (const auto* text = std::get_if<std::string>(&value); text && !IsPlainUtf8(*text))
        return "the value of " + key + " is no UTF-8 text without zero bytes";
    if (const auto* number = std::get_if<double>(&value); number && !std::isfinite(*number))
        return "the value of " + key + " is no finite number";
    if (std::holds_alternative<Host::NestedValue>(value))
        return "the value of " + key + " is neither boolean, number nor text";
    return {};
}

bool Same(const DocumentValue& a, const DocumentValue& b)
{
    if (a.index() != b.index()) return false;
    if (const auto* text = std::get_if<std::string>(&a)) return *text == std::get<std::string>(b);
    if (const auto* number = std::get_if<double>(&a)) return *number == std::get<double>(b);
    if (const auto* truth = std::get_if<bool>(&a)) return *truth == std::get<bool>(b);
    return true;
}

void Replace(cJSON* document, const std::string& key, const DocumentValue& value)
{
    const bool remove = std::holds_alternative<std::monostate>(value);
    JsonItem item = remove ? JsonItem() : Checked(std::visit(ToItem(), value));
    cJSON_DeleteItemFromObjectCaseSensitive(document, key.c_str());
    if (item && !cJSON_AddItemToObject(document, key.c_str(), item.release()))
        throw std::bad_alloc();
}

std::string EventLine(const Event& event)
{
    std::string line = "{\"time\":";
    AppendTime(line, event.time_s);
    line += ",\"id\":" + std::to_string(event.id) + ",\"text\":";
    AppendJsonString(line, event.text);
    return line += "}\n";
}

bool ParseEvent(const std::string& line, Event& event)
{
    std::size_t stop = 0;
    const JsonItem item = ParseJson(line, stop);
    const cJSON* time = cJSON_GetObjectItemCaseSensitive(item.get(), "time");
    const cJSON* id = cJSON_GetObjectItemCaseSensitive(item.get(), "id");
    const cJSON* text = cJSON_GetObjectItemCaseSensitive(item.get(), "text");
    if (!cJSON_IsNumber(time) || !cJSON_IsNumber(id) || !cJSON_IsString(text)) return false;
    event = {time->valuedouble, id->valueint, text->valuestring};
    return true;
}

std::vector<Event> ParseEvents(const std::string& text, std::size_t& unreadable)
{
    std::vector<Event> events;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = std::min(text.find('\n', start), text.size());
        Event event;
        if (ParseEvent(text.substr(start, end - start), event))
            events.push_back(std::move(event));
        else
            ++unreadable;
        start = end + 1;
    }
    return events;
}

}  // namespace

CDom::Store::Store(std::unique_ptr<Content> content) : m_content(std::move(content)) {}
CDom::Store::~Store() = default;

std::unique_ptr<CDom::Store> CDom::Store::InMemory()
{
    auto content = std::make_unique<Content>();
    content->document = Checked(cJSON_CreateObject());
    return std::unique_ptr<Store>(new Store(std::move(content)));
}

std::unique_ptr<CDom::Store> CDom::Store::InDirectory(const std::string& path)
{
    auto content = std::make_unique<Content>();
    content->directory = std::make_unique<StateDirectory>(path);
    content->document = ReadDocument(*content->directory);
    return std::unique_ptr<Store>(new Store(std::move(content)));
}

DocumentValue CDom::Store::Get(const std::string& key) const
{
    const std::lock_guard<std::mutex> lock(m_content->mutex);
    return ToValue(cJSON_GetObjectItemCaseSensitive(m_content->document.get(), key.c_str()));
}

bool CDom::Store::Set(const std::string& key, const DocumentValue& value, std::string& error)
{
    const std::lock_guard<std::mutex> lock(m_content->mutex);
    error = m_content->closed ? kClosed : Unfit(key, value);
    if (!error.empty()) return false;
    cJSON* document = m_content->document.get();
    if (!Same(ToValue(cJSON_GetObjectItemCaseSensitive(document, key.c_str())), value)) {
        Replace(document, key, value);
        m_content->unwritten = true;
    }
    error = StoreDocument();
    return error.empty();
}

std::string CDom::Store::StoreDocument()
{
    if (!m_content->directory || !m_content->unwritten) return {};
    const JsonText text(cJSON_Print(m_content->document.get()));
    if (!text) throw std::bad_alloc();
    std::string problem = m_content->directory->ReplaceDocument(std::string(text.get()) + "\n");
    m_content->unwritten = !problem.empty();
    return problem;
}

bool CDom::Store::WriteEvent(int id, const std::string& utf8, std::string& error)
{
    const std::lock_guard<std::mutex> lock(m_content->mutex);
    error = m_content->closed ? kClosed : "";
    if (!error.empty()) return false;
    m_content->events.push_back({WallClock(), id, utf8});
    error = StoreEvents();
    return error.empty();
}

std::string CDom::Store::StoreEvents()
{
    if (!m_content->directory) return {};
    std::vector<Event>& waiting = m_content->events;
    std::string problem;
    std::size_t stored = 0;
    while (stored < waiting.size() && problem.empty()) {
        problem = m_content->directory->AppendEvent(EventLine(waiting[stored]));
        stored += problem.empty();
    }
    waiting.erase(waiting.begin(), waiting.begin() + static_cast<std::ptrdiff_t>(stored));
    return problem;
}

std::vector<Event> CDom::Store::Events(std::size_t& unreadable) const
{
    const std::lock_guard<std::mutex> lock(m_content->mutex);
    unreadable = 0;
    if (m_content->closed) throw std::runtime_error(kClosed);
    if (!m_content->directory) return m_content->events;
    std::vector<Event> events = ParseEvents(m_content->directory->ReadEvents(), unreadable);
    events.insert(events.end(), m_content->events.begin(), m_content->events.end());
    return events;
}

bool CDom::Store::Close(std::string& error)
{
    const std::lock_guard<std::mutex> lock(m_content->mutex);
    if (!m_content->closed) {
        const std::string document_problem = StoreDocument();
        const std::string events_problem = StoreEvents();
        m_content->close_problem = document_problem.empty() ? events_problem : document_problem;
        m_content->closed = true;
        m_content->directory.reset();
    }
    error = m_content->close_problem;
    return error.empty();
}

}  // namespace VxaCore
