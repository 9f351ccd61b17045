# Cross-compilation of the kernel image: clang and lld for x64 Windows with the headers of mingw-w64.
#
# "Generic" is on purpose: CMake's Windows platform adds import libraries, a console subsystem and version switches that
# a kernel image must not have.
set(CMAKE_SYSTEM_NAME Generic)
set(CMAKE_SYSTEM_PROCESSOR AMD64)
set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_CXX_COMPILER_TARGET x86_64-w64-mingw32)
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
