#pragma once

#include <chrono>
#include <string>
#include <vector>

// A fresh folder under the system's temporary folder, removed with all its
// contents when the object goes.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& Path() const { return m_path; }
    std::string operator/(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

// Writes data to path (created or truncated); fails the test on error.
void WriteWholeFile(const std::string& path, const std::string& data);
std::string ReadWholeFile(const std::string& path);
bool PathExists(const std::string& path);
// path with every link, "." and ".." resolved (realpath); path itself when
// it cannot be resolved (it does not exist, say).
std::string Canonical(const std::string& path);
// The names of folder in the order the file system gives them, without "."
// and "..": what a fresh scan finds.
std::vector<std::string> FolderNames(const std::string& folder);

// Lines of text, split at '\n' (the last line may lack its line end).
std::vector<std::string> SplitLines(const std::string& text);

// Keeps the calling thread running, never asleep, for the time given.
void StayBusy(std::chrono::microseconds time);

// Number of open descriptors and threads of this process.
int CountOpenDescriptors();
int CountThreads();

class CUtilities;
// The 56-byte handle of file ID id as u gives handles out: the ID in bytes
// 0..3, u's verifier in bytes 4..11, zeros behind.
std::vector<unsigned char> HandleOfId(const CUtilities& u, unsigned int id);
