// Reading the event log back, for the tests: the embedded platform's log
// file, or the system's Application log on Windows.
#pragma once

#include <string>
#include <vector>

namespace evtest {

struct Entry {
    std::string source;
    std::string type;  // "Error", "Warning", "Information", "Success" ...
    std::string text;  // the entry's strings joined by " | " (UTF-8)
};

// The entries of one source, oldest first.
std::vector<Entry> EntriesOf(const std::string& source);

}  // namespace evtest
