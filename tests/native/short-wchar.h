#ifndef NIMBRA_TESTS_NATIVE_SHORT_WCHAR_H_
#define NIMBRA_TESTS_NATIVE_SHORT_WCHAR_H_

// Included before everything else by what is compiled with Windows' 16-bit wchar_t: the C library's
// functions for wide text count in 32 bits, so the standard library is led to others, which
// short-wchar.cpp defines.

#pragma redefine_extname wcslen NimbraShortWcslen
#pragma redefine_extname wmemchr NimbraShortWmemchr
#pragma redefine_extname wmemcmp NimbraShortWmemcmp
#pragma redefine_extname wmemcpy NimbraShortWmemcpy
#pragma redefine_extname wmemmove NimbraShortWmemmove
#pragma redefine_extname wmemset NimbraShortWmemset

#endif
