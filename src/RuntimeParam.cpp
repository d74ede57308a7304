#include "RuntimeParam.h"

#include <cstdio>
#include <cstring>

CRuntimeParam::CRuntimeParam(const char* id, int logControl)
    : m_sID(id ? id : ""), m_sIpcID(), m_iLogControl(logControl) {}

CRuntimeParam::CRuntimeParam(const CRuntimeParam& other)
    : m_sID(other.m_sID), m_sIpcID(other.m_sIpcID), m_iLogControl(other.GetLogControl()) {}

CRuntimeParam& CRuntimeParam::operator=(const CRuntimeParam& other) {
    m_sID = other.m_sID;
    m_sIpcID = other.m_sIpcID;
    SetLogControl(other.GetLogControl());
    return *this;
}

bool CRuntimeParam::CheckInstanceID(const char* id, char* err, size_t errSize) {
    if (id == nullptr) id = "";
    if (strcmp(id, "server") == 0) {
        snprintf(err, errSize, "Cannot use \"%s\" as ID", id);
        return false;
    }
    for (const char* p = id; *p; ++p) {
        if (*p == '/' || *p == ' ') {
            snprintf(err, errSize, "Invalid char \"%c\" inside ID", *p);
            return false;
        }
    }
    return true;
}
