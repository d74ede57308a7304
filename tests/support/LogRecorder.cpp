#include "LogRecorder.h"

bool LogRecorder::Take(const char* kind, const char* id, const char* text) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.push_back({kind, id ? id : "", text ? text : ""});
    return true;
}

std::vector<LogRecorder::Line> LogRecorder::Lines() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lines;
}

int LogRecorder::Count(const std::string& text) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    int n = 0;
    for (const Line& l : m_lines) n += l.text == text;
    return n;
}

int LogRecorder::CountContaining(const std::string& part) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    int n = 0;
    for (const Line& l : m_lines) n += l.text.find(part) != std::string::npos;
    return n;
}

std::string LogRecorder::Dump() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::string all;
    for (const Line& l : m_lines) all += l.kind + " (" + l.id + ") " + l.text + "\n";
    return all;
}

void LogRecorder::Clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.clear();
}

std::vector<std::string> LogRecorder::Texts(const std::string& kind) const {
    std::vector<std::string> texts;
    for (const Line& l : Lines())
        if (l.kind == kind) texts.push_back(l.text);
    return texts;
}

std::string LogRecorder::AllText() const {
    std::string all;
    for (const Line& l : Lines()) all += l.text + "\n";
    return all;
}
