#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "ICallback.h"

// Stands in for the controlling application: keeps every log line that the
// engine routes to it ("info|text", "error|text", "raw|text") and answers
// the redirected-file notifications with a fixed result.
class LogRecorder : public ICallback {
public:
    bool LogInfo(const char*, const char* text) override { return Keep("info|", text); }
    bool LogError(const char*, const char* text) override { return Keep("error|", text); }
    bool LogRaw(const char*, const char* text) override { return Keep("raw|", text); }
    int UpdateRedirectedFileAttributes(const char*, const char*, bool, unsigned long long, bool, unsigned long,
                                       bool, unsigned long) override {
        return answer;
    }
    int RemoveRedirectedFile(const char*, const char*) override { return answer; }
    int RenameRedirectedFile(const char*, const char*, const char*) override { return answer; }
    int WriteRedirectedFile(const char*, const char*, unsigned long long, int, unsigned int) override {
        return answer;
    }

    std::vector<std::string> Lines() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }
    void Clear() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.clear();
    }
    bool Has(const std::string& line) {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const auto& l : m_lines)
            if (l == line) return true;
        return false;
    }
    int Count(const std::string& line) {
        std::lock_guard<std::mutex> lock(m_mutex);
        int n = 0;
        for (const auto& l : m_lines)
            if (l == line) ++n;
        return n;
    }

    int answer = 0;

private:
    bool Keep(const char* kind, const char* text) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.push_back(std::string(kind) + text);
        return true;
    }
    std::mutex m_mutex;
    std::vector<std::string> m_lines;
};
