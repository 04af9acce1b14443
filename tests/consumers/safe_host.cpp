// The same host of the safe library, compiled as C++: const inputs go in
// without casts.
#include "safe_host.c"
