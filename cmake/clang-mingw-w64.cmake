# Cross-compiles for 64-bit Windows with clang and lld 19, on the headers, the C runtime and the
# libstdc++ of Debian's g++-mingw-w64-x86-64-posix. Thread-local variables are the system's own here,
# while that libstdc++ keeps its few in a table of GCC's: what refers to these (std::call_once,
# std::promise and what is made of it) does not link.

set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(CMAKE_C_COMPILER clang-19)
set(CMAKE_CXX_COMPILER clang++-19)
set(CMAKE_ASM_COMPILER clang-19)
set(CMAKE_C_COMPILER_TARGET x86_64-w64-mingw32)
set(CMAKE_CXX_COMPILER_TARGET x86_64-w64-mingw32)
set(CMAKE_ASM_COMPILER_TARGET x86_64-w64-mingw32)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)
set(CMAKE_AR llvm-ar-19)
set(CMAKE_RANLIB llvm-ranlib-19)

# libstdc++'s threads are those of winpthreads.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-fuse-ld=lld-19 -pthread")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-fuse-ld=lld-19 -pthread")

set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
