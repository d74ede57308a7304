#pragma once

#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "ICallback.h"

// An application callback that records every routed log line, in order,
// with its kind ("info", "error", "raw"). Install it with
// CUtilities::SetCallback to capture exactly what the engine logs.
class LogRecorder : public ICallback {
public:
    struct Line {
        std::string kind;
        std::string text;
        bool operator==(const Line& other) const { return kind == other.kind && text == other.text; }
    };

    bool LogInfo(const char*, const char* text) override { return Add("info", text); }
    bool LogError(const char*, const char* text) override { return Add("error", text); }
    bool LogRaw(const char*, const char* text) override { return Add("raw", text); }
    int UpdateRedirectedFileAttributes(const char*, const char*, bool, unsigned long long, bool, unsigned long,
                                       bool, unsigned long) override {
        return -1;
    }
    int RemoveRedirectedFile(const char*, const char*) override { return -1; }
    int RenameRedirectedFile(const char*, const char*, const char*) override { return -1; }
    int WriteRedirectedFile(const char*, const char*, unsigned long long, int, unsigned int) override { return -1; }

    std::vector<Line> Lines() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }
    // Texts of the lines of one kind, in order.
    std::vector<std::string> Texts(const std::string& kind) const {
        std::vector<std::string> texts;
        for (const Line& line : Lines())
            if (line.kind == kind) texts.push_back(line.text);
        return texts;
    }
    // Every recorded text joined, to search for what must never be logged.
    std::string AllText() const {
        std::string all;
        for (const Line& line : Lines()) all += line.text + "\n";
        return all;
    }
    void Clear() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.clear();
    }

private:
    bool Add(const char* kind, const char* text) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.push_back({kind, text ? text : ""});
        return true;
    }

    mutable std::mutex m_mutex;
    std::vector<Line> m_lines;
};

// Lets test failures print recorded lines readably.
inline void PrintTo(const LogRecorder::Line& line, std::ostream* os) { *os << line.kind << ": \"" << line.text << "\""; }
