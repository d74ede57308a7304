// Compiled only: the natives as javac declares them from the Java class,
// then as the library declares them. Any difference in a parameter or the
// result type is a conflicting declaration of a C function.
#include "com_orvex_kvx_livestage_nfs_NfsLibNative.h"
#include "NfsJNI.h"
