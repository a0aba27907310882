# Cross toolchain for the Windows x64 kernel driver: mingw-w64's GCC and binutils
# (Debian: g++-mingw-w64-x86-64, mingw-w64-x86-64-dev). The driver links no C or C++
# runtime; win/CMakeLists.txt sets the kernel flags and the libraries.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)

set(USBMI_MINGW_TRIPLE x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${USBMI_MINGW_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${USBMI_MINGW_TRIPLE}-g++)
set(CMAKE_RC_COMPILER ${USBMI_MINGW_TRIPLE}-windres)
set(CMAKE_AR ${USBMI_MINGW_TRIPLE}-ar CACHE FILEPATH "")
set(CMAKE_RANLIB ${USBMI_MINGW_TRIPLE}-ranlib CACHE FILEPATH "")

# Headers and libraries come from the mingw sysroot only; programs (python3, the
# host's tools) from the build machine.
set(CMAKE_FIND_ROOT_PATH /usr/${USBMI_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)

# A user-mode program with the default runtime is enough to prove the compiler works.
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
