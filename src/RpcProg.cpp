#include "RpcProg.h"

CRpcProg::CRpcProg(CUtilities* utilities) : m_pUtilities(utilities) {}

CRpcProg::~CRpcProg() = default;
