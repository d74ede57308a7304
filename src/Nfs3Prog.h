#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <utility>
#include <vector>

#include "FileTable.h"
#include "ListingCache.h"
#include "MountProg.h"
#include "RpcProg.h"
#include "RuntimeParam.h"
#include "Utilities.h"

// ---- NFS version 3 records (RFC 1813 names) ----------------------------------

enum nfsstat3 : uint32_t {
    NFS3_OK = 0,
    NFS3ERR_NOENT = 2,
    NFS3ERR_IO = 5,
    NFS3ERR_ACCES = 13,
    NFS3ERR_EXIST = 17,
    NFS3ERR_XDEV = 18,
    NFS3ERR_INVAL = 22,
    NFS3ERR_FBIG = 27,
    NFS3ERR_NAMETOOLONG = 63,
    NFS3ERR_STALE = 70,
    NFS3ERR_NOT_SYNC = 10002,
    NFS3ERR_NOTSUPP = 10004,
    NFS3ERR_BADTYPE = 10007,
};

enum ftype3 : uint32_t {
    NF3REG = 1,
    NF3DIR = 2,
    NF3BLK = 3,
    NF3CHR = 4,
    NF3LNK = 5,
    NF3SOCK = 6,
    NF3FIFO = 7,
};

enum time_how : uint32_t { DONT_CHANGE = 0, SET_TO_SERVER_TIME = 1, SET_TO_CLIENT_TIME = 2 };
enum createmode3 : uint32_t { UNCHECKED = 0, GUARDED = 1, EXCLUSIVE = 2 };
enum stable_how : uint32_t { UNSTABLE = 0, DATA_SYNC = 1, FILE_SYNC = 2 };

// Bits of the ACCESS call.
enum : uint32_t {
    ACCESS3_READ = 0x01,
    ACCESS3_LOOKUP = 0x02,
    ACCESS3_MODIFY = 0x04,
    ACCESS3_EXTEND = 0x08,
    ACCESS3_DELETE = 0x10,
    ACCESS3_EXECUTE = 0x20,
};

// Bits of the FSINFO properties.
enum : uint32_t {
    FSF3_LINK = 0x0001,
    FSF3_SYMLINK = 0x0002,
    FSF3_HOMOGENEOUS = 0x0008,
    FSF3_CANSETTIME = 0x0010,
};

// Variable-length opaque data left in the input buffer: pBuf points into it
// and is valid only during the call.
struct opaque {
    const unsigned char* pBuf = nullptr;
    uint32_t iBufLen = 0;
};

typedef COpaquePath filename3;

struct specdata3 {
    uint32_t specdata1 = 0;
    uint32_t specdata2 = 0;
};

struct nfstime3 {
    uint32_t seconds = 0;
    uint32_t nseconds = 0;
};

struct sattrguard3 {
    bool check = false;
    nfstime3 obj_ctime;
};

struct fattr3 {
    uint32_t type = 0;  // an ftype3, or 0 for a file type NFS has no name for
    uint32_t mode = 0;
    uint32_t nlink = 0;
    uint32_t uid = 0;
    uint32_t gid = 0;
    uint64_t size = 0;
    uint64_t used = 0;
    specdata3 rdev;
    uint64_t fsid = 0;
    uint64_t fileid = 0;
    nfstime3 atime;
    nfstime3 mtime;
    nfstime3 ctime;
};

struct post_op_attr {
    bool attributes_follow = false;
    fattr3 attributes;
};

struct wcc_attr {
    uint64_t size = 0;
    nfstime3 mtime;
    nfstime3 ctime;
};

struct pre_op_attr {
    bool attributes_follow = false;
    wcc_attr attributes;
};

struct wcc_data {
    pre_op_attr before;
    post_op_attr after;
};

struct post_op_fh3 {
    bool handle_follows = false;
    nfs_fh3 handle{};
};

struct set_mode3 {
    bool set_it = false;
    uint32_t mode = 0;
};

struct set_uid3 {
    bool set_it = false;
    uint32_t uid = 0;
};

struct set_gid3 {
    bool set_it = false;
    uint32_t gid = 0;
};

struct set_size3 {
    bool set_it = false;
    uint64_t size = 0;
};

struct set_atime {
    uint32_t set_it = DONT_CHANGE;  // a time_how
    nfstime3 atime;
};

struct set_mtime {
    uint32_t set_it = DONT_CHANGE;  // a time_how
    nfstime3 mtime;
};

struct sattr3 {
    set_mode3 mode;
    set_uid3 uid;
    set_gid3 gid;
    set_size3 size;
    set_atime atime;
    set_mtime mtime;
};

struct diropargs3 {
    filename3 dir;   // the directory's path
    filename3 name;  // the entry's name as sent
};

struct createhow3 {
    uint32_t mode = UNCHECKED;  // a createmode3
    sattr3 obj_attributes;
    uint64_t verf = 0;
};

struct mknoddata3 {
    uint32_t type = 0;  // an ftype3
    sattr3 dev_attributes;
    specdata3 dev_spec;
    sattr3 pipe_attributes;
};

// ---- the program ---------------------------------------------------------------

// An lstat of a path that is no link, made by an earlier step of a call
// (resolving an entry, the existence check) and kept for its attributes.
struct EntryStat {
    bool known = false;
    struct stat st {};
};

// File system IDs by device within one listing: the entries of one folder
// that are no links share their folder's file system, so one statvfs per
// device serves them all.
struct FileSystemIds {
    std::vector<std::pair<dev_t, unsigned long long>> known;
};

// NFS version 3: decodes the procedure number and runs one of the 22
// procedure handlers. Every handler is built from the shared steps below
// (NfsCall, ReadPath, CheckObject, the reply writers), so that it holds only
// its own logic; it always writes a complete reply body, status first, and
// returns 0. Failures reach the client as the status in the body.
class CNfs3Prog : public CRpcProg {
public:
    static constexpr unsigned int PROCEDURE_COUNT = 22;
    // The longest name of one entry.
    static constexpr uint32_t NAME_MAX_LENGTH = 255;

    explicit CNfs3Prog(CUtilities* utilities);
    ~CNfs3Prog() override;

    int Process(CInputStream* in, COutputStream* out, ProcessParam* param) override;
    unsigned int GetVersion() override { return 3; }
    unsigned int GetMaxSupportProc() override { return PROCEDURE_COUNT; }

    void SetUserID(unsigned int uid, unsigned int gid);
    void SetReadOnly(bool flag) { m_bReadOnly = flag; }
    unsigned int GetUserID() const { return m_iUId; }
    unsigned int GetGroupID() const { return m_iGId; }
    bool IsReadOnly() const { return m_bReadOnly; }
    // The program's start time in milliseconds, its boot instance.
    unsigned long long GetSysUpTime() const { return m_iSysUpTime; }

    // ---- procedure handlers (RFC 1813 numbering) -------------------------------
    int ProcedureNULL(CInputStream* in, COutputStream* out, ProcessParam* param);
    int ProcedureGETATTR(CInputStream* in, COutputStream* out, ProcessParam* param);
    int ProcedureSETATTR(CInputStream* in, COutputStream* out, ProcessParam* param);
    int ProcedureLOOKUP(CInputStream* in, COutputStream* out, ProcessParam* param);
    int ProcedureACCESS(CInputStream* in, COutputStream* out, ProcessParam* param);
    int ProcedureREADLINK(CInputStream* in, COutputStream* out, ProcessParam* param);
    int ProcedureREAD(CInputStream* in, COutputStream* out, ProcessParam* param);
    int ProcedureWRITE(CInputStream* in, COutputStream* out, ProcessParam* param);
    int ProcedureCREATE(CInputStream* in, COutputStream* out, ProcessParam* param);
    int ProcedureMKDIR(CInputStream* in, COutputStream* out, ProcessParam* param);
    int ProcedureSYMLINK(CInputStream* in, COutputStream* out, ProcessParam* param);
    int ProcedureMKNOD(CInputStream* in, COutputStream* out, ProcessParam* param);
    int ProcedureREMOVE(CInputStream* in, COutputStream* out, ProcessParam* param);
    int ProcedureRMDIR(CInputStream* in, COutputStream* out, ProcessParam* param);
    int ProcedureRENAME(CInputStream* in, COutputStream* out, ProcessParam* param);
    int ProcedureLINK(CInputStream* in, COutputStream* out, ProcessParam* param);
    int ProcedureREADDIR(CInputStream* in, COutputStream* out, ProcessParam* param);
    int ProcedureREADDIRPLUS(CInputStream* in, COutputStream* out, ProcessParam* param);
    int ProcedureFSSTAT(CInputStream* in, COutputStream* out, ProcessParam* param);
    int ProcedureFSINFO(CInputStream* in, COutputStream* out, ProcessParam* param);
    int ProcedurePATHCONF(CInputStream* in, COutputStream* out, ProcessParam* param);
    int ProcedureCOMMIT(CInputStream* in, COutputStream* out, ProcessParam* param);
    // Answers "procedure unavailable" (result 2).
    int ProcedureNOIMP(CInputStream* in, COutputStream* out, ProcessParam* param);

    // ---- shared operations -------------------------------------------------------
    // Reads a handle and resolves it to its path (PATH_BUFFER_SIZE bytes);
    // false, with the path empty, when it names no file. A handle of an
    // earlier file table sets *stat to NFS3ERR_STALE.
    bool ReadPath(ProcessParam* param, LogArgu* argu, CInputStream* in, char* path, nfsstat3* stat = nullptr);
    // Reads directory arguments: the directory's path into args->dir, the
    // name into args->name and the entry's canonical path into path. When the
    // directory handle does not resolve, returns false at once and leaves the
    // name unread. A refused name or entry sets *stat (see CheckName and
    // ResolveEntry) and leaves path empty.
    bool ReadPath(ProcessParam* param, LogArgu* argu, CInputStream* in, diropargs3* args, char* path,
                  nfsstat3* stat = nullptr);
    // A name must be one entry: NFS3ERR_NAMETOOLONG over NAME_MAX_LENGTH
    // bytes; NFS3ERR_ACCES when empty or holding "/" or a zero byte.
    static nfsstat3 CheckName(const opaque& name);
    // The path of the entry name of the folder dir into out, never outside
    // dir's export: "." is dir, ".." its parent or, at the export's root, the
    // root itself; links are followed only to their export. A name that does
    // not resolve is the resolved folder plus the name, which must not be a
    // link. NFS3ERR_ACCES for an entry that would leave the export; out stays
    // empty (and the mount check refuses it) when dir lies in no export or
    // cannot be resolved.
    nfsstat3 ResolveEntry(CRuntimeParam* rp, LogArgu* argu, const char* dir, const char* name, char* out);
    // The same, with the root of dir's export given.
    // joinedStat, when given, receives the lstat of dir plus name that the
    // resolution made, if it made one and the entry is no link (known false
    // otherwise).
    nfsstat3 ResolveEntryIn(CRuntimeParam* rp, LogArgu* argu, const std::string& root, const char* dir,
                            const char* name, char* out, struct EntryStat* joinedStat = nullptr);
    // NFS3_OK when path lies in an export that the caller has mounted; the
    // export then becomes the call's ID and IPC ID. NFS3ERR_ACCES for an
    // export mounted by nobody or by another address, NFS3ERR_IO outside
    // every export.
    nfsstat3 CheckProcessParam(ProcessParam* param, LogArgu* argu, const char* path);
    // NFS3ERR_STALE for a null path; with mustExist, NFS3ERR_IO for a missing one.
    nfsstat3 CheckPath(const char* path, bool mustExist);
    // canonical: path is known to be canonical already (see GetFileHandle).
    bool GetNfsFileHandle(ProcessParam* param, LogArgu* argu, const char* path, nfs_fh3* fh, bool canonical = false);
    bool GetNfsFileAttributes(ProcessParam* param, LogArgu* argu, const char* path, fattr3* attr);
    // The same with what earlier steps of the call learnt: known, when set,
    // is the lstat of path taken moments before, and fileSystems remembers
    // the file system ID of each device seen in the same reply.
    bool GetNfsFileAttributes(ProcessParam* param, LogArgu* argu, const char* path, fattr3* attr,
                              const struct EntryStat& known, struct FileSystemIds& fileSystems);
    static unsigned long long FileSystemIdOf(const char* path, const struct stat& st, FileSystemIds& fileSystems);
    // Pre-operation attributes are never taken: always false, attr untouched.
    bool GetNfsFileAttributes(const char* path, wcc_attr* attr);

    // The order of folders' entries kept between the pages of a listing.
    CListingCache& GetListingCache() { return m_ListingCache; }
    // Off: every entry name is resolved with realpath, even where the
    // folder's canonical path and an lstat of the entry would do, and the
    // resolved paths are made canonical again for the file table.
    void SetResolveShortcut(bool enabled) { m_bResolveShortcut = enabled; }

    // Keep the set-ID and permission bits, drop the sticky bit and the file
    // type; the same rule both ways.
    static uint32_t ConvertFileModeToNfsFileMode(uint32_t mode);
    static uint32_t ConvertNfsFileModeToFileMode(uint32_t mode);
    // Writes dir + "/" + name into out (PATH_BUFFER_SIZE bytes). False, with
    // out empty, when an argument is null or the result does not fit.
    static bool AppendFilePath(const char* dir, const char* name, char* out);
    // True for a null name, "." and "..".
    static bool IsInVaildDirName(const char* name);
    // Whether path has the form realpath gives (absolute, no empty, "." or
    // ".." component, no trailing slash); links in it are not looked at.
    static bool IsPlainPath(const char* path);

    // ---- XDR readers: a short input throws CDataTruncatedExpt -------------------
    static bool ReadBool(CInputStream* in);
    static uint32_t ReadUint32(CInputStream* in);
    static uint64_t ReadUint64(CInputStream* in);
    static void Read(CInputStream* in, nfstime3* v);
    static void Read(CInputStream* in, opaque* v);
    // skip: step over the name; otherwise names of PATH_BUFFER_SIZE bytes or
    // more are stepped over and read as empty.
    static void Read(CInputStream* in, filename3* v, bool skip);
    // skip: step over every value present and mark it unset.
    static void Read(CInputStream* in, sattr3* v, bool skip);
    static void Read(CInputStream* in, sattrguard3* v);
    static void Read(CInputStream* in, createhow3* v);
    static void Read(CInputStream* in, mknoddata3* v, bool skip);

    // ---- XDR writers ---------------------------------------------------------------
    static void WriteBool(COutputStream* out, bool v);
    static void WriteUint32(COutputStream* out, uint32_t v);
    static void WriteUint64(COutputStream* out, uint64_t v);
    static void Write(COutputStream* out, const nfstime3& v);
    static void Write(COutputStream* out, const specdata3& v);
    static void Write(COutputStream* out, const fattr3& v);
    // lengthOnly: write the length word only; the caller writes the bytes.
    static void Write(COutputStream* out, const opaque& v, bool lengthOnly);
    static void Write(COutputStream* out, const filename3& v, bool lengthOnly);
    static void Write(COutputStream* out, const nfs_fh3& v, bool lengthOnly);
    static void Write(COutputStream* out, const post_op_attr& v);
    static void Write(COutputStream* out, const wcc_attr& v);
    static void Write(COutputStream* out, const pre_op_attr& v);
    static void Write(COutputStream* out, const wcc_data& v);
    static void Write(COutputStream* out, const post_op_fh3& v);

protected:
    // One call being served: its streams and parameters, the handler's name
    // (the LogArgu of everything the call does), the status so far and the
    // path of the object. Creating it logs the handler's entry line.
    struct NfsCall {
        NfsCall(CNfs3Prog* prog, const char* name, CInputStream* in, COutputStream* out, ProcessParam* param);
        NfsCall(const NfsCall&) = delete;
        NfsCall& operator=(const NfsCall&) = delete;

        CInputStream* in;
        COutputStream* out;
        ProcessParam* param;
        CRuntimeParam* rp;  // param's runtime parameters; may be null
        LogArgu argu;
        nfsstat3 stat = NFS3_OK;
        // The first refusal met while reading the arguments (a stale handle,
        // a bad name); it wins over the checks.
        nfsstat3 argStat = NFS3_OK;
        char path[PATH_BUFFER_SIZE] = "";
    };

    // Common steps of the handlers.
    // Reads the object handle into c.path.
    bool ReadObject(NfsCall& c) { return ReadPath(c.param, &c.argu, c.in, c.path, &c.argStat); }
    // Reads a handle as a skipped name: c.path stays empty, so the mount
    // check that follows refuses it.
    void SkipObject(NfsCall& c);
    // c.argStat if the arguments were refused, else the mount check of c.path.
    nfsstat3 CheckMount(NfsCall& c);
    // Mount check of c.path, then (when it passes) the existence check.
    nfsstat3 CheckObject(NfsCall& c, bool mustExist);
    // CheckObject(c, true), then the attributes; NFS3ERR_IO when they cannot
    // be built.
    nfsstat3 CheckObject(NfsCall& c, fattr3& attr);
    // Applies attr to c.path as SETATTR does; NFS3ERR_INVAL when the time
    // cannot be set or the file service fails.
    nfsstat3 ApplyAttributes(NfsCall& c, const sattr3& attr);
    // Reads directory arguments of a procedure that changes the name space:
    // the entry's full path into c.path. A name that is not one entry of the
    // folder ("." or "..") leaves c.path empty, so that the checks refuse it:
    // no such name may reach the folder itself or its parent.
    bool ReadEntry(NfsCall& c, diropargs3& args) { return ReadEntry(c, args, c.path); }
    bool ReadEntry(NfsCall& c, diropargs3& args, char* path);
    static bool IsEntryName(const char* name);
    // Whether joined (dir plus an entry name, dir canonical) is canonical
    // as it stands: an entry that is no link, or a missing entry of a folder
    // that exists.
    static bool IsPlainEntry(const char* dir, const char* joined, struct EntryStat* joinedStat);
    // Reads directory arguments as skipped names: c.path stays empty; a name
    // too long still sets c.argStat.
    void SkipEntry(NfsCall& c);
    // stat, or NFS3ERR_ACCES whatever it was when the server is read-only.
    nfsstat3 RefuseIfReadOnly(nfsstat3 stat) const { return m_bReadOnly ? NFS3ERR_ACCES : stat; }
    // The checks before an entry is made (CREATE, MKDIR): mount check, then
    // read-only.
    nfsstat3 CheckNewEntry(NfsCall& c) { return RefuseIfReadOnly(CheckObject(c, false)); }
    // The checks before an entry is changed (REMOVE, RMDIR, RENAME): mount
    // and existence checks, whose NFS3ERR_IO becomes NFS3ERR_NOENT; else
    // read-only.
    nfsstat3 CheckOldEntry(NfsCall& c);
    // Writes c.stat.
    void WriteStatus(NfsCall& c) { WriteUint32(c.out, c.stat); }
    // The start of the file-system information replies: reads the object,
    // checks it, writes the status and its attributes (absent on failure);
    // true when the handler goes on with its figures.
    bool BeginWithAttributes(NfsCall& c);
    // The reply of the procedures that make an entry: status; on success the
    // handle and attributes of made (both absent for null); then the
    // directory's wcc_data, empty.
    void WriteNewEntryReply(NfsCall& c, const char* made);
    // Status followed by count empty wcc_data; the handler's result.
    int EndWithWccData(NfsCall& c, int count = 1);
    // A post_op_attr: present with *attr, absent for null.
    static void WritePostOpAttr(COutputStream* out, const fattr3* attr);
    // The attributes of c.path as a post_op_attr, absent when they cannot be built.
    void WritePostOpAttr(NfsCall& c, const char* path);
    // A wcc_data whose before and after are both absent.
    static void WriteEmptyWccData(COutputStream* out);
    // Logs the end line with c.stat; the handler's result (0).
    int End(NfsCall& c);

    // Line gated by one log bit; LOG_ERROR lines go out as errors.
    void Log(CRuntimeParam* rp, int bit, const char* fmt, ...) __attribute__((format(printf, 4, 5)));

    // READDIR and READDIRPLUS: the same listing, plus attributes and handles.
    int ListDirectory(NfsCall& c, bool plus);
    // READ's data: at most count bytes (65536 at most) of c.path at offset,
    // read straight into the reply where the data goes, behind the status
    // and the header still to be written.
    nfsstat3 ReadIntoReply(NfsCall& c, uint64_t offset, uint32_t count, uint32_t* read, bool* eof);
    // Puts the change behind fd on stable storage before the reply leaves
    // (fdatasync of a file, fsync of a folder): in the connection's batch
    // when there is one, else at once. NFS3ERR_IO when fd is closed or the
    // sync fails; a failure in the batch turns the reply into NFS3ERR_IO
    // with wccCount empty wcc_data.
    nfsstat3 SyncBeforeReply(NfsCall& c, CFileDescriptor fd, bool folder, int wccCount);
    // The same for the folder holding the entry path.
    nfsstat3 SyncFolderOf(NfsCall& c, const char* path, int wccCount);

    unsigned int m_iUId = 0;
    unsigned int m_iGId = 0;
    unsigned long long m_iSysUpTime;
    unsigned int m_iFSF3Properties = FSF3_HOMOGENEOUS | FSF3_CANSETTIME;
    bool m_bReadOnly = false;
    bool m_bResolveShortcut = true;
    CListingCache m_ListingCache;
};
