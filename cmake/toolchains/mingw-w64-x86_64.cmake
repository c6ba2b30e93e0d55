# Cross-builds for Windows x86-64 with Debian's mingw-w64 (the posix-thread variant, whose
# libstdc++ has std::thread and std::mutex). Dependencies come from the prefix that
# scripts/windows/build_deps.sh fills; pass it as LUMAREN_WIN_DEPS.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)

set(LUMAREN_WIN_DEPS "$ENV{LUMAREN_WIN_DEPS}" CACHE PATH "Prefix of the cross-built dependencies")
set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32 ${LUMAREN_WIN_DEPS})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config must see only the cross-built .pc files, never the build machine's.
set(ENV{PKG_CONFIG_LIBDIR} "${LUMAREN_WIN_DEPS}/lib/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "")
set(ENV{PKG_CONFIG_PATH} "")

# Test programs run under Wine.
set(CMAKE_CROSSCOMPILING_EMULATOR wine)
