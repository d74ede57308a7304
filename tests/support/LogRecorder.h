#pragma once

// Collects the log lines of a CUtilities, from any thread, by standing in
// for the application callback.

#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "ICallback.h"

class LogRecorder : public ICallback {
public:
    struct Line {
        std::string kind;  // "info", "error" or "raw"
        std::string id;
        std::string text;
        // The ID is left out: tests compare what was logged, not by whom.
        bool operator==(const Line& other) const { return kind == other.kind && text == other.text; }
    };

    bool LogInfo(const char* id, const char* text) override { return Take("info", id, text); }
    bool LogError(const char* id, const char* text) override { return Take("error", id, text); }
    bool LogRaw(const char* id, const char* text) override { return Take("raw", id, text); }
    int UpdateRedirectedFileAttributes(const char*, const char*, bool, unsigned long long, bool, unsigned long,
                                       bool, unsigned long) override { return -1; }
    int RemoveRedirectedFile(const char*, const char*) override { return -1; }
    int RenameRedirectedFile(const char*, const char*, const char*) override { return -1; }
    int WriteRedirectedFile(const char*, const char*, unsigned long long, int, unsigned int) override {
        return -1;
    }

    std::vector<Line> Lines() const;
    // Texts of the lines of one kind, in order.
    std::vector<std::string> Texts(const std::string& kind) const;
    // Every recorded text joined, to search for what must never be logged.
    std::string AllText() const;
    // Number of lines whose text equals text exactly.
    int Count(const std::string& text) const;
    // Number of lines whose text contains part.
    int CountContaining(const std::string& part) const;
    bool Has(const std::string& text) const { return Count(text) > 0; }
    // Every text, one per line, for failure messages.
    std::string Dump() const;
    void Clear();

private:
    bool Take(const char* kind, const char* id, const char* text);
    mutable std::mutex m_mutex;
    std::vector<Line> m_lines;
};

// Lets test failures print recorded lines readably.
inline void PrintTo(const LogRecorder::Line& line, std::ostream* os) { *os << line.kind << ": \"" << line.text << "\""; }
