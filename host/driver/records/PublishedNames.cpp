// Keeps the names that engines published.
#include "records/PublishedNames.h"

#include <map>
#include <mutex>
#include <new>
#include <string_view>
#include <utility>

namespace vxi {

namespace {

struct AllNames {
    std::mutex mutex;
    std::map<std::pair<std::string_view, NameList>, std::shared_ptr<const NumberedNames>> lists;
};

AllNames& ProcessNames()
{
    // Never destroyed: a dump may run while the process ends. Not on the heap: a dump allocates
    // nothing, so that it cannot fail.
    alignas(AllNames) static unsigned char storage[sizeof(AllNames)];
    static AllNames& instance = *new (storage) AllNames;
    return instance;
}

}  // namespace

void PublishNames(const char* engine, NameList list, NumberedNames names)
{
    auto published = std::make_shared<const NumberedNames>(std::move(names));
    const std::lock_guard<std::mutex> lock(ProcessNames().mutex);
    ProcessNames().lists[{engine, list}] = std::move(published);
}

std::shared_ptr<const NumberedNames> PublishedNames(const char* engine, NameList list)
{
    const std::lock_guard<std::mutex> lock(ProcessNames().mutex);
    const auto found = ProcessNames().lists.find({engine, list});
    return found != ProcessNames().lists.end() ? found->second : nullptr;
}

}  // namespace vxi
