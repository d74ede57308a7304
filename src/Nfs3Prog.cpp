#include "Nfs3Prog.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "DataTruncatedExpt.h"
#include "InputStream.h"
#include "OutputStream.h"
#include "Socket.h"
#include "StableBatch.h"

namespace {

constexpr uint32_t MODE_KEPT_BITS = 0xDFF;  // set-ID bits and permissions; never the sticky bit 0x200
constexpr int DIRECTORY_PAGE_ENTRIES = 10;
constexpr int DEFAULT_FOLDER_MODE = 0755;

// FSINFO's fixed transfer sizes; they match the caps of READ and WRITE.
constexpr uint32_t FSINFO_RTMAX = 65536;
constexpr uint32_t FSINFO_RTPREF = 65536;
constexpr uint32_t FSINFO_RTMULT = 512;
constexpr uint32_t FSINFO_WTMAX = 16384;
constexpr uint32_t FSINFO_WTPREF = 16384;
constexpr uint32_t FSINFO_WTMULT = 512;
constexpr uint32_t FSINFO_DTPREF = 8192;
constexpr uint32_t READ_MAX_COUNT = FSINFO_RTMAX;
constexpr uint32_t WRITE_MAX_COUNT = FSINFO_WTMAX;
// What a successful READ puts between its status and its data: the file's
// post_op_attr (absent), count, eof and the data's length word.
constexpr uint32_t READ_HEADER_SIZE = 4 * 4;
// Over UDP a reply must fit one datagram (65,507 bytes with its RPC header
// and READ's results): longer reads are cut short, which clients take as a
// short read.
constexpr uint32_t READ_MAX_DATAGRAM_COUNT = 61440;

const char* NameOf(const LogArgu* argu) { return argu && argu->pcName ? argu->pcName : ""; }
CRuntimeParam* RuntimeOf(ProcessParam* param) { return param ? param->pRuntimeParam : nullptr; }

// Whether path is the folder root or lies beneath it; both are compared with
// a trailing slash, as the export table does.
bool IsInside(const char* path, const std::string& root) {
    if (root.empty()) return true;
    // root and path as the table compares them, each with one trailing
    // slash added unless it has one, without copying either.
    const size_t rootLength = root.back() == '/' ? root.size() : root.size() + 1;
    const size_t length = strlen(path);
    if (length >= rootLength)
        return memcmp(path, root.data(), root.size()) == 0 && (root.size() == rootLength || path[root.size()] == '/');
    // Only the slash added to path can complete the match.
    return length > 0 && length + 1 == rootLength && path[length - 1] != '/' && memcmp(path, root.data(), length) == 0;
}

// Copies src into out (PATH_BUFFER_SIZE bytes), cut to fit.
void CopyPath(char* out, const char* src) {
    const size_t length = strnlen(src, PATH_BUFFER_SIZE - 1);
    memcpy(out, src, length);
    out[length] = '\0';
}

uint32_t FileTypeOf(mode_t mode) {
    switch (mode & 0xF000) {
        case 0x1000: return NF3FIFO;
        case 0x2000: return NF3CHR;
        case 0x4000: return NF3DIR;
        case 0x6000: return NF3BLK;
        case 0x8000: return NF3REG;
        case 0xA000: return NF3LNK;
        case 0xC000: return NF3SOCK;
        default: return 0;
    }
}

}  // namespace

CNfs3Prog::CNfs3Prog(CUtilities* utilities)
    : CRpcProg(utilities), m_iSysUpTime(CUtilities::GetCurrentSystemTimeInMilliseconds()) {}

CNfs3Prog::~CNfs3Prog() = default;

void CNfs3Prog::SetUserID(unsigned int uid, unsigned int gid) {
    m_iUId = uid;
    m_iGId = gid;
}

// ---- dispatch ------------------------------------------------------------------

int CNfs3Prog::Process(CInputStream* in, COutputStream* out, ProcessParam* param) {
    typedef int (CNfs3Prog::*Handler)(CInputStream*, COutputStream*, ProcessParam*);
    static const Handler handlers[PROCEDURE_COUNT] = {
        &CNfs3Prog::ProcedureNULL,    &CNfs3Prog::ProcedureGETATTR,  &CNfs3Prog::ProcedureSETATTR,
        &CNfs3Prog::ProcedureLOOKUP,  &CNfs3Prog::ProcedureACCESS,   &CNfs3Prog::ProcedureREADLINK,
        &CNfs3Prog::ProcedureREAD,    &CNfs3Prog::ProcedureWRITE,    &CNfs3Prog::ProcedureCREATE,
        &CNfs3Prog::ProcedureMKDIR,   &CNfs3Prog::ProcedureSYMLINK,  &CNfs3Prog::ProcedureMKNOD,
        &CNfs3Prog::ProcedureREMOVE,  &CNfs3Prog::ProcedureRMDIR,    &CNfs3Prog::ProcedureRENAME,
        &CNfs3Prog::ProcedureLINK,    &CNfs3Prog::ProcedureREADDIR,  &CNfs3Prog::ProcedureREADDIRPLUS,
        &CNfs3Prog::ProcedureFSSTAT,  &CNfs3Prog::ProcedureFSINFO,   &CNfs3Prog::ProcedurePATHCONF,
        &CNfs3Prog::ProcedureCOMMIT,
    };
    CRuntimeParam* rp = RuntimeOf(param);
    LogArgu argu{"Nfs3Prog.Process"};
    Log(rp, CRuntimeParam::LOG_PROC_FUNC_NAME, "[%s]", argu.pcName);
    try {
        if (m_pUtilities == nullptr || param == nullptr || param->iProc >= PROCEDURE_COUNT)
            return ProcedureNOIMP(in, out, param);
        return (this->*handlers[param->iProc])(in, out, param);
    } catch (const CDataTruncatedExpt& e) {
        Log(rp, CRuntimeParam::LOG_ERROR, "[%s] %s", argu.pcName, e.what());
        return RESULT_TRUNCATED;
    } catch (...) {
        Log(rp, CRuntimeParam::LOG_ERROR, "[%s] Unknown exception", argu.pcName);
        return RESULT_GARBAGE_ARGS;
    }
}

int CNfs3Prog::ProcedureNOIMP(CInputStream*, COutputStream*, ProcessParam* param) {
    Log(RuntimeOf(param), CRuntimeParam::LOG_PROC_FUNC_NAME, "[%s]", "Nfs3Prog.ProcedureNOIMP");
    return RESULT_PROC_UNAVAIL;
}

// ---- the call skeleton -----------------------------------------------------------

CNfs3Prog::NfsCall::NfsCall(CNfs3Prog* prog, const char* name, CInputStream* in, COutputStream* out,
                            ProcessParam* param)
    : in(in), out(out), param(param), rp(RuntimeOf(param)), argu{name} {
    prog->Log(rp, CRuntimeParam::LOG_PROC_FUNC_NAME, "[%s]", name);
}

void CNfs3Prog::SkipObject(NfsCall& c) {
    Read(c.in, static_cast<filename3*>(nullptr), true);
    c.path[0] = '\0';
}

bool CNfs3Prog::ReadEntry(NfsCall& c, diropargs3& args, char* path) {
    nfsstat3 refused = NFS3_OK;
    bool read = ReadPath(c.param, &c.argu, c.in, &args, path, &refused);
    if (c.argStat == NFS3_OK) c.argStat = refused;
    if (!read) return false;
    if (IsEntryName(args.name.sPath)) return true;
    Log(c.rp, CRuntimeParam::LOG_ERROR, "[%s] Invalid entry name", c.argu.pcName);
    path[0] = '\0';
    return false;
}

bool CNfs3Prog::IsEntryName(const char* name) {
    return name != nullptr && name[0] != '\0' && !IsInVaildDirName(name) && strchr(name, '/') == nullptr;
}

void CNfs3Prog::SkipEntry(NfsCall& c) {
    SkipObject(c);
    opaque name;
    Read(c.in, &name);
    if (name.iBufLen > NAME_MAX_LENGTH && c.argStat == NFS3_OK) c.argStat = NFS3ERR_NAMETOOLONG;
}

nfsstat3 CNfs3Prog::CheckMount(NfsCall& c) {
    if (c.argStat != NFS3_OK) return c.argStat;
    return CheckProcessParam(c.param, &c.argu, c.path);
}

nfsstat3 CNfs3Prog::CheckObject(NfsCall& c, bool mustExist) {
    nfsstat3 stat = CheckMount(c);
    return stat == NFS3_OK ? CheckPath(c.path, mustExist) : stat;
}

nfsstat3 CNfs3Prog::CheckObject(NfsCall& c, fattr3& attr) {
    nfsstat3 stat = CheckMount(c);
    if (stat != NFS3_OK) return stat;
    // What is no link exists exactly when lstat finds it, and that lstat
    // gives its attributes too. A link is followed for the existence check,
    // which may move its access time: its attributes are taken afterwards.
    EntryStat known;
    if (lstat(c.path, &known.st) == 0 && !S_ISLNK(known.st.st_mode))
        known.known = true;
    else if (CheckPath(c.path, true) != NFS3_OK)
        return NFS3ERR_IO;
    FileSystemIds fileSystems;
    return GetNfsFileAttributes(c.param, &c.argu, c.path, &attr, known, fileSystems) ? NFS3_OK : NFS3ERR_IO;
}

void CNfs3Prog::WritePostOpAttr(COutputStream* out, const fattr3* attr) {
    WriteBool(out, attr != nullptr);
    if (attr) Write(out, *attr);
}

void CNfs3Prog::WritePostOpAttr(NfsCall& c, const char* path) {
    fattr3 attr;
    bool built = path != nullptr && GetNfsFileAttributes(c.param, &c.argu, path, &attr);
    WritePostOpAttr(c.out, built ? &attr : nullptr);
}

void CNfs3Prog::WriteEmptyWccData(COutputStream* out) { Write(out, wcc_data()); }

nfsstat3 CNfs3Prog::CheckOldEntry(NfsCall& c) {
    nfsstat3 stat = CheckObject(c, true);
    // A missing entry is told even to a read-only server's clients.
    return stat == NFS3ERR_IO ? NFS3ERR_NOENT : RefuseIfReadOnly(stat);
}

void CNfs3Prog::WriteNewEntryReply(NfsCall& c, const char* made) {
    WriteStatus(c);
    if (c.stat == NFS3_OK) {
        // Taking the handle gives a new entry its file ID.
        post_op_fh3 fh;
        fh.handle_follows = made != nullptr && GetNfsFileHandle(c.param, &c.argu, made, &fh.handle);
        Write(c.out, fh);
        WritePostOpAttr(c, made);
    }
    WriteEmptyWccData(c.out);  // dir_wcc
}

int CNfs3Prog::EndWithWccData(NfsCall& c, int count) {
    WriteStatus(c);
    for (int i = 0; i < count; ++i) WriteEmptyWccData(c.out);
    return End(c);
}

nfsstat3 CNfs3Prog::ApplyAttributes(NfsCall& c, const sattr3& attr) {
    // Server time passes as "set" with the zero time the reader left.
    bool setAtime = attr.atime.set_it != DONT_CHANGE;
    bool setMtime = attr.mtime.set_it != DONT_CHANGE;
    if ((m_iFSF3Properties & FSF3_CANSETTIME) == 0 && (setAtime || setMtime)) {
        Log(c.rp, CRuntimeParam::LOG_PROC_FUNC_ARGU, "[%s] Server don't allow settime", c.argu.pcName);
        return NFS3ERR_INVAL;
    }
    // The file service applies the mode as given: drop the sticky bit here.
    if (!m_pUtilities->UpdateFileAttributes(c.rp, &c.argu, c.path, attr.mode.set_it,
                                            ConvertNfsFileModeToFileMode(attr.mode.mode), attr.uid.set_it,
                                            attr.uid.uid, attr.gid.set_it, attr.gid.gid, attr.size.set_it,
                                            attr.size.size, setAtime, attr.atime.atime.seconds,
                                            attr.atime.atime.nseconds, setMtime, attr.mtime.mtime.seconds,
                                            attr.mtime.mtime.nseconds)) {
        Log(c.rp, CRuntimeParam::LOG_ERROR, "[%s] Update file attribute to %s fail", c.argu.pcName, c.path);
        return NFS3ERR_INVAL;
    }
    return NFS3_OK;
}

int CNfs3Prog::End(NfsCall& c) {
    Log(c.rp, CRuntimeParam::LOG_PROC_FUNC_ARGU, "[%s] End stat=%d", c.argu.pcName, (int)c.stat);
    return RESULT_DONE;
}

void CNfs3Prog::Log(CRuntimeParam* rp, int bit, const char* fmt, ...) {
    if (rp == nullptr || m_pUtilities == nullptr || !rp->IsLogEnabled(bit)) return;
    char text[LOG_MESSAGE_SIZE];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    if (bit == CRuntimeParam::LOG_ERROR)
        m_pUtilities->LogError(rp, text);
    else
        m_pUtilities->LogInfo(rp, text);
}

// ---- attribute and lookup procedures ----------------------------------------------

int CNfs3Prog::ProcedureNULL(CInputStream*, COutputStream*, ProcessParam* param) {
    Log(RuntimeOf(param), CRuntimeParam::LOG_PROC_FUNC_NAME, "[%s]", "Nfs3Prog.ProcedureNULL");
    return RESULT_DONE;
}

int CNfs3Prog::ProcedureGETATTR(CInputStream* in, COutputStream* out, ProcessParam* param) {
    NfsCall c(this, "Nfs3Prog.ProcedureGETATTR", in, out, param);
    ReadObject(c);
    fattr3 attr;
    c.stat = CheckObject(c, attr);
    WriteStatus(c);
    if (c.stat == NFS3_OK) Write(out, attr);
    return End(c);
}

int CNfs3Prog::ProcedureSETATTR(CInputStream* in, COutputStream* out, ProcessParam* param) {
    NfsCall c(this, "Nfs3Prog.ProcedureSETATTR", in, out, param);
    ReadObject(c);
    sattr3 attr;
    Read(in, &attr, false);
    sattrguard3 guard;
    Read(in, &guard);
    Log(c.rp, CRuntimeParam::LOG_PROC_FUNC_ARGU, "[%s] Guard check: %d, time: %lld", c.argu.pcName,
        (int)guard.check, (long long)guard.obj_ctime.seconds);
    c.stat = CheckObject(c, true);
    // No pre-operation attributes are taken, so the guard meets a zero ctime.
    wcc_attr before;
    GetNfsFileAttributes(c.path, &before);
    if (c.stat == NFS3_OK && guard.check && guard.obj_ctime.seconds != before.ctime.seconds) {
        c.stat = NFS3ERR_NOT_SYNC;
        Log(c.rp, CRuntimeParam::LOG_PROC_FUNC_ARGU, "[%s] Guard check fail, client: %lld, server: %lld",
            c.argu.pcName, (long long)guard.obj_ctime.seconds, (long long)before.ctime.seconds);
    }
    if (c.stat == NFS3_OK) c.stat = ApplyAttributes(c, attr);
    // A new size is stable before the reply; a redirected file's size is
    // its controller's.
    if (c.stat == NFS3_OK && attr.size.set_it && !m_pUtilities->GetRedirectedFile(c.path))
        c.stat = SyncBeforeReply(c, CStableBatch::OpenForSync(c.path, false), false, 1);
    WriteStatus(c);
    WriteEmptyWccData(out);
    return End(c);
}

int CNfs3Prog::ProcedureLOOKUP(CInputStream* in, COutputStream* out, ProcessParam* param) {
    NfsCall c(this, "Nfs3Prog.ProcedureLOOKUP", in, out, param);
    diropargs3 args;
    ReadPath(param, &c.argu, in, &args, c.path, &c.argStat);
    c.stat = CheckObject(c, true);
    if (c.stat == NFS3ERR_IO) c.stat = NFS3ERR_NOENT;
    WriteStatus(c);
    if (c.stat == NFS3_OK) {
        // The handle goes out as it stands, whether or not an ID was found.
        nfs_fh3 fh{};
        GetNfsFileHandle(param, &c.argu, c.path, &fh, m_bResolveShortcut);  // resolved by ReadPath
        Write(out, fh, false);
        WritePostOpAttr(c, c.path);
    }
    WritePostOpAttr(out, nullptr);  // the directory's attributes are never sent
    return End(c);
}

int CNfs3Prog::ProcedureACCESS(CInputStream* in, COutputStream* out, ProcessParam* param) {
    NfsCall c(this, "Nfs3Prog.ProcedureACCESS", in, out, param);
    ReadObject(c);
    uint32_t access = ReadUint32(in);
    c.stat = CheckObject(c, true);
    Log(c.rp, CRuntimeParam::LOG_PROC_FUNC_ARGU, "[%s] Readonly: %d, access: %x", c.argu.pcName, (int)m_bReadOnly,
        access);
    // No permission is examined: everything asked is granted, less the
    // changing kinds (execute included) on a read-only server.
    if (m_bReadOnly) access &= ~(ACCESS3_MODIFY | ACCESS3_EXTEND | ACCESS3_DELETE | ACCESS3_EXECUTE);
    WriteStatus(c);
    if (c.stat == NFS3_OK) {
        WritePostOpAttr(c, c.path);
        WriteUint32(out, access);
    } else {
        WritePostOpAttr(out, nullptr);
    }
    return End(c);
}

int CNfs3Prog::ProcedureREADLINK(CInputStream* in, COutputStream* out, ProcessParam* param) {
    NfsCall c(this, "Nfs3Prog.ProcedureREADLINK", in, out, param);
    // Symbolic links are never read: the handle is stepped over, and the
    // mount check refuses the empty path.
    SkipObject(c);
    c.stat = CheckMount(c);
    WriteStatus(c);
    if (c.stat == NFS3_OK) WriteUint32(out, 0);  // an empty link text
    WritePostOpAttr(out, nullptr);
    return End(c);
}

// ---- directory listing --------------------------------------------------------------

int CNfs3Prog::ProcedureREADDIR(CInputStream* in, COutputStream* out, ProcessParam* param) {
    NfsCall c(this, "Nfs3Prog.ProcedureREADDIR", in, out, param);
    return ListDirectory(c, false);
}

int CNfs3Prog::ProcedureREADDIRPLUS(CInputStream* in, COutputStream* out, ProcessParam* param) {
    NfsCall c(this, "Nfs3Prog.ProcedureREADDIRPLUS", in, out, param);
    return ListDirectory(c, true);
}

int CNfs3Prog::ListDirectory(NfsCall& c, bool plus) {
    ReadObject(c);
    uint64_t cookie = ReadUint64(c.in);
    uint64_t cookieverf = ReadUint64(c.in);
    // The sizes are logged only: a page is bounded by its entry count.
    uint32_t count = ReadUint32(c.in);
    if (plus) {
        uint32_t maxcount = ReadUint32(c.in);
        Log(c.rp, CRuntimeParam::LOG_PROC_FUNC_ARGU, "[%s] Cookie=%llu, cookieverf=%llu, dircount=%u, maxcount=%u",
            c.argu.pcName, (unsigned long long)cookie, (unsigned long long)cookieverf, count, maxcount);
    } else {
        Log(c.rp, CRuntimeParam::LOG_PROC_FUNC_ARGU, "[%s] Cookie=%llu, cookieverf=%llu, count=%u", c.argu.pcName,
            (unsigned long long)cookie, (unsigned long long)cookieverf, count);
    }
    fattr3 dirAttr;
    c.stat = CheckObject(c, dirAttr);
    WriteStatus(c);
    if (c.stat != NFS3_OK) {
        WritePostOpAttr(c.out, nullptr);
        return End(c);
    }
    WritePostOpAttr(c.out, &dirAttr);
    WriteUint64(c.out, cookieverf);  // echoed, never checked

    // The cookie is a position: the page after the entries that earlier
    // pages gave, in the order a fresh scan finds (kept between pages while
    // the folder is unchanged). A directory that cannot be opened lists as
    // empty.
    MountInfo mount;
    m_pUtilities->GetMountInfoByPath(c.rp, &c.argu, c.path, &mount);
    std::vector<std::string> names;
    FileSystemIds fileSystems;
    bool eof = true;
    m_ListingCache.Page(c.path, (int32_t)(uint32_t)cookie, DIRECTORY_PAGE_ENTRIES, &names, &eof);
    for (const std::string& entry : names) {
        const char* name = entry.c_str();
        WriteBool(c.out, true);  // an entry follows
        char full[PATH_BUFFER_SIZE], target[PATH_BUFFER_SIZE];
        bool joined = AppendFilePath(c.path, name, full);
        // The file table ID, which also gives the entry its handle; none
        // for a link that leads out of the export. The target is canonical.
        EntryStat entryStat;
        bool reachable =
            joined &&
            ResolveEntryIn(c.rp, &c.argu, mount.sLocalMountPath, c.path, name, target, &entryStat) == NFS3_OK &&
            target[0] != '\0';
        unsigned int id =
            reachable ? m_pUtilities->GetFileID(c.rp, &c.argu, target, m_bResolveShortcut) : NO_FILE_ID;
        WriteUint64(c.out, id);
        Write(c.out, opaque{reinterpret_cast<const unsigned char*>(name), (uint32_t)entry.size()}, false);
        WriteUint64(c.out, ++cookie);
        Log(c.rp, CRuntimeParam::LOG_PROC_FUNC_ARGU, "[%s] Cookie=%llu, name=%s", c.argu.pcName,
            (unsigned long long)cookie, name);
        if (plus) {
            fattr3 attr;
            bool built = joined && GetNfsFileAttributes(c.param, &c.argu, full, &attr, entryStat, fileSystems);
            WritePostOpAttr(c.out, built ? &attr : nullptr);
            post_op_fh3 fh;
            fh.handle_follows =
                reachable && GetNfsFileHandle(c.param, &c.argu, target, &fh.handle, m_bResolveShortcut);
            Write(c.out, fh);
        }
    }
    WriteBool(c.out, false);  // no further entry
    WriteBool(c.out, eof);
    return End(c);
}

// ---- file system information -------------------------------------------------------

bool CNfs3Prog::BeginWithAttributes(NfsCall& c) {
    ReadObject(c);
    fattr3 attr;
    c.stat = CheckObject(c, attr);
    WriteStatus(c);
    WritePostOpAttr(c.out, c.stat == NFS3_OK ? &attr : nullptr);
    return c.stat == NFS3_OK;
}

int CNfs3Prog::ProcedureFSSTAT(CInputStream* in, COutputStream* out, ProcessParam* param) {
    NfsCall c(this, "Nfs3Prog.ProcedureFSSTAT", in, out, param);
    if (!BeginWithAttributes(c)) return End(c);
    WriteUint64(out, CUtilities::GetTotalDiskSpace(c.path));
    WriteUint64(out, CUtilities::GetFreeDiskSpace(c.path));
    WriteUint64(out, CUtilities::GetFreeDiskSpaceAvailableToCaller(c.path));
    WriteUint64(out, CUtilities::GetTotalFileSlots(c.path));
    WriteUint64(out, CUtilities::GetFreeFileSlots(c.path));
    WriteUint64(out, CUtilities::GetFreeFileSlotsAvailableToCaller(c.path));
    WriteUint32(out, 0);  // invarsec: the figures may change at any moment
    return End(c);
}

int CNfs3Prog::ProcedureFSINFO(CInputStream* in, COutputStream* out, ProcessParam* param) {
    NfsCall c(this, "Nfs3Prog.ProcedureFSINFO", in, out, param);
    if (!BeginWithAttributes(c)) return End(c);
    WriteUint32(out, FSINFO_RTMAX);
    WriteUint32(out, FSINFO_RTPREF);
    WriteUint32(out, FSINFO_RTMULT);
    WriteUint32(out, FSINFO_WTMAX);
    WriteUint32(out, FSINFO_WTPREF);
    WriteUint32(out, FSINFO_WTMULT);
    WriteUint32(out, FSINFO_DTPREF);
    WriteUint64(out, CUtilities::GetMaxFileSize(c.path));
    nfstime3 timeDelta;
    timeDelta.seconds = 1;
    Write(out, timeDelta);
    WriteUint32(out, m_iFSF3Properties);
    return End(c);
}

int CNfs3Prog::ProcedurePATHCONF(CInputStream* in, COutputStream* out, ProcessParam* param) {
    NfsCall c(this, "Nfs3Prog.ProcedurePATHCONF", in, out, param);
    // The handle is stepped over, so the mount check always refuses.
    SkipObject(c);
    c.stat = CheckMount(c);
    WriteStatus(c);
    WritePostOpAttr(out, nullptr);
    if (c.stat == NFS3_OK) {
        WriteUint32(out, 0);    // linkmax
        WriteUint32(out, 255);  // name_max
        WriteBool(out, false);  // no_trunc
        WriteBool(out, true);   // chown_restricted
        WriteBool(out, true);   // case_insensitive
        WriteBool(out, true);   // case_preserving
    }
    return End(c);
}

// ---- data procedures -----------------------------------------------------------------

int CNfs3Prog::ProcedureREAD(CInputStream* in, COutputStream* out, ProcessParam* param) {
    NfsCall c(this, "Nfs3Prog.ProcedureREAD", in, out, param);
    ReadObject(c);
    uint64_t offset = ReadUint64(in);
    uint32_t count = ReadUint32(in);
    c.stat = CheckObject(c, true);
    const uint32_t start = out->GetBufferIndex();
    WriteStatus(c);
    uint32_t read = 0;
    bool eof = true;
    if (c.stat == NFS3_OK) {
        Log(c.rp, CRuntimeParam::LOG_PROC_FUNC_ARGU, "[%s] Offset=%llu, length=%u", c.argu.pcName,
            (unsigned long long)offset, count);
        c.stat = ReadIntoReply(c, offset, count, &read, &eof);
        if (c.stat != NFS3_OK) {
            Log(c.rp, CRuntimeParam::LOG_ERROR, "[%s] Read fail", c.argu.pcName);
            out->Seek(start, SEEK_SET);
            WriteStatus(c);
        }
    }
    WritePostOpAttr(out, nullptr);  // file attributes are never sent with READ
    if (c.stat == NFS3_OK) {
        Log(c.rp, CRuntimeParam::LOG_PROC_FUNC_ARGU, "[%s] Read=%u (eof=%s)", c.argu.pcName, read, eof ? "T" : "F");
        WriteUint32(out, read);
        WriteBool(out, eof);
        WriteUint32(out, read);     // the data's length word
        out->Write(nullptr, read);  // the data is in place already
        out->WriteRemainOpaque(read);
    }
    return End(c);
}

nfsstat3 CNfs3Prog::ReadIntoReply(NfsCall& c, uint64_t offset, uint32_t count, uint32_t* read, bool* eof) {
    // The data goes where it will be sent, behind the status and the header
    // that follows it. Nothing is written into the reply before the read
    // succeeds, so that a failure leaves no trace of it.
    // The room is taken from the reply's own start, whatever replies stand
    // before it; the batch leaves at least 64 KiB and a header free.
    const uint32_t free = c.out->GetFreeReplySize();
    const uint32_t room = free > READ_HEADER_SIZE ? free - READ_HEADER_SIZE : 0;
    if (count > room) {
        Log(c.rp, CRuntimeParam::LOG_ERROR, "[%s] Count bigger than free buffer (path=%s, offset=%llu length=%u)",
            c.argu.pcName, c.path, (unsigned long long)offset, count);
        return NFS3ERR_INVAL;
    }
    // No file reaches past 2^63 - 1, and the system cannot seek there: such
    // an offset is past the end (a failed seek would read wherever the
    // cached descriptor happens to stand).
    if (count == 0 || offset > (uint64_t)INT64_MAX) return NFS3_OK;
    uint32_t cap = c.param && c.param->iTransport == CSocket::TYPE_UDP ? READ_MAX_DATAGRAM_COUNT : READ_MAX_COUNT;
    // Never past the buffer itself.
    const uint32_t left = c.out->GetFreeBufferSize();
    if (cap > left - std::min(left, READ_HEADER_SIZE)) cap = left - std::min(left, READ_HEADER_SIZE);
    int result = m_pUtilities->ReadFile(c.rp, &c.argu, c.path, offset, SEEK_SET,
                                        c.out->GetCurrentBuffer() + READ_HEADER_SIZE,
                                        count < cap ? count : cap, eof);
    if (result < 0) {
        Log(c.rp, CRuntimeParam::LOG_ERROR, "[%s] Read return -1 (path=%s, offset=%llu length=%u)", c.argu.pcName,
            c.path, (unsigned long long)offset, count);
        return NFS3ERR_INVAL;
    }
    *read = (uint32_t)result;
    return NFS3_OK;
}

int CNfs3Prog::ProcedureWRITE(CInputStream* in, COutputStream* out, ProcessParam* param) {
    NfsCall c(this, "Nfs3Prog.ProcedureWRITE", in, out, param);
    ReadObject(c);
    uint64_t offset = ReadUint64(in);
    uint32_t count = ReadUint32(in);
    ReadUint32(in);  // stable: every write goes through to the file
    opaque data;
    Read(in, &data);
    c.stat = RefuseIfReadOnly(CheckObject(c, true));
    uint32_t written = 0;
    if (c.stat == NFS3_OK) {
        Log(c.rp, CRuntimeParam::LOG_PROC_FUNC_ARGU, "[%s] Offset=%llu, length=%u, count=%u", c.argu.pcName,
            (unsigned long long)offset, data.iBufLen, count);
        // Within the smallest limit of any file system the limit of this one
        // need not be looked up: the answer is the same.
        const uint64_t smallest = CUtilities::SMALLEST_MAX_FILE_SIZE;
        const uint64_t maxSize =
            offset <= smallest && count <= smallest - offset ? smallest : CUtilities::GetMaxFileSize(c.path);
        if (offset > maxSize || count > maxSize - offset) {
            c.stat = NFS3ERR_FBIG;
        } else if (count != 0) {
            // The count, not the data's own length, says how much to write;
            // it is bounded by the bytes received from the data on, so that
            // nothing outside the input buffer is taken.
            const uint32_t received = (uint32_t)(in->GetCurrentBuffer() - data.pBuf) + in->GetFilledBufferSize();
            uint32_t length = count < WRITE_MAX_COUNT ? count : WRITE_MAX_COUNT;
            if (length > received) length = received;
            // A batch that holds a descriptor of this file from an earlier
            // write lends it, so that this write needs no duplicate of its own.
            CStableBatch* batch = c.param != nullptr ? c.param->pStableBatch : nullptr;
            CUtilities::WriteSync sync;
            if (batch != nullptr) sync.held = batch->HeldFor(c.path, &sync.closes);
            int result = m_pUtilities->WriteFile(c.rp, &c.argu, c.path, offset, SEEK_SET, data.pBuf, length, &sync);
            if (result < 0)
                c.stat = NFS3ERR_INVAL;
            else
                written = (uint32_t)result;
            // FILE_SYNC is true: the data is on stable storage before the
            // reply leaves. A redirected file is answered by its controller.
            if (result > 0 && batch != nullptr)
                batch->AddWritten(c.path, std::move(sync.duplicate), sync.held, sync.closes);
            else if (result > 0 && sync.duplicate.IsOpen())
                c.stat = SyncBeforeReply(c, std::move(sync.duplicate), false, 1);
        }
    }
    if (c.stat != NFS3_OK) {
        Log(c.rp, CRuntimeParam::LOG_ERROR, "[%s] Write fail", c.argu.pcName);
        return EndWithWccData(c);
    }
    Log(c.rp, CRuntimeParam::LOG_PROC_FUNC_ARGU, "[%s] Write=%u", c.argu.pcName, written);
    WriteStatus(c);
    WriteEmptyWccData(out);
    WriteUint32(out, written);
    WriteUint32(out, FILE_SYNC);  // whatever was asked: the data is on stable storage
    WriteUint64(out, m_iSysUpTime);  // the verifier changes only with a new program
    return End(c);
}

int CNfs3Prog::ProcedureCOMMIT(CInputStream* in, COutputStream* out, ProcessParam* param) {
    NfsCall c(this, "Nfs3Prog.ProcedureCOMMIT", in, out, param);
    // Every WRITE is FILE_SYNC, so there is never anything to commit: the
    // handle is stepped over and the mount check refuses the empty path.
    SkipObject(c);
    in->Skip(8 + 4);  // offset, count
    c.stat = CheckMount(c);
    WriteStatus(c);
    WriteEmptyWccData(out);
    if (c.stat == NFS3_OK) WriteUint64(out, 0);  // verifier
    return End(c);
}

nfsstat3 CNfs3Prog::SyncBeforeReply(NfsCall& c, CFileDescriptor fd, bool folder, int wccCount) {
    if (!fd.IsOpen()) {
        Log(c.rp, CRuntimeParam::LOG_ERROR, "[%s] Cannot open to sync: %s", c.argu.pcName, c.path);
        return NFS3ERR_IO;
    }
    if (c.param != nullptr && c.param->pStableBatch != nullptr) {
        c.param->pStableBatch->Add(std::move(fd), folder, wccCount);
        return NFS3_OK;
    }
    if (CStableBatch::Sync(fd.Get(), folder)) return NFS3_OK;
    Log(c.rp, CRuntimeParam::LOG_ERROR, "[%s] Sync fail: %s", c.argu.pcName, c.path);
    return NFS3ERR_IO;
}

nfsstat3 CNfs3Prog::SyncFolderOf(NfsCall& c, const char* path, int wccCount) {
    std::string folder = path;
    const size_t slash = folder.find_last_of('/');
    folder.resize(slash == std::string::npos ? 0 : slash == 0 ? 1 : slash);
    return SyncBeforeReply(c, CStableBatch::OpenForSync(folder.c_str(), true), true, wccCount);
}

// ---- namespace procedures ------------------------------------------------------------

int CNfs3Prog::ProcedureCREATE(CInputStream* in, COutputStream* out, ProcessParam* param) {
    NfsCall c(this, "Nfs3Prog.ProcedureCREATE", in, out, param);
    diropargs3 args;
    ReadEntry(c, args);
    createhow3 how;
    Read(in, &how);
    c.stat = CheckNewEntry(c);
    if (c.stat == NFS3_OK) {
        bool existed = CUtilities::OS_IsFileExists(c.path, nullptr);
        Log(c.rp, CRuntimeParam::LOG_PROC_FUNC_ARGU, "[%s] Mode: %d, Is file exist before create: %d",
            c.argu.pcName, (int)how.mode, (int)existed);
        // EXCLUSIVE is taken as UNCHECKED: its verifier is neither kept nor
        // compared, and its attributes are all unset.
        CFileDescriptor created;
        if (how.mode > EXCLUSIVE)
            c.stat = NFS3ERR_IO;
        else if (how.mode == GUARDED && existed)
            c.stat = NFS3ERR_EXIST;
        else if (!m_pUtilities->NewFile(c.rp, &c.argu, c.path, &created) ||
                 ApplyAttributes(c, how.obj_attributes) != NFS3_OK)
            c.stat = NFS3ERR_IO;
        // The new file, its size and its entry are stable before the reply.
        if (c.stat == NFS3_OK) c.stat = SyncBeforeReply(c, std::move(created), false, 1);
        if (c.stat == NFS3_OK) c.stat = SyncFolderOf(c, c.path, 1);
        Log(c.rp, CRuntimeParam::LOG_PROC_FUNC_ARGU, "[%s] Is file exist after create: %d", c.argu.pcName,
            (int)CUtilities::OS_IsFileExists(c.path, nullptr));
    }
    WriteNewEntryReply(c, c.path);
    return End(c);
}

int CNfs3Prog::ProcedureMKDIR(CInputStream* in, COutputStream* out, ProcessParam* param) {
    NfsCall c(this, "Nfs3Prog.ProcedureMKDIR", in, out, param);
    diropargs3 args;
    ReadEntry(c, args);
    sattr3 attr;
    Read(in, &attr, false);
    c.stat = CheckNewEntry(c);
    // Only the mode is used, as sent; owner, group, size and times are not.
    int mode = attr.mode.set_it ? (int)attr.mode.mode : DEFAULT_FOLDER_MODE;
    if (c.stat == NFS3_OK && m_pUtilities->OS_FolderCreate(c.rp, &c.argu, c.path, mode, nullptr) == -1)
        c.stat = NFS3ERR_IO;
    if (c.stat == NFS3_OK) c.stat = SyncFolderOf(c, c.path, 1);
    WriteNewEntryReply(c, c.path);
    return End(c);
}

int CNfs3Prog::ProcedureSYMLINK(CInputStream* in, COutputStream* out, ProcessParam* param) {
    NfsCall c(this, "Nfs3Prog.ProcedureSYMLINK", in, out, param);
    // Symbolic links are never made: the arguments are stepped over and the
    // mount check refuses the empty path.
    SkipEntry(c);
    sattr3 attr;
    Read(in, &attr, true);
    opaque text;
    Read(in, &text);
    c.stat = CheckMount(c);
    WriteNewEntryReply(c, nullptr);
    return End(c);
}

int CNfs3Prog::ProcedureMKNOD(CInputStream* in, COutputStream* out, ProcessParam* param) {
    NfsCall c(this, "Nfs3Prog.ProcedureMKNOD", in, out, param);
    SkipEntry(c);
    mknoddata3 node;
    Read(in, &node, true);
    CheckMount(c);  // refuses the empty path; only its log line is kept
    bool special = node.type == NF3CHR || node.type == NF3BLK || node.type == NF3SOCK || node.type == NF3FIFO;
    c.stat = c.argStat != NFS3_OK ? c.argStat : special ? NFS3ERR_NOTSUPP : NFS3ERR_BADTYPE;
    return EndWithWccData(c);
}

int CNfs3Prog::ProcedureREMOVE(CInputStream* in, COutputStream* out, ProcessParam* param) {
    NfsCall c(this, "Nfs3Prog.ProcedureREMOVE", in, out, param);
    diropargs3 args;
    ReadEntry(c, args);
    c.stat = CheckOldEntry(c);
    if (c.stat == NFS3_OK && !m_pUtilities->RemoveFile(c.rp, &c.argu, c.path)) c.stat = NFS3ERR_IO;
    if (c.stat == NFS3_OK) c.stat = SyncFolderOf(c, c.path, 1);
    return EndWithWccData(c);
}

int CNfs3Prog::ProcedureRMDIR(CInputStream* in, COutputStream* out, ProcessParam* param) {
    NfsCall c(this, "Nfs3Prog.ProcedureRMDIR", in, out, param);
    diropargs3 args;
    ReadEntry(c, args);
    c.stat = CheckOldEntry(c);
    // A folder that is not empty is refused by the system: NFS3ERR_IO.
    if (c.stat == NFS3_OK && m_pUtilities->OS_FolderRemove(c.rp, &c.argu, c.path, nullptr) == -1)
        c.stat = NFS3ERR_IO;
    if (c.stat == NFS3_OK) c.stat = SyncFolderOf(c, c.path, 1);
    return EndWithWccData(c);
}

int CNfs3Prog::ProcedureRENAME(CInputStream* in, COutputStream* out, ProcessParam* param) {
    NfsCall c(this, "Nfs3Prog.ProcedureRENAME", in, out, param);
    diropargs3 from, to;
    char toPath[PATH_BUFFER_SIZE];
    toPath[0] = '\0';
    ReadEntry(c, from);
    ReadEntry(c, to, toPath);
    c.stat = CheckOldEntry(c);
    if (c.stat == NFS3_OK) c.stat = CheckPath(toPath, false);
    // The target must lie in the source's export: a handle of a folder
    // outside every export must not become a way out, nor one of another
    // export a way into data that another host owns.
    MountInfo fromMount, toMount;
    if (c.stat == NFS3_OK) {
        m_pUtilities->GetMountInfoByPath(c.rp, &c.argu, c.path, &fromMount);
        if (!m_pUtilities->GetMountInfoByPath(c.rp, &c.argu, toPath, &toMount)) {
            Log(c.rp, CRuntimeParam::LOG_ERROR, "[%s] Path record not found", c.argu.pcName);
            c.stat = NFS3ERR_IO;
        } else if (toMount.sExportName != fromMount.sExportName) {
            Log(c.rp, CRuntimeParam::LOG_ERROR, "[%s] Target lies in another export: %s", c.argu.pcName, toPath);
            c.stat = NFS3ERR_XDEV;
        }
    }
    // The file table row moves with the file, so that its handles follow it.
    if (c.stat == NFS3_OK && !m_pUtilities->RenameFile(c.rp, &c.argu, c.path, toPath)) c.stat = NFS3ERR_IO;
    if (c.stat == NFS3_OK) c.stat = SyncFolderOf(c, c.path, 2);
    if (c.stat == NFS3_OK) c.stat = SyncFolderOf(c, toPath, 2);
    return EndWithWccData(c, 2);  // fromdir_wcc, todir_wcc
}

int CNfs3Prog::ProcedureLINK(CInputStream* in, COutputStream* out, ProcessParam* param) {
    NfsCall c(this, "Nfs3Prog.ProcedureLINK", in, out, param);
    // Hard links are never made: the arguments are stepped over and the
    // mount check refuses the empty path.
    SkipObject(c);
    SkipEntry(c);
    c.stat = CheckMount(c);
    WriteStatus(c);
    WritePostOpAttr(out, nullptr);  // file_attributes
    WriteEmptyWccData(out);         // linkdir_wcc
    return End(c);
}

// ---- paths, checks and attributes ----------------------------------------------------

bool CNfs3Prog::ReadPath(ProcessParam* param, LogArgu* argu, CInputStream* in, char* path, nfsstat3* stat) {
    path[0] = '\0';
    opaque handle;
    Read(in, &handle);
    if (m_pUtilities == nullptr) return false;
    CRuntimeParam* rp = RuntimeOf(param);
    // Only the handle's own bytes are looked at: one too short to hold the
    // verifier is stale.
    bool stale = false;
    if (!m_pUtilities->GetFilePath(rp, handle.pBuf, path, (int)PATH_BUFFER_SIZE, handle.iBufLen, &stale)) {
        path[0] = '\0';
        if (stale) {
            Log(rp, CRuntimeParam::LOG_ERROR, "[%s] Stale file handle", NameOf(argu));
            if (stat && *stat == NFS3_OK) *stat = NFS3ERR_STALE;
        }
        return false;
    }
    Log(rp, CRuntimeParam::LOG_PROC_FUNC_ARGU, "[%s] Path = %s", NameOf(argu), path);
    return true;
}

bool CNfs3Prog::ReadPath(ProcessParam* param, LogArgu* argu, CInputStream* in, diropargs3* args, char* path,
                         nfsstat3* stat) {
    path[0] = '\0';
    args->name.sPath[0] = '\0';
    // On an unknown directory the name stays unread.
    if (!ReadPath(param, argu, in, args->dir.sPath, stat)) return false;
    opaque name;
    Read(in, &name);
    // The name as text (ending at a zero byte, cut to fit); CheckName
    // judges the bytes as sent.
    size_t length = name.iBufLen < sizeof args->name.sPath ? name.iBufLen : sizeof args->name.sPath - 1;
    memcpy(args->name.sPath, name.pBuf, length);
    args->name.sPath[length] = '\0';
    CRuntimeParam* rp = RuntimeOf(param);
    Log(rp, CRuntimeParam::LOG_PROC_FUNC_ARGU, "[%s] Read path=%s, name=%s", NameOf(argu), args->dir.sPath,
        args->name.sPath);
    nfsstat3 refused = CheckName(name);
    if (refused != NFS3_OK)
        Log(rp, CRuntimeParam::LOG_ERROR, "[%s] Invalid name (length %u)", NameOf(argu), name.iBufLen);
    else
        refused = ResolveEntry(rp, argu, args->dir.sPath, args->name.sPath, path);
    if (refused != NFS3_OK) {
        path[0] = '\0';
        if (stat && *stat == NFS3_OK) *stat = refused;
        return false;
    }
    Log(rp, CRuntimeParam::LOG_PROC_FUNC_ARGU, "[%s] Path = %s", NameOf(argu), path);
    return path[0] != '\0';
}

nfsstat3 CNfs3Prog::CheckName(const opaque& name) {
    if (name.iBufLen > NAME_MAX_LENGTH) return NFS3ERR_NAMETOOLONG;
    if (name.iBufLen == 0 || memchr(name.pBuf, '/', name.iBufLen) || memchr(name.pBuf, '\0', name.iBufLen))
        return NFS3ERR_ACCES;
    return NFS3_OK;
}

nfsstat3 CNfs3Prog::ResolveEntry(CRuntimeParam* rp, LogArgu* argu, const char* dir, const char* name, char* out) {
    out[0] = '\0';
    MountInfo mount;
    if (m_pUtilities == nullptr || !m_pUtilities->GetMountInfoByPath(rp, argu, dir, &mount)) return NFS3_OK;
    return ResolveEntryIn(rp, argu, mount.sLocalMountPath, dir, name, out);
}

nfsstat3 CNfs3Prog::ResolveEntryIn(CRuntimeParam* rp, LogArgu* argu, const std::string& root, const char* dir,
                                   const char* name, char* out, EntryStat* joinedStat) {
    out[0] = '\0';
    if (strcmp(name, "..") == 0 && root == dir) {
        CopyPath(out, dir);  // the root's parent is outside: the root stands for it
        return NFS3_OK;
    }
    char joined[PATH_BUFFER_SIZE], resolved[PATH_BUFFER_SIZE];
    if (!AppendFilePath(dir, name, joined)) return NFS3_OK;
    const char* result = resolved;
    if (m_bResolveShortcut && IsEntryName(name) && IsPlainPath(dir) && IsPlainEntry(dir, joined, joinedStat)) {
        // The folders of the file table are canonical, and an entry that is
        // no link adds nothing to resolve: the joined path is what realpath
        // would give, without a readlink per component.
        result = joined;
    } else if (realpath(joined, resolved) == nullptr) {
        // Not there (yet), or a link that leads nowhere: the resolved folder
        // plus the name, which must not be a link, since whatever is made
        // there later would go where the link points.
        char folder[PATH_BUFFER_SIZE];
        if (realpath(dir, folder) == nullptr || !AppendFilePath(folder, name, resolved)) return NFS3_OK;
        struct stat st;
        if (lstat(resolved, &st) == 0 && S_ISLNK(st.st_mode)) {
            Log(rp, CRuntimeParam::LOG_ERROR, "[%s] Link leads nowhere: %s", NameOf(argu), resolved);
            return NFS3ERR_ACCES;
        }
    }
    if (!IsInside(result, root)) {
        Log(rp, CRuntimeParam::LOG_ERROR, "[%s] Entry leads out of its export: %s", NameOf(argu), result);
        return NFS3ERR_ACCES;
    }
    CopyPath(out, result);
    return NFS3_OK;
}

bool CNfs3Prog::IsPlainEntry(const char* dir, const char* joined, EntryStat* joinedStat) {
    struct stat st;
    if (lstat(joined, &st) == 0) {
        // A link is read when it is resolved, which may move its access
        // time: its attributes are taken afresh afterwards.
        if (S_ISLNK(st.st_mode)) return false;
        if (joinedStat != nullptr) *joinedStat = EntryStat{true, st};
        return true;
    }
    // A name not there (yet) in a folder that is: the folder plus the name,
    // as realpath of the folder would make it.
    return (errno == ENOENT || errno == ENOTDIR) && stat(dir, &st) == 0;
}

bool CNfs3Prog::IsPlainPath(const char* path) {
    // Absolute, and no empty, "." or ".." component, no trailing slash: the
    // form realpath gives. (Links within it are not looked at.)
    if (path == nullptr || path[0] != '/' || path[1] == '\0') return false;
    for (const char* p = path; *p != '\0';) {
        const char* component = p + 1;  // p is at a slash
        const char* end = strchrnul(component, '/');
        size_t length = (size_t)(end - component);
        if (length == 0 || (length == 1 && component[0] == '.') ||
            (length == 2 && component[0] == '.' && component[1] == '.'))
            return false;
        p = end;
    }
    return true;
}

nfsstat3 CNfs3Prog::CheckProcessParam(ProcessParam* param, LogArgu* argu, const char* path) {
    CRuntimeParam* rp = RuntimeOf(param);
    MountInfo mount;
    if (path != nullptr && m_pUtilities != nullptr && m_pUtilities->GetMountInfoByPath(rp, argu, path, &mount)) {
        // An export answers only the host that mounted it.
        const char* caller = param ? param->sRemoteAddr.c_str() : "";
        if (mount.sRemoteIpAddr.empty() || mount.sRemoteIpAddr != caller) {
            Log(rp, CRuntimeParam::LOG_ERROR, "[%s] Export \"%s\" is not mounted by %s", NameOf(argu),
                mount.sExportName.c_str(), caller);
            return NFS3ERR_ACCES;
        }
        // Everything the call logs or reports from here on is the mount's.
        if (rp) {
            rp->SetID(mount.sExportName.c_str());
            rp->SetIpcID(mount.sIcpID.c_str());
        }
        return NFS3_OK;
    }
    Log(rp, CRuntimeParam::LOG_ERROR, "[%s] Path record not found", NameOf(argu));
    return NFS3ERR_IO;
}

nfsstat3 CNfs3Prog::CheckPath(const char* path, bool mustExist) {
    if (path == nullptr) return NFS3ERR_STALE;
    if (!mustExist) return NFS3_OK;
    return CUtilities::OS_IsFileExists(path, nullptr) ? NFS3_OK : NFS3ERR_IO;
}

bool CNfs3Prog::GetNfsFileHandle(ProcessParam* param, LogArgu* argu, const char* path, nfs_fh3* fh,
                                 bool canonical) {
    if (fh == nullptr || m_pUtilities == nullptr) return false;
    return m_pUtilities->GetFileHandle(RuntimeOf(param), argu, path, fh->cHandle, (int)FILE_HANDLE_SIZE, canonical);
}

bool CNfs3Prog::GetNfsFileAttributes(ProcessParam* param, LogArgu* argu, const char* path, fattr3* attr) {
    FileSystemIds fileSystems;
    return GetNfsFileAttributes(param, argu, path, attr, EntryStat(), fileSystems);
}

bool CNfs3Prog::GetNfsFileAttributes(ProcessParam* param, LogArgu* argu, const char* path, fattr3* attr,
                                     const EntryStat& known, FileSystemIds& fileSystems) {
    if (path == nullptr || attr == nullptr || m_pUtilities == nullptr) return false;
    CRuntimeParam* rp = RuntimeOf(param);
    struct stat st;
    if (m_pUtilities->OS_GetFileStat(rp, argu, path, &st, nullptr, known.known ? &known.st : nullptr) != 0)
        return false;
    attr->type = FileTypeOf(st.st_mode);
    // The old 8-bit major and minor: of the special file for devices, of the
    // file system that holds the file for everything else.
    unsigned long long device = (attr->type == NF3CHR || attr->type == NF3BLK) ? st.st_rdev : st.st_dev;
    attr->rdev.specdata1 = (uint32_t)((device >> 8) & 0xFF);
    attr->rdev.specdata2 = (uint32_t)(device & 0xFF);
    attr->mode = ConvertFileModeToNfsFileMode((uint32_t)st.st_mode);
    attr->nlink = (uint32_t)st.st_nlink;
    attr->fsid = FileSystemIdOf(path, st, fileSystems);
    // A redirected file reports its virtual size.
    attr->size = attr->type == NF3REG ? (uint64_t)m_pUtilities->GetFileSize(rp, argu, path, (long long)st.st_size)
                                      : (uint64_t)st.st_size;
    attr->used = attr->size;
    attr->uid = (uint32_t)st.st_uid;
    attr->gid = (uint32_t)st.st_gid;
    attr->fileid = (uint64_t)st.st_ino;
    attr->atime = nfstime3{(uint32_t)st.st_atime, 0};
    attr->mtime = nfstime3{(uint32_t)st.st_mtime, 0};
    attr->ctime = nfstime3{(uint32_t)st.st_ctime, 0};
    Log(rp, CRuntimeParam::LOG_PROC_FUNC_ARGU,
        "[%s] Path=%s, type=%u, mode=%x, nlink=%u, uid=%u, gid=%u, size=%lld, used=%lld, rdev.1=%u, rdev.2=%u, "
        "fsid=%llu, atime.s=%u, atime.ns=%u, mtime.s=%u, mtime.ns=%u, ctime.s=%u, ctime.ns=%u",
        NameOf(argu), path, attr->type, attr->mode, attr->nlink, attr->uid, attr->gid, (long long)attr->size,
        (long long)attr->used, attr->rdev.specdata1, attr->rdev.specdata2, (unsigned long long)attr->fsid,
        attr->atime.seconds, attr->atime.nseconds, attr->mtime.seconds, attr->mtime.nseconds, attr->ctime.seconds,
        attr->ctime.nseconds);
    return true;
}

unsigned long long CNfs3Prog::FileSystemIdOf(const char* path, const struct stat& st, FileSystemIds& fileSystems) {
    // statvfs follows a link to wherever it points.
    if (S_ISLNK(st.st_mode)) return CUtilities::GetFileSystemID(path);
    for (const auto& known : fileSystems.known)
        if (known.first == st.st_dev) return known.second;
    unsigned long long id = CUtilities::GetFileSystemID(path);
    if (id != CUtilities::UNKNOWN_FILE_SYSTEM_ID) fileSystems.known.emplace_back(st.st_dev, id);
    return id;
}

bool CNfs3Prog::GetNfsFileAttributes(const char*, wcc_attr*) { return false; }

uint32_t CNfs3Prog::ConvertFileModeToNfsFileMode(uint32_t mode) { return mode & MODE_KEPT_BITS; }

uint32_t CNfs3Prog::ConvertNfsFileModeToFileMode(uint32_t mode) { return mode & MODE_KEPT_BITS; }

bool CNfs3Prog::AppendFilePath(const char* dir, const char* name, char* out) {
    if (out == nullptr) return false;
    out[0] = '\0';
    if (dir == nullptr || name == nullptr) return false;
    const size_t dirLength = strlen(dir), nameLength = strlen(name);
    // A cut path would name some other file.
    if (dirLength + 1 + nameLength >= PATH_BUFFER_SIZE) return false;
    memcpy(out, dir, dirLength);
    out[dirLength] = '/';
    memcpy(out + dirLength + 1, name, nameLength + 1);
    return true;
}

bool CNfs3Prog::IsInVaildDirName(const char* name) {
    return name == nullptr || strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

// ---- XDR readers ---------------------------------------------------------------------

bool CNfs3Prog::ReadBool(CInputStream* in) { return ReadUint32(in) == 1; }

uint32_t CNfs3Prog::ReadUint32(CInputStream* in) {
    uint32_t v;
    in->Read(&v);
    return v;
}

uint64_t CNfs3Prog::ReadUint64(CInputStream* in) {
    uint64_t v;
    in->Read8(&v);
    return v;
}

void CNfs3Prog::Read(CInputStream* in, nfstime3* v) {
    v->seconds = ReadUint32(in);
    v->nseconds = ReadUint32(in);
}

void CNfs3Prog::Read(CInputStream* in, opaque* v) {
    v->iBufLen = ReadUint32(in);
    v->pBuf = in->GetCurrentBuffer();
    in->Skip(v->iBufLen);
    in->SkipRemainOpaque(v->iBufLen);
}

void CNfs3Prog::Read(CInputStream* in, filename3* v, bool skip) {
    uint32_t length = ReadUint32(in);
    if (v) v->sPath[0] = '\0';
    if (!skip && v && length < PATH_BUFFER_SIZE) {
        in->Read(v->sPath, length);
        v->sPath[length] = '\0';
    } else {
        in->Skip(length);
    }
    in->SkipRemainOpaque(length);
}

void CNfs3Prog::Read(CInputStream* in, sattr3* v, bool skip) {
    *v = sattr3();
    // A value behind a set flag: read, or stepped over and unset.
    auto word = [in, skip](bool& set, uint32_t& value) {
        set = ReadBool(in);
        if (!set) return;
        if (skip) {
            in->Skip(4);
            set = false;
        } else {
            value = ReadUint32(in);
        }
    };
    auto time = [in, skip](uint32_t& how, nfstime3& value) {
        how = ReadUint32(in);
        if (how != SET_TO_CLIENT_TIME) return;  // server time keeps its how with a zero time
        if (skip) {
            in->Skip(8);
            how = DONT_CHANGE;
        } else {
            Read(in, &value);
        }
    };
    word(v->mode.set_it, v->mode.mode);
    word(v->uid.set_it, v->uid.uid);
    word(v->gid.set_it, v->gid.gid);
    v->size.set_it = ReadBool(in);
    if (v->size.set_it) {
        if (skip) {
            in->Skip(8);
            v->size.set_it = false;
        } else {
            v->size.size = ReadUint64(in);
        }
    }
    time(v->atime.set_it, v->atime.atime);
    time(v->mtime.set_it, v->mtime.mtime);
}

void CNfs3Prog::Read(CInputStream* in, sattrguard3* v) {
    *v = sattrguard3();
    v->check = ReadBool(in);
    if (v->check) Read(in, &v->obj_ctime);
}

void CNfs3Prog::Read(CInputStream* in, createhow3* v) {
    *v = createhow3();
    v->mode = ReadUint32(in);
    if (v->mode == UNCHECKED || v->mode == GUARDED)
        Read(in, &v->obj_attributes, false);
    else if (v->mode == EXCLUSIVE)
        v->verf = ReadUint64(in);
}

void CNfs3Prog::Read(CInputStream* in, mknoddata3* v, bool skip) {
    *v = mknoddata3();
    v->type = ReadUint32(in);
    if (v->type == NF3CHR || v->type == NF3BLK) {
        Read(in, &v->dev_attributes, skip);
        if (skip) {
            in->Skip(8);
        } else {
            v->dev_spec.specdata1 = ReadUint32(in);
            v->dev_spec.specdata2 = ReadUint32(in);
        }
    } else if (v->type == NF3SOCK || v->type == NF3FIFO) {
        Read(in, &v->pipe_attributes, skip);
    }
}

// ---- XDR writers ---------------------------------------------------------------------

void CNfs3Prog::WriteBool(COutputStream* out, bool v) { out->Write((uint32_t)(v ? 1 : 0)); }

void CNfs3Prog::WriteUint32(COutputStream* out, uint32_t v) { out->Write(v); }

void CNfs3Prog::WriteUint64(COutputStream* out, uint64_t v) { out->Write8(v); }

void CNfs3Prog::Write(COutputStream* out, const nfstime3& v) {
    WriteUint32(out, v.seconds);
    WriteUint32(out, v.nseconds);
}

void CNfs3Prog::Write(COutputStream* out, const specdata3& v) {
    WriteUint32(out, v.specdata1);
    WriteUint32(out, v.specdata2);
}

void CNfs3Prog::Write(COutputStream* out, const fattr3& v) {
    WriteUint32(out, v.type);
    WriteUint32(out, v.mode);
    WriteUint32(out, v.nlink);
    WriteUint32(out, v.uid);
    WriteUint32(out, v.gid);
    WriteUint64(out, v.size);
    WriteUint64(out, v.used);
    Write(out, v.rdev);
    WriteUint64(out, v.fsid);
    WriteUint64(out, v.fileid);
    Write(out, v.atime);
    Write(out, v.mtime);
    Write(out, v.ctime);
}

void CNfs3Prog::Write(COutputStream* out, const opaque& v, bool lengthOnly) {
    WriteUint32(out, v.iBufLen);
    if (lengthOnly) return;
    out->Write(v.pBuf, v.iBufLen);
    out->WriteRemainOpaque(v.iBufLen);
}

void CNfs3Prog::Write(COutputStream* out, const filename3& v, bool lengthOnly) {
    opaque text;
    text.pBuf = reinterpret_cast<const unsigned char*>(v.sPath);
    text.iBufLen = (uint32_t)strnlen(v.sPath, sizeof v.sPath);
    Write(out, text, lengthOnly);
}

void CNfs3Prog::Write(COutputStream* out, const nfs_fh3& v, bool lengthOnly) {
    WriteUint32(out, (uint32_t)FILE_HANDLE_SIZE);
    if (!lengthOnly) out->Write(v.cHandle, (uint32_t)FILE_HANDLE_SIZE);
}

void CNfs3Prog::Write(COutputStream* out, const post_op_attr& v) {
    WriteBool(out, v.attributes_follow);
    if (v.attributes_follow) Write(out, v.attributes);
}

void CNfs3Prog::Write(COutputStream* out, const wcc_attr& v) {
    WriteUint64(out, v.size);
    Write(out, v.mtime);
    Write(out, v.ctime);
}

void CNfs3Prog::Write(COutputStream* out, const pre_op_attr& v) {
    WriteBool(out, v.attributes_follow);
    if (v.attributes_follow) Write(out, v.attributes);
}

void CNfs3Prog::Write(COutputStream* out, const wcc_data& v) {
    Write(out, v.before);
    Write(out, v.after);
}

void CNfs3Prog::Write(COutputStream* out, const post_op_fh3& v) {
    WriteBool(out, v.handle_follows);
    if (v.handle_follows) Write(out, v.handle, false);
}
