#include "DataTruncatedExpt.h"

#include <cstdio>

CDataTruncatedExpt::CDataTruncatedExpt(unsigned int expected, int got) : std::runtime_error("") {
    snprintf(m_cMessage, sizeof m_cMessage, "Data is truncated.Missing %u data", expected - (unsigned int)got);
}
