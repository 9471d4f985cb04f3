# Compiles for the linkers of the MSVC kind with clang and lld, without Visual Studio and its SDK.

set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)
set(CMAKE_C_COMPILER clang-19)
set(CMAKE_C_COMPILER_TARGET x86_64-pc-windows-msvc)
set(CMAKE_AR llvm-ar-19)
set(CMAKE_LINKER lld-link-19)
set(CMAKE_MT llvm-mt-19)
set(CMAKE_RC_COMPILER llvm-rc-19)

# There is no C runtime to link with. MinGW's headers stand in for Microsoft's.
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
set(CMAKE_POLICY_DEFAULT_CMP0091 NEW)
set(CMAKE_MSVC_RUNTIME_LIBRARY "")
set(CMAKE_C_STANDARD_LIBRARIES "")
set(CMAKE_C_FLAGS_INIT "-fno-builtin -isystem /usr/x86_64-w64-mingw32/include")
