#ifndef NIMBRA_TESTS_NATIVE_WINDOWS_SDDL_H_
#define NIMBRA_TESTS_NATIVE_WINDOWS_SDDL_H_

#include <windows.h>

#endif
