#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "FileDescriptor.h"

class COutputStream;

// The replies of one receive of a connection, and the files and folders
// their calls changed. The replies collect in the output stream; Flush
// syncs each file and folder once, outside the dispatcher mutex, before
// they all leave together: one sync covers every WRITE of a pipeline.
// A reply whose sync failed is rewritten into an NFS3ERR_IO reply.
class CStableBatch {
public:
    // The output stream's free room under which the batch is flushed before
    // the next call runs: the largest reply (a READ of 64 KiB and its
    // header) always fits behind the replies collected so far.
    static constexpr uint32_t FLUSH_ROOM = 128 * 1024;

    // The reply of the call about to run starts at replyStart in the output
    // (its record mark with tcp) and its results at bodyStart.
    void BeginReply(uint32_t replyStart, uint32_t bodyStart, bool tcp);
    // The reply ends at replyEnd. Without results the call's program wrote
    // (an error of the dispatcher), a failed sync leaves it unchanged.
    void EndReply(uint32_t replyEnd, bool results);
    // The reply was taken out of the output again: nothing in it is rewritten.
    void DropReply();

    // Before the current reply leaves, what fd refers to is synced: its data
    // (fdatasync) or, for a folder, its entries (fsync). When that fails the
    // reply's results become NFS3ERR_IO and wccCount empty wcc_data. A
    // descriptor of a file already in the batch is only closed.
    void Add(CFileDescriptor fd, bool folder, int wccCount);
    // A WRITE of path: as Add with the duplicate descriptor it went through,
    // which stands for the path's next writes in this batch (see
    // CUtilities::WriteSync; closes is the count it was taken at); without
    // one, the write went through held, the descriptor HeldFor gave.
    void AddWritten(const char* path, CFileDescriptor duplicate, int held, unsigned long long closes);
    // The descriptor a write of path in this batch went through, -1 if none;
    // *closes receives the descriptor cache's count it was taken at.
    int HeldFor(const char* path, unsigned long long* closes) const;
    bool IsEmpty() const { return m_targets.empty(); }

    // Syncs what was added and rewrites the replies whose sync failed;
    // returns the number of failed syncs (errno of the last in *error).
    // The batch is empty afterwards.
    int Flush(COutputStream* out, int* error = nullptr);

    // A descriptor opened to be synced (read-only, never blocking on a
    // special file, a folder as a folder); closed when it cannot be opened.
    static CFileDescriptor OpenForSync(const char* path, bool folder);
    // fdatasync of a file, fsync of a folder; false (errno set) on failure.
    static bool Sync(int fd, bool folder);

private:
    struct Target {
        CFileDescriptor fd;
        bool folder = false;
        dev_t dev = 0;
        ino_t ino = 0;
        std::vector<size_t> replies;  // indexes into m_replies
    };
    struct Reply {
        uint32_t start = 0;
        uint32_t body = 0;
        uint32_t end = 0;
        bool tcp = false;
        bool ended = false;
        bool dropped = false;
        bool failed = false;
        int wccCount = 0;
    };
    struct Written {
        std::string path;
        unsigned long long closes = 0;
        size_t target = 0;
    };
    static constexpr size_t NO_TARGET = (size_t)-1;
    // Adds fd's file or folder for the current reply; the index of its
    // target, NO_TARGET when fd is unusable, and *added whether fd became it.
    size_t AddTarget(CFileDescriptor fd, bool folder, int wccCount, bool* added);
    // The current reply waits for target's sync.
    void AddReply(size_t target, int wccCount);
    // Rebuilds the output with the failed replies rewritten.
    void RewriteFailed(COutputStream* out);

    std::vector<Target> m_targets;
    std::vector<Written> m_written;
    std::vector<Reply> m_replies;
    Reply m_current;
    bool m_currentAdded = false;  // m_current is the last of m_replies
};
