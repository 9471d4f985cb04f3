// The same program as C++: the header must mean the same to both languages.
#include "tests/header/header-in-c.c"
