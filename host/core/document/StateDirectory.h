// The files of a state directory (see vxa_core/document.h): replaces one, appends lines to
// another, and holds the lock.
#pragma once

#include <optional>
#include <string>

#include "files/File.h"

namespace VxaCore {

// For one thread at a time. All calls throw std::runtime_error with the file's path and the
// reason.
class StateDirectory {
public:
    // Makes, locks and opens it. Nothing is written if one of its files could be another file of
    // the system.
    explicit StateDirectory(const std::string& path);
    ~StateDirectory();

    // Returns the content of document.json; nullopt if there is none.
    std::optional<std::string> ReadDocument() const;
    // The new content is on the disk when this returns.
    void ReplaceDocument(const std::string& text);

    // Appends a line that ends in "\n"; it is on the disk when this returns. After a failure,
    // nothing of the line is left in the file.
    void AppendEvent(const std::string& line);
    // Returns the content of events.jsonl.
    std::string ReadEvents() const;

    const std::string& Path() const { return m_path; }

private:
    File Lock() const;
    void WriteProcessId();
    void RemoveUnfinishedEvent();
    void RemoveTemporary() const;
    std::optional<File> Open(const char* name, int flags) const;

    const std::string m_path;
    const FileDescriptor m_directory;
    File m_lock;
    File m_events;
};

}  // namespace VxaCore
