// The files of a state directory (see vxa_core/document.h). Knows nothing of documents:
// it replaces one file, appends lines to another, and holds the lock.
#pragma once

#include <string>

#include "files/File.h"

namespace VxaCore {

// Not safe from several threads at once. Failures that a caller can live with are
// texts, empty for success.
class StateDirectory {
public:
    // Makes, locks and opens it. Throws std::runtime_error, before anything is written
    // where one of the files could be another file of the system.
    explicit StateDirectory(const std::string& path);
    ~StateDirectory();

    // Text of document.json, empty when there is none. Throws std::runtime_error.
    std::string ReadDocument() const;
    // On the disk when it returns.
    std::string ReplaceDocument(const std::string& text);

    // Appends a line that ends in "\n"; on the disk when it returns. After a failure
    // nothing of the line is left in the file.
    std::string AppendEvent(const std::string& line);
    // Text of events.jsonl. Throws std::runtime_error.
    std::string ReadEvents() const;

    const std::string& Path() const { return m_path; }

private:
    void Lock();
    void WriteHolder();
    void MendEvents();
    std::string Failure(const char* what, const char* name) const;
    std::string Failure(const char* what, const char* name, const std::string& reason) const;
    FileDescriptor Open(const char* name, int flags, std::string& reason) const;
    FileDescriptor OpenForWriting(const char* name, int flags) const;
    FileDescriptor OpenDocument() const;
    std::string WriteTemporary(const std::string& text);

    std::string m_path;
    FileDescriptor m_directory;
    FileDescriptor m_lock;
    FileDescriptor m_events;
    long long m_eventsSize = 0;
};

}  // namespace VxaCore
