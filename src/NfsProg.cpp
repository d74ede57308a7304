#include "NfsProg.h"

CNfsProg::CNfsProg(CUtilities* utilities) : CRpcProg(utilities) {}

CNfsProg::~CNfsProg() = default;

int CNfsProg::Process(CInputStream*, COutputStream*, ProcessParam*) { return RESULT_PROC_UNAVAIL; }

void CNfsProg::SetUserID(unsigned int uid, unsigned int gid) {
    m_iUID = uid;
    m_iGID = gid;
}

void CNfsProg::SetReadOnly(bool readOnly) { m_bReadOnly = readOnly; }
