#pragma once

#include "RpcProg.h"
#include "RuntimeParam.h"
#include "Utilities.h"

// A path or name argument: the export name of MNT and UMNT, and (as
// filename3) every name the NFS program reads. Declared once, here.
struct COpaquePath {
    char sPath[PATH_BUFFER_SIZE] = "";
};

// The MOUNT program (100005). MNT turns an export name into the root file
// handle of the export and records the client that mounted it; UMNT forgets
// that client. Every MOUNT version is served: version 1 gets the 32-byte
// handle form, every other version the version 3 form.
class CMountProg : public CRpcProg {
public:
    static constexpr unsigned int PROCEDURE_COUNT = 6;
    // Paths of this length or longer are refused.
    static constexpr unsigned int MAX_PATH_LENGTH = 4096;
    // Status of a refused MNT: access denied.
    static constexpr unsigned int MNT_ERR_ACCES = 13;

    explicit CMountProg(CUtilities* utilities);

    int Process(CInputStream* in, COutputStream* out, ProcessParam* param) override;
    unsigned int GetMaxSupportProc() override { return PROCEDURE_COUNT; }

    // Reads one XDR string into path->sPath (up to an embedded zero). False
    // when path is null or the length is MAX_PATH_LENGTH or more (then only
    // the length was read).
    bool ReadPath(CRuntimeParam* rp, LogArgu* la, CInputStream* in, COpaquePath* path);

private:
    typedef int (CMountProg::*Procedure)(CInputStream*, COutputStream*, ProcessParam*);

    int ProcedureNULL(CInputStream* in, COutputStream* out, ProcessParam* param);
    int ProcedureMNT(CInputStream* in, COutputStream* out, ProcessParam* param);
    int ProcedureUMNT(CInputStream* in, COutputStream* out, ProcessParam* param);
    int ProcedureNOIMP(CInputStream* in, COutputStream* out, ProcessParam* param);
    // Resolves the export of an MNT call into handle (88
    // bytes) and records the caller; false when the mount is refused.
    bool Mount(CRuntimeParam* rp, LogArgu* la, CInputStream* in, ProcessParam* param, unsigned char* handle);
    void LogName(CRuntimeParam* rp, const char* name);

    static const Procedure s_Procedures[PROCEDURE_COUNT];
};
