# Cross-compile for 64-bit Windows with clang, using the mingw-w64 headers,
# runtime and GCC's C++ library from the same Debian packages.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(TZ_TRIPLE x86_64-w64-mingw32)
set(TZ_GCC_DIR /usr/lib/gcc/${TZ_TRIPLE}/12-posix)

set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET ${TZ_TRIPLE})
set(CMAKE_CXX_COMPILER_TARGET ${TZ_TRIPLE})
set(CMAKE_RC_COMPILER ${TZ_TRIPLE}-windres)

set(TZ_CLANG_FLAGS "-isystem ${TZ_GCC_DIR}/include/c++ -isystem ${TZ_GCC_DIR}/include/c++/${TZ_TRIPLE} -isystem /usr/${TZ_TRIPLE}/include")
set(CMAKE_CXX_FLAGS_INIT "${TZ_CLANG_FLAGS}")
set(CMAKE_C_FLAGS_INIT "-isystem /usr/${TZ_TRIPLE}/include")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-fuse-ld=lld -L${TZ_GCC_DIR} -L/usr/${TZ_TRIPLE}/lib")

set(CMAKE_FIND_ROOT_PATH /usr/${TZ_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)

include(${CMAKE_CURRENT_LIST_DIR}/wine-emulator.cmake)

# GCC's posix-model C++ library needs winpthread, which the GCC driver adds by itself.
set(CMAKE_CXX_STANDARD_LIBRARIES "-lpthread" CACHE STRING "" FORCE)
set(CMAKE_C_STANDARD_LIBRARIES "-lpthread" CACHE STRING "" FORCE)
