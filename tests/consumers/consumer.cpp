// The same host program, compiled as C++: the companion header serves both.
#include "consumer.c"
